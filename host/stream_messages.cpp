#include "host/stream_messages.h"

#include <algorithm>

namespace lumora2 {

StreamMessage StreamMessageReader::next() {
  while (!ended_) {
    std::uint8_t bytes[4];
    if (!read_(bytes, sizeof bytes)) break;
    const std::uint32_t count =
        static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
        static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
    if (count == kReset) return {StreamMessage::Kind::reset, {}};
    if (count == kFlush) return {StreamMessage::Kind::flush, {}};
    if (count == kNoOp) {
      if (!read_(bytes, sizeof bytes)) break;
      continue;
    }
    if (count == kEndOfStream) break;
    // Samples are little-endian IEEE 754 floats, the host's own layout on x86-64. The payload is
    // taken in pieces, so memory follows what actually arrives, not what a count word claims.
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

}  // namespace lumora2
