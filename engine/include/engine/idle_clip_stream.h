// IdleClipStream: an identity's idle clip ("idle.mp4") played frame by frame as the backdrop shown
// while no speech is rendered. Frames are decoded on demand from the file, never held in memory
// (only the first frame is kept as bytes), and the clip loops at its authored end: a standby reader
// is opened shortly before the estimated end, so the seam from the last frame to frame 0 does not
// stall on opening the file. Nothing is blended at the seam; it is the clip's own.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "engine/thread_annotations.h"

namespace lumora2 {

// One decoded idle-clip picture: 32-bit B, G, R, A pixels, rows top to bottom, `stride` bytes per
// row. Shared so that a caller may hold it while the clip moves on.
struct PixelBuffer {
  int width = 0;
  int height = 0;
  std::size_t stride = 0;
  std::shared_ptr<const std::vector<std::uint8_t>> bytes;
};

class IdleClipStream {
 public:
  using Path = std::filesystem::path;

  // Opens the clip at `url` for frames of exactly width x height. On failure the stream is null
  // and the second member says why:
  //  - no url: "no idle.mp4 for this identity (activeAgentDir=<avatarDir or nil>; the
  //    per-identity dir is the only place a downloaded agent's clip is looked for)";
  //  - a file that cannot be read as media or has no video stream: "idle.mp4 at <path> has no
  //    video track";
  //  - a video stream whose decoder does not start: "idle.mp4 at <path>: AVAssetReader could not
  //    start";
  //  - no first picture: "idle.mp4 at <path> decoded no frame";
  //  - a first picture of another size (pictures are never scaled): "idle.mp4 is <w>x<h>, the
  //    engine's frames are <width>x<height>".
  // The length estimate is max(trunc(duration in seconds x nominal frame rate), 1), from the
  // video stream's duration (else the container's) and its average frame rate (else its base
  // rate, else 0). A clip whose product is not a finite number (neither the stream nor the
  // container knows a duration) violates a precondition of the engine: the process logs one
  // "[lumora2-idle] FATAL" line and aborts, in every build type.
  static std::pair<std::unique_ptr<IdleClipStream>, std::optional<std::string>> open(
      const std::optional<Path>& url, int width, int height,
      const std::optional<Path>& avatarDir = std::nullopt);

  ~IdleClipStream();  // releases the live and the standby reader
  IdleClipStream(const IdleClipStream&) = delete;
  IdleClipStream& operator=(const IdleClipStream&) = delete;

  // The next frame as 32-bit B, G, R, A pixels at width x height: frame 0 (decoded at opening),
  // 1, 2, ..., the last, then 0, 1, ... again. Nothing when the clip could not be reopened at its
  // end (logged; every later call tries again) or a picture could not be used; the caller keeps
  // showing its last frame. Safe to call from any thread.
  std::optional<PixelBuffer> next() LUMORA2_EXCLUDES(lock_);

  int width() const { return width_; }
  int height() const { return height_; }
  // The clip's first frame, width x height x 3 bytes, B, G, R, rows top to bottom, no padding.
  const std::vector<std::uint8_t>& firstFrameBGR() const { return firstFrameBGR_; }

  // Diagnostics, readable from any thread without the lock (each value on its own is current;
  // the three together need not be from one moment).
  // The clip's length in frames: estimated at opening, corrected to the delivered count when the
  // live reader first runs dry.
  std::int64_t frameCount() const { return frameCount_.load(std::memory_order_relaxed); }
  // Index of the last frame handed out; -1 before any.
  std::int64_t lastIndex() const { return lastIndex_.load(std::memory_order_relaxed); }
  // How many times the clip reached its end.
  std::int64_t wraps() const { return wraps_.load(std::memory_order_relaxed); }

 private:
  struct Reader;  // one demuxer + decoder over the clip's first video stream

  IdleClipStream(Path path, int width, int height, std::int64_t frameCount,
                 std::vector<std::uint8_t> firstFrameBGR, std::unique_ptr<Reader> live,
                 PixelBuffer first);
  // Opens and starts a fresh reader over the clip; null when it does not start.
  std::unique_ptr<Reader> openReader() const;

  // Constant after construction.
  const Path path_;
  const int width_;
  const int height_;
  const std::vector<std::uint8_t> firstFrameBGR_;

  // lock_ serialises next() and guards every mutable field below. The three counters are
  // written only while it is held, and read without it through the accessors above.
  mutable Mutex lock_;
  std::atomic<std::int64_t> frameCount_;
  std::atomic<std::int64_t> lastIndex_{-1};
  std::atomic<std::int64_t> wraps_{0};
  std::unique_ptr<Reader> live_ LUMORA2_GUARDED_BY(lock_);     // the reader frames come from
  std::unique_ptr<Reader> standby_ LUMORA2_GUARDED_BY(lock_);  // opened before the end
  std::optional<PixelBuffer> pendingFirst_ LUMORA2_GUARDED_BY(lock_);  // until the first next()
  std::int64_t nextIndex_ LUMORA2_GUARDED_BY(lock_) = 0;  // index the next frame will have
};

}  // namespace lumora2
