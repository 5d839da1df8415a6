#include "protocol/session_wire.h"

#include <algorithm>
#include <cstring>

#include <nlohmann/json.hpp>

namespace lumora2::wire::sessions {
namespace {

void appendWord(std::string& out, std::uint32_t word) {
  std::uint8_t bytes[4];
  putLittleEndian(bytes, word);
  out.append(reinterpret_cast<const char*>(bytes), sizeof bytes);
}

std::string textRecord(std::uint32_t session, std::uint32_t kind, const std::string& text) {
  std::string out;
  appendWord(out, session);
  appendWord(out, kind);
  appendWord(out, std::uint32_t(std::min(text.size(), kMaxText)));
  out.append(text, 0, kMaxText);
  return out;
}

}  // namespace

std::size_t framePixelBytes(int width, int height, std::uint32_t flags) {
  const std::size_t pixels = std::size_t(width) * std::size_t(height);
  return (flags & kFlagI420) != 0 ? pixels + 2 * (pixels / 4) : pixels * 3;
}

void appendOpen(std::string& out, std::uint32_t session, std::uint32_t flags,
                const std::string& avatar) {
  appendWord(out, session);
  appendWord(out, kOpen);
  appendWord(out, flags);
  appendWord(out, std::uint32_t(std::min(avatar.size(), kMaxText)));
  out.append(avatar, 0, kMaxText);
}

void appendAudio(std::string& out, std::uint32_t session, const float* samples, std::size_t count,
                 std::size_t piece) {
  piece = std::clamp<std::size_t>(piece, 1, kOpen - 1);
  for (std::size_t at = 0; at < count; at += piece) {
    const std::size_t n = std::min(piece, count - at);
    appendWord(out, session);
    wire::appendAudio(out, samples + at, n, n);
  }
}

void appendControl(std::string& out, std::uint32_t session, std::uint32_t word) {
  appendWord(out, session);
  appendWord(out, word);
}

Message MessageReader::next() {
  std::uint8_t bytes[4];
  auto word = [&](std::uint32_t& into) {
    if (!read_(bytes, sizeof bytes)) return false;
    into = getLittleEndian(bytes);
    return true;
  };
  while (!ended_) {
    Message m;
    std::uint32_t count = 0;
    if (!word(m.session) || !word(count)) break;
    if (count == kNoOp) {
      if (!read_(bytes, sizeof bytes)) break;
      continue;
    }
    if (count == kReset || count == kFlush || count == kEndOfStream) {
      m.kind = count == kReset   ? Message::Kind::reset
               : count == kFlush ? Message::Kind::flush
                                 : Message::Kind::close;
      return m;
    }
    if (count == kOpen) {
      std::uint32_t length = 0;
      if (!word(m.flags) || !word(length) || length > kMaxText) break;
      m.avatar.resize(length);
      if (length > 0 && !read_(m.avatar.data(), length)) break;
      m.kind = Message::Kind::open;
      return m;
    }
    // An audio count: the rest is render-stream's own audio message.
    std::uint8_t lead[4];
    putLittleEndian(lead, count);
    bool leadGiven = false;
    StreamMessageReader audio([&](void* into, std::size_t size) {
      if (!leadGiven) {
        leadGiven = true;
        std::memcpy(into, lead, sizeof lead);
        return size == sizeof lead;
      }
      return read_(into, size);
    });
    StreamMessage read = audio.next();
    if (read.kind != StreamMessage::Kind::audio) break;
    m.kind = Message::Kind::audio;
    m.samples = std::move(read.samples);
    return m;
  }
  ended_ = true;
  return {};
}

std::string headerLine(int width, int height) {
  nlohmann::ordered_json j;
  j["fps"] = kFps;
  j["width"] = width;
  j["height"] = height;
  j["sample_rate"] = kSampleRate;
  j["decoder"] = "";
  j["sessions"] = true;
  return "READY " + j.dump() + "\n";
}

void putFrameLead(std::uint8_t* at, std::uint32_t session, std::uint32_t position) {
  putLittleEndian(at, session);
  putLittleEndian(at + 4, position);
}

std::string openedRecord(std::uint32_t session, std::uint32_t flags, const std::string& decoder) {
  std::string out;
  appendWord(out, session);
  appendWord(out, kOpened);
  appendWord(out, flags);
  appendWord(out, std::uint32_t(std::min(decoder.size(), kMaxText)));
  out.append(decoder, 0, kMaxText);
  return out;
}

std::string closedRecord(std::uint32_t session, const std::string& why) {
  return textRecord(session, kClosed, why);
}

std::string markerRecord(std::uint32_t session) {
  std::string out;
  appendWord(out, session);
  appendWord(out, kMarker);
  return out;
}

RecordReader::RecordReader(int width, int height)
    : width_(width), height_(height), buffer_(framePixelBytes(width, height, 0)) {}

std::size_t RecordReader::want() const {
  switch (stage_) {
    case Stage::lead:
    case Stage::kind:
    case Stage::flags:
    case Stage::length:
      return 4;
    case Stage::frame:
      return framePixelBytes(width_, height_, flags_.at(item_.session));
    case Stage::text:
      return textBytes_;
  }
  return 4;
}

std::span<std::uint8_t> RecordReader::space() {
  const std::size_t wanted = want();
  if (buffer_.size() < std::max<std::size_t>(wanted, 4))
    buffer_.resize(std::max<std::size_t>(wanted, 4));
  return {buffer_.data() + held_, wanted - held_};
}

void RecordReader::commit(std::size_t size, const ItemFn& onItem) {
  held_ += size;
  if (held_ < want()) return;
  held_ = 0;
  complete(onItem);
  // An empty text is complete as soon as its length is known.
  while (stage_ == Stage::text && textBytes_ == 0) complete(onItem);
}

void RecordReader::consume(const std::uint8_t* data, std::size_t size, const ItemFn& onItem) {
  while (size > 0) {
    const std::span<std::uint8_t> into = space();
    const std::size_t take = std::min(size, into.size());
    std::memcpy(into.data(), data, take);
    data += take;
    size -= take;
    commit(take, onItem);
  }
}

void RecordReader::complete(const ItemFn& onItem) {
  const std::uint32_t word = getLittleEndian(buffer_.data());
  switch (stage_) {
    case Stage::lead:
      item_ = Item{};
      item_.session = word;
      stage_ = Stage::kind;
      return;
    case Stage::kind:
      if (word == kMarker) {
        item_.kind = Item::Kind::marker;
        stage_ = Stage::lead;
        onItem(item_);
      } else if (word == kOpened || word == kClosed) {
        item_.kind = word == kOpened ? Item::Kind::opened : Item::Kind::closed;
        stage_ = word == kOpened ? Stage::flags : Stage::length;
      } else {
        if (!flags_.contains(item_.session)) {
          throw WireError("a frame of session " + std::to_string(item_.session) +
                          ", which is not open");
        }
        item_.kind = Item::Kind::frame;
        item_.position = word;
        stage_ = Stage::frame;
      }
      return;
    case Stage::frame:
      item_.pixels = buffer_.data();
      item_.buffer = &buffer_;
      stage_ = Stage::lead;
      onItem(item_);
      item_.pixels = nullptr;
      item_.buffer = nullptr;
      return;
    case Stage::flags:
      item_.flags = word;
      stage_ = Stage::length;
      return;
    case Stage::length:
      if (word > kMaxText)
        throw WireError("a session record's text of " + std::to_string(word) +
                        " bytes; at most 4096 are allowed");
      textBytes_ = word;
      stage_ = Stage::text;
      return;
    case Stage::text:
      item_.text.assign(reinterpret_cast<const char*>(buffer_.data()), textBytes_);
      textBytes_ = 0;
      stage_ = Stage::lead;
      if (item_.kind == Item::Kind::opened) {
        flags_[item_.session] = item_.flags;
        const std::size_t bytes = framePixelBytes(width_, height_, item_.flags);
        if (buffer_.size() < bytes) buffer_.resize(bytes);
      } else {
        flags_.erase(item_.session);
      }
      onItem(item_);
      return;
  }
}

}  // namespace lumora2::wire::sessions
