// libFuzzer target: the render-stream input decoder over arbitrary bytes. Every byte string must
// decode to a sequence of messages that ends, without reading past the input, and with every
// audio payload's length matching its count word.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "protocol/stream_wire.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::size_t at = 0;
  lumora2::wire::StreamMessageReader reader([&](void* into, std::size_t n) {
    if (n > size - at) {
      at = size;
      return false;
    }
    std::memcpy(into, data + at, n);
    at += n;
    return true;
  });
  // Each message consumes at least its 4-byte count word, so this bounds the loop.
  for (std::size_t messages = 0; messages <= size / 4 + 1; ++messages) {
    if (reader.next().kind == lumora2::wire::StreamMessage::Kind::end) return 0;
  }
  std::abort();  // the decoder failed to end on a finite input
}
