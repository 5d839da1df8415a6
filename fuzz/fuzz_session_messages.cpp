// libFuzzer target: both directions of the sessions wire format over arbitrary bytes. The first
// byte picks the direction, the second the size of the pieces the child's output arrives in.
// - Parent to child: every byte string decodes to a sequence of messages that ends, without
//   reading past the input, each audio payload as long as its count word says, each avatar
//   within the longest text allowed.
// - Child to parent (a 4 x 2 picture, so that frames are reachable): records reassemble from
//   pieces of any size; what cannot be a record is a WireError, never a read or write out of
//   bounds; a frame is only ever of an opened session and holds the bytes its flags call for.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>

#include "protocol/session_wire.h"

namespace sw = lumora2::wire::sessions;

namespace {

void parentMessages(const std::uint8_t* data, std::size_t size) {
  std::size_t at = 0;
  sw::MessageReader reader([&](void* into, std::size_t n) {
    if (n > size - at) {
      at = size;
      return false;
    }
    std::memcpy(into, data + at, n);
    at += n;
    return true;
  });
  // Each message consumes at least its two words, so this bounds the loop.
  for (std::size_t messages = 0; messages <= size / 8 + 1; ++messages) {
    const sw::Message m = reader.next();
    if (m.kind == sw::Message::Kind::end) return;
    if (m.avatar.size() > sw::kMaxText) std::abort();
  }
  std::abort();  // the decoder failed to end on a finite input
}

void childRecords(const std::uint8_t* data, std::size_t size, std::size_t piece) {
  constexpr int kWidth = 4, kHeight = 2;
  sw::RecordReader reader(kWidth, kHeight);
  std::map<std::uint32_t, std::uint32_t> open;  // sessions opened, with their flags
  auto onItem = [&](const sw::RecordReader::Item& item) {
    using Kind = sw::RecordReader::Item::Kind;
    if (item.kind == Kind::opened) open[item.session] = item.flags;
    if (item.kind == Kind::closed) open.erase(item.session);
    if (item.kind != Kind::frame) return;
    const auto session = open.find(item.session);
    if (session == open.end()) std::abort();  // a frame of a session never opened
    if (item.buffer == nullptr || item.pixels != item.buffer->data() ||
        item.buffer->size() < sw::framePixelBytes(kWidth, kHeight, session->second)) {
      std::abort();
    }
  };
  try {
    for (std::size_t at = 0; at < size;) {
      const std::size_t n = std::min(piece, size - at);
      reader.consume(data + at, n, onItem);
      at += n;
    }
  } catch (const lumora2::wire::WireError&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  if ((data[0] & 1) == 0) {
    parentMessages(data + 2, size - 2);
  } else {
    childRecords(data + 2, size - 2, std::size_t(data[1] % 64) + 1);
  }
  return 0;
}
