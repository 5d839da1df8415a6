#include "protocol/stream_wire.h"

#include <algorithm>
#include <cstring>

#include <nlohmann/json.hpp>

namespace lumora2::wire {

void putLittleEndian(std::uint8_t* at, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) at[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

std::uint32_t getLittleEndian(const std::uint8_t* at) {
  return std::uint32_t(at[0]) | std::uint32_t(at[1]) << 8 | std::uint32_t(at[2]) << 16 |
         std::uint32_t(at[3]) << 24;
}

std::string headerLine(const Header& header) {
  nlohmann::ordered_json j;
  j["fps"] = header.fps;
  j["width"] = header.width;
  j["height"] = header.height;
  j["sample_rate"] = header.sampleRate;
  j["decoder"] = header.decoder;
  return "READY " + j.dump() + "\n";
}

Header parseHeader(const std::string& line) {
  const std::string prefix = "READY ";
  auto refuse = [&](const std::string& why) {
    return WireError("render-stream's header \"" + line + "\" " + why);
  };
  if (line.rfind(prefix, 0) != 0) throw refuse("does not begin with \"READY \"");
  Header h;
  try {
    const nlohmann::json j = nlohmann::json::parse(line.substr(prefix.size()));
    h.fps = j.at("fps").get<int>();
    h.width = j.at("width").get<int>();
    h.height = j.at("height").get<int>();
    h.sampleRate = j.at("sample_rate").get<int>();
    h.decoder = j.value("decoder", "");
  } catch (const nlohmann::json::exception&) {
    throw refuse("is not a JSON object with fps, width, height and sample_rate");
  }
  if (h.fps != kFps || h.sampleRate != kSampleRate) {
    throw refuse("promises " + std::to_string(h.fps) + " fps from " + std::to_string(h.sampleRate) +
                 " Hz audio; the stream is 20 fps from 16000 Hz");
  }
  if (h.width <= 0 || h.height <= 0 || h.width % 2 != 0 || h.height % 2 != 0 || h.width > 8192 ||
      h.height > 8192) {
    throw refuse("promises frames of " + std::to_string(h.width) + " x " +
                 std::to_string(h.height) + "; a video needs even dimensions up to 8192");
  }
  return h;
}

void appendAudio(std::string& out, const float* samples, std::size_t count, std::size_t piece) {
  piece = std::clamp<std::size_t>(piece, 1, kMaxAudioCount);
  for (std::size_t at = 0; at < count; at += piece) {
    const auto n = std::uint32_t(std::min(piece, count - at));
    std::uint8_t word[4];
    putLittleEndian(word, n);
    out.append(reinterpret_cast<const char*>(word), sizeof word);
    // Samples are little-endian IEEE 754 floats, the host's own layout on x86-64.
    out.append(reinterpret_cast<const char*>(samples + at), n * sizeof(float));
  }
}

void appendControl(std::string& out, std::uint32_t word) {
  std::uint8_t bytes[4];
  putLittleEndian(bytes, word);
  out.append(reinterpret_cast<const char*>(bytes), sizeof bytes);
}

StreamMessage StreamMessageReader::next() {
  while (!ended_) {
    std::uint8_t bytes[4];
    if (!read_(bytes, sizeof bytes)) break;
    const std::uint32_t count = getLittleEndian(bytes);
    if (count == kReset) return {StreamMessage::Kind::reset, {}};
    if (count == kFlush) return {StreamMessage::Kind::flush, {}};
    if (count == kNoOp) {
      if (!read_(bytes, sizeof bytes)) break;
      continue;
    }
    if (count == kEndOfStream) break;
    StreamMessage audio{StreamMessage::Kind::audio, {}};
    std::size_t remaining = count;
    bool whole = true;
    while (whole && remaining > 0) {
      const std::size_t piece = std::min<std::size_t>(remaining, kPieceSamples);
      const std::size_t at = audio.samples.size();
      audio.samples.resize(at + piece);
      whole = read_(audio.samples.data() + at, piece * sizeof(float));
      remaining -= piece;
    }
    if (!whole) break;
    return audio;
  }
  ended_ = true;
  return {};
}

RecordReader::RecordReader(int width, int height) : record_(frameRecordBytes(width, height)) {}

std::span<std::uint8_t> RecordReader::space() {
  // The position word first; a marker is a word alone.
  const std::size_t end = held_ < 4 ? 4 : record_.size();
  return {record_.data() + held_, end - held_};
}

void RecordReader::commit(std::size_t size, const ItemFn& onItem) {
  held_ += size;
  if (held_ == 4 && getLittleEndian(record_.data()) == kMarker) {
    held_ = 0;
    onItem(Item{Item::Kind::marker, kMarker, nullptr});
  } else if (held_ == record_.size()) {
    held_ = 0;
    onItem(Item{Item::Kind::frame, getLittleEndian(record_.data()), record_.data() + 4});
  }
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

}  // namespace lumora2::wire
