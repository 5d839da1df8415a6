// IdleSource: the avatar's idle clip ("idle.mp4"), read out of the avatar file itself (either
// container form), decoded once through the engine's own idle-clip reader and held in memory as
// the pictures the encoder gets. A cursor plays it in a loop; because every frame is at hand, the
// client can also continue the clip from the frame that looks most like a given picture, and
// plan a stretch of idle that ends on such a frame (see planIdle).
//
// A clip of the reference family (120 frames of 416 x 720) takes 54 MiB.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <vector>

#include "picture.h"

namespace lumora2::render {

class IdleSource {
 public:
  using Likeness = std::vector<std::uint8_t>;
  // The decoded clip and what is known of it: never changed once read, so that every session of
  // one avatar can share one (a clip of the reference family is 54 MiB and a second of work).
  struct Clip {
    std::vector<Picture> frames;
    std::vector<Likeness> likenesses;
    std::vector<std::size_t> moving;  // thumbnail cells that change within the clip
    std::vector<double> distances;    // frames x frames
    double largestNaturalStep = 0;
    // Per kTile x kTile tile (row by row), the largest step (mean absolute luma difference)
    // between neighbouring clip frames: where the clip itself animates the picture (the eyes,
    // the lids) and where it holds still (a closed mouth).
    std::vector<double> tileMotion;
  };
  static constexpr int kTile = 16;
  // Reads the avatar's clip. Throws ClientError when the avatar holds no usable idle clip, or
  // (with width and height given) one of another size. Width and height 0 take the clip's own
  // size.
  static std::shared_ptr<const Clip> read(const std::filesystem::path& avatar, int width = 0,
                                          int height = 0);
  // A clip of decoded frames (one size), with what is known of it worked out.
  static std::shared_ptr<const Clip> fromFrames(std::vector<Picture> frames);
  explicit IdleSource(const std::filesystem::path& avatar, int width = 0, int height = 0);
  // A cursor of its own over a clip read before.
  explicit IdleSource(std::shared_ptr<const Clip> clip);
  // A cursor whose clip comes later: nothing but use() and ready() may be called before it does
  // (a live session starts while its avatar's clip is still being read).
  IdleSource() = default;
  void use(std::shared_ptr<const Clip> clip);
  bool ready() const { return clip_ != nullptr; }
  ~IdleSource();
  IdleSource(const IdleSource&) = delete;
  IdleSource& operator=(const IdleSource&) = delete;

  int width() const { return clip_->frames.front().width; }
  int height() const { return clip_->frames.front().height; }
  std::size_t frameCount() const { return clip_->frames.size(); }
  const Picture& frame(std::size_t index) const {
    return clip_->frames[index % clip_->frames.size()];
  }

  // The frame at the cursor; the cursor moves on by one (from the last frame to frame 0).
  const Picture& next();
  std::size_t cursor() const { return cursor_; }
  void seek(std::size_t index) { cursor_ = index % clip_->frames.size(); }

  // A picture's likeness key: its luma thumbnail over the parts of the picture that move in the
  // clip (eyes, lids, head), where two pictures that look alike elsewhere can still differ.
  Likeness likeness(const Picture& picture) const;
  // How different a picture and a clip frame, or two clip frames, look (mean absolute luma
  // difference over the moving parts of the thumbnails).
  double distance(const Likeness& picture, std::size_t index) const;
  double distance(std::size_t a, std::size_t b) const {
    const std::size_t n = clip_->frames.size();
    return clip_->distances[(a % n) * n + b % n];
  }
  // The clip frame most like a picture.
  std::size_t nearest(const Likeness& picture) const;
  const std::vector<double>& tileMotion() const { return clip_->tileMotion; }
  // The largest distance between neighbouring clip frames (the authored seam included): a jump
  // no larger than this looks like the clip's own motion.
  double largestNaturalStep() const { return clip_->largestNaturalStep; }

  // The clip frames to show for `count` idle frames from clip frame `start` (the frame shown
  // just before is clip frame `previous`, or none when negative), so that the last one is
  // `target` where the clip allows it: the clip plays on and at most once jumps to the stretch
  // that ends on `target`, at the moment where that jump looks most like the clip's own motion,
  // only when it looks no larger than that and `acceptable(from, to)` agrees to showing clip
  // frame `to` right after clip frame `from`.
  struct Plan {
    std::vector<std::size_t> frames;
    double jump = 0;     // the distance the jump crosses; 0 without one
    bool lands = false;  // the last frame is `target`
  };
  using JumpCheck = std::function<bool(std::size_t from, std::size_t to)>;
  Plan planIdle(std::size_t start, std::size_t count, std::size_t target, std::ptrdiff_t previous,
                const JumpCheck& acceptable) const;

 private:
  std::shared_ptr<const Clip> clip_;
  std::size_t cursor_ = 0;
};

}  // namespace lumora2::render
