// The render-stream wire format, in one place: the header line the child writes once it is ready,
// the length-prefixed messages the parent writes (audio, reset, flush, no-op, end), and the frame
// records and end-of-segment markers the child answers with (docs/MODEL_FORMAT.md, section 5).
// render-stream and every parent read and write the stream through this module and nothing else.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace lumora2::wire {

// The stream's fixed rates: one frame per 800 samples of 16 kHz audio, 20 frames a second.
inline constexpr int kFps = 20;
inline constexpr int kSampleRate = 16000;
inline constexpr std::size_t kSamplesPerFrame = 800;
// When frames come while audio arrives (before a flush): the child renders speech in chunks of
// 25,600 samples. The first chunk of a segment gives frames 0 to 21 once it is whole; each further
// chunk gives the next 32 frames once it is whole. A flush renders what is pending at once.
inline constexpr std::size_t kChunkSamples = 25600;
inline constexpr std::size_t kFirstChunkFrames = 22;
inline constexpr std::size_t kChunkFrames = 32;
// The samples of a segment that must have been sent (without a flush) before frame `frame` of it
// can come.
constexpr std::size_t samplesBeforeFrame(std::size_t frame) {
  return frame < kFirstChunkFrames
             ? kChunkSamples
             : (2 + (frame - kFirstChunkFrames) / kChunkFrames) * kChunkSamples;
}

// Count words of the parent's messages.
inline constexpr std::uint32_t kEndOfStream = 0;
inline constexpr std::uint32_t kNoOp = 0xFFFFFFFD;
inline constexpr std::uint32_t kReset = 0xFFFFFFFE;
inline constexpr std::uint32_t kFlush = 0xFFFFFFFF;
inline constexpr std::uint32_t kMaxAudioCount = 0xFFFFFFFC;
// The child's end-of-segment marker: a position word no frame ever has.
inline constexpr std::uint32_t kMarker = 0xFFFFFFFF;
// The longest header line a reader accepts.
inline constexpr std::size_t kMaxHeaderBytes = 4096;

// A header line that is not one, or a record stream that cannot be one. The message is one line
// fit for a user.
struct WireError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

void putLittleEndian(std::uint8_t* at, std::uint32_t value);
std::uint32_t getLittleEndian(const std::uint8_t* at);

// ---- The header line ------------------------------------------------------------------------

// What the child's header promises.
struct Header {
  int fps = kFps;
  int width = 0;
  int height = 0;
  int sampleRate = kSampleRate;
  std::string decoder;
};

// `READY {"fps":20,"width":W,"height":H,"sample_rate":16000,"decoder":"<label>"}` and a newline.
std::string headerLine(const Header& header);

// Parses the header line (without its newline). Throws WireError quoting the line when it is not
// one, promises anything but 20 fps from 16000 Hz, or frames without even, positive dimensions up
// to 8192.
Header parseHeader(const std::string& line);

// ---- Parent to child ------------------------------------------------------------------------

// Appends audio messages for `count` samples (at most `piece` samples per message) to `out`.
void appendAudio(std::string& out, const float* samples, std::size_t count,
                 std::size_t piece = kSampleRate);
// Appends a message without payload (kReset, kFlush or kEndOfStream).
void appendControl(std::string& out, std::uint32_t word);

struct StreamMessage {
  enum class Kind { audio, reset, flush, end };
  Kind kind = Kind::end;
  std::vector<float> samples;  // audio only
};

// Decodes the parent's messages from a byte source. No-ops are consumed and never returned. A
// source that ends early, anywhere, ends the stream (a partial payload is dropped). Payloads are
// taken in pieces, so memory follows what actually arrives, not what a count word claims.
class StreamMessageReader {
 public:
  static constexpr std::size_t kPieceSamples = 65536;
  // `readExactly(into, size)` fills `size` bytes or returns false when the source ends first.
  using ReadExactly = std::function<bool(void* into, std::size_t size)>;
  explicit StreamMessageReader(ReadExactly readExactly) : read_(std::move(readExactly)) {}

  // The next message; after `end`, every call returns `end` again without reading.
  StreamMessage next();

 private:
  ReadExactly read_;
  bool ended_ = false;
};

// ---- Child to parent ------------------------------------------------------------------------

// Bytes of one frame record for frames of width x height: the position as 4 little-endian bytes,
// then the pixels, R, G, B each, rows top to bottom.
inline std::size_t frameRecordBytes(int width, int height) {
  return 4 + std::size_t(width) * std::size_t(height) * 3;
}

// Reassembles frame records and markers from the child's output as it arrives, in pieces of any
// size.
class RecordReader {
 public:
  struct Item {
    enum class Kind { frame, marker };
    Kind kind = Kind::marker;
    std::uint32_t position = 0;
    const std::uint8_t* rgb = nullptr;  // width * height * 3 bytes; valid during the callback
  };
  using ItemFn = std::function<void(const Item&)>;

  RecordReader(int width, int height);

  // Reading straight from a source, with no copy: space() is where the next bytes go (at most the
  // rest of the item begun, so that no read carries bytes past the item it completes), and
  // commit(size) takes the `size` bytes written there, handing the item they complete, if any,
  // to `onItem`. A frame's pixels stay where they are until the next commit.
  std::span<std::uint8_t> space();
  void commit(std::size_t size, const ItemFn& onItem);

  // Takes `size` bytes from elsewhere (copied) and hands every record or marker they complete to
  // `onItem`, in order.
  void consume(const std::uint8_t* data, std::size_t size, const ItemFn& onItem);
  // Whether a record has begun and not yet ended.
  bool midRecord() const { return held_ > 0; }

 private:
  std::vector<std::uint8_t> record_;  // position word + pixels
  std::size_t held_ = 0;              // bytes of record_ filled
};

}  // namespace lumora2::wire
