// The sessions wire format: render-stream's messages and records (stream_wire.h) for several
// sessions over one pair of pipes, each message and record led by its session's number, and two
// more of each to open and close sessions (docs/MODEL_FORMAT.md, "The sessions extension").
// render-sessions and the parents of a shared render process read and write it through this
// module; render-stream's own format is unchanged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "protocol/stream_wire.h"

namespace lumora2::wire::sessions {

// The count word that opens a session (parent to child). Audio counts of this format stop below
// it, at kMaxAudioCount - 1.
inline constexpr std::uint32_t kOpen = 0xFFFFFFFC;
// The open message's flags: frames of the session come as 4:2:0 planes instead of R, G, B.
inline constexpr std::uint32_t kFlagI420 = 1;
// The child's words after a session number, besides positions and the marker: the session is
// ready (with its decoder) and the session is over (with why).
inline constexpr std::uint32_t kOpened = 0xFFFFFFFE;
inline constexpr std::uint32_t kClosed = 0xFFFFFFFD;
// The longest avatar path or text a message or record carries.
inline constexpr std::size_t kMaxText = 4096;
// Why a session closed, as the closed record says: the parent closed it, its engine failed two
// segments in a row (open it again for a fresh engine), or it never opened.
inline constexpr const char* kClosedByParent = "closed";
inline constexpr const char* kClosedForRespawn = "respawn";

// Pixel bytes of one frame of a session opened with `flags`.
std::size_t framePixelBytes(int width, int height, std::uint32_t flags);

// ---- Parent to child ------------------------------------------------------------------------

void appendOpen(std::string& out, std::uint32_t session, std::uint32_t flags,
                const std::string& avatar);
// Audio, as render-stream's audio messages, each led by the session number.
void appendAudio(std::string& out, std::uint32_t session, const float* samples, std::size_t count,
                 std::size_t piece = kSampleRate);
// kReset, kFlush, or kEndOfStream (which closes the session).
void appendControl(std::string& out, std::uint32_t session, std::uint32_t word);

struct Message {
  enum class Kind { open, audio, reset, flush, close, end };
  Kind kind = Kind::end;  // end: the stream itself ended
  std::uint32_t session = 0;
  std::uint32_t flags = 0;     // open
  std::string avatar;          // open
  std::vector<float> samples;  // audio
};

// Decodes the parent's messages. A source that ends, anywhere, or a message that cannot be one
// (an open with a text over kMaxText) ends the stream; no-ops are consumed.
class MessageReader {
 public:
  explicit MessageReader(StreamMessageReader::ReadExactly readExactly)
      : read_(std::move(readExactly)) {}
  Message next();

 private:
  StreamMessageReader::ReadExactly read_;
  bool ended_ = false;
};

// ---- Child to parent ------------------------------------------------------------------------

// `READY {"fps":20,"width":W,"height":H,"sample_rate":16000,"decoder":"","sessions":true}` and a
// newline: parseHeader reads it; each session's decoder comes in its opened record.
std::string headerLine(int width, int height);
// The session number and a frame record's position word, before its pixels.
void putFrameLead(std::uint8_t* at, std::uint32_t session, std::uint32_t position);
// An opened or closed record, whole.
std::string openedRecord(std::uint32_t session, std::uint32_t flags, const std::string& decoder);
std::string closedRecord(std::uint32_t session, const std::string& why);
std::string markerRecord(std::uint32_t session);

// Reassembles the child's records from its output as it arrives, in pieces of any size. A
// session's frames are as large as its opened record's flags say; a frame of a session that has
// not opened, or a text over kMaxText, is a WireError.
class RecordReader {
 public:
  struct Item {
    enum class Kind { frame, marker, opened, closed };
    Kind kind = Kind::marker;
    std::uint32_t session = 0;
    std::uint32_t position = 0;
    std::uint32_t flags = 0;               // opened
    const std::uint8_t* pixels = nullptr;  // frame: valid during the callback
    // frame: the buffer the pixels begin, which the callback may take by swapping another vector
    // (of any size) into it; the reader reads the next frame into that one.
    std::vector<std::uint8_t>* buffer = nullptr;
    std::string text;  // opened: the decoder; closed: why
  };
  using ItemFn = std::function<void(const Item&)>;

  RecordReader(int width, int height);

  // Reading straight from a source, with no copy: space() is where the next bytes go (at most the
  // rest of the field or frame begun, so that no read carries bytes past it), and commit(size)
  // takes the `size` bytes written there, handing the item they complete, if any, to `onItem`.
  std::span<std::uint8_t> space();
  void commit(std::size_t size, const ItemFn& onItem);
  // Takes `size` bytes from elsewhere (copied), in pieces of any size.
  void consume(const std::uint8_t* data, std::size_t size, const ItemFn& onItem);

 private:
  enum class Stage { lead, kind, frame, flags, length, text };
  // Bytes the current stage still wants into buffer_.
  std::size_t want() const;
  void complete(const ItemFn& onItem);

  int width_, height_;
  std::map<std::uint32_t, std::uint32_t> flags_;  // open sessions' flags
  Stage stage_ = Stage::lead;
  Item item_;
  std::vector<std::uint8_t> buffer_;
  std::size_t held_ = 0;
  std::size_t textBytes_ = 0;
};

}  // namespace lumora2::wire::sessions
