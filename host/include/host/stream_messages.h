// The render-stream input protocol, decoded: length-prefixed messages from the parent. Every
// message opens with a 32-bit little-endian count word; three values are reserved (reset, flush,
// and a no-op followed by one ignored word), 0 ends the stream, any other count N is N float
// samples (4 × N bytes). A source that ends early, anywhere, ends the stream: a partial payload
// is dropped. Kept apart from the command so that the decoding alone can be fuzzed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace lumora2 {

struct StreamMessage {
  enum class Kind { audio, reset, flush, end };
  Kind kind = Kind::end;
  std::vector<float> samples;  // audio only
};

class StreamMessageReader {
 public:
  static constexpr std::uint32_t kNoOp = 0xFFFFFFFD;
  static constexpr std::uint32_t kReset = 0xFFFFFFFE;
  static constexpr std::uint32_t kFlush = 0xFFFFFFFF;
  static constexpr std::uint32_t kEndOfStream = 0;
  // Audio payloads are read at most this many samples at a time.
  static constexpr std::size_t kPieceSamples = 65536;

  // `readExactly(into, size)` fills `size` bytes or returns false when the source ends first.
  using ReadExactly = std::function<bool(void* into, std::size_t size)>;
  explicit StreamMessageReader(ReadExactly readExactly) : read_(std::move(readExactly)) {}

  // The next message; no-ops are consumed here and never returned. After `end`, every call
  // returns `end` again without reading.
  StreamMessage next();

 private:
  ReadExactly read_;
  bool ended_ = false;
};

}  // namespace lumora2
