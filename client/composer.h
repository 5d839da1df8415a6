// Composer: lays pictures on the video's timeline in order, idle clip where nothing is rendered,
// and hides the seams where idle and rendered pictures meet.
//
// - Leaving an utterance, the idle clip continues from the clip frame that looks most like the
//   last rendered picture, and the last rendered picture dissolves into it: the dissolve blends
//   two similar pictures (no double irises from two different gazes).
// - Entering one, the idle stretch before it is planned once its first rendered picture is known
//   (idle frames are decided but not handed out until then): the clip plays on and, where one of
//   its frames allows a jump that looks like its own motion, switches to the stretch that ends on
//   the clip frame most like that first rendered picture; the rendered pictures then fade in over
//   that frame, each part of the picture at its own pace (the mouth at once, the eyes slowly).
// - A dissolve is as long as it must be for each of its steps to stay within the largest step
//   between neighbouring rendered pictures seen so far (the reference), in the whole picture
//   and in every 16 x 16 tile of it (the eyes move less than the mouth while speaking: a change
//   there must be spread wider), and never jumps.
// - Cut short (an interrupt), the last picture shown fades into the clip frame most like it each
//   part at its own pace, as an entry does: the mouth closes within a few frames while the eyes
//   take their time. That dissolve is decided one frame at a time as the idle frames are
//   released, so an utterance that follows lands over it at once, dissolving from what was shown.
//
// Steps are measured with pictureStep on the pictures the encoder gets.
#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <optional>
#include <vector>

#include "idle_source.h"
#include "picture.h"

namespace lumora2::render {

class Composer {
 public:
  static constexpr std::size_t kMaxBlend = 20;  // one second
  // The longest dissolve out of a cut utterance: an interrupted avatar is at rest within a
  // third of a second. Where the idle clip holds the picture still (a closed mouth), every
  // part of the picture arrives within kCutBlendStill frames: the mouth closes as fast as it
  // does while speaking; where the clip moves it (eyes, lids) the dissolve takes kCutBlend, so
  // that two gazes never show at once.
  static constexpr std::size_t kCutBlend = 6;
  static constexpr std::size_t kCutBlendStill = 4;
  // A tile whose largest step between neighbouring clip frames reaches this is one the clip
  // animates (a blink's tiles step by tens of levels; a still one by compression noise, about 1).
  static constexpr double kIdleMovingStep = 4.0;
  // The reference never falls below this: a jump this small is not seen.
  static constexpr double kQuietStep = 0.05;
  // A tile's reference (mean absolute luma difference) never falls below this.
  static constexpr int kTile = IdleSource::kTile;
  static constexpr double kQuietTileStep = 0.5;
  // The share of the references an entry dissolve's step may take.
  static constexpr double kEntryShare = 0.75;

  // What an output frame shows: the idle clip, a rendered picture, or a seam (a dissolve between
  // the two, or an idle frame that does not follow its predecessor in the clip).
  enum class Kind { idle, rendered, seam };
  using Sink = std::function<void(const Picture&, Kind)>;
  Composer(Sink sink, IdleSource& idle) : sink_(std::move(sink)), idle_(idle) {}

  // Output frames decided so far (handed out, or idle frames and rendered frames held back).
  std::size_t position() const { return written_ + pendingIdle_ + entry_.size(); }
  std::size_t written() const { return written_; }

  // Idle frames up to output frame `end`.
  void idleUntil(std::size_t end);
  void beginUtterance();
  // The next rendered picture of the current utterance.
  void rendered(const Picture& picture);
  void endUtterance();
  // Ends the current utterance where it stands (an interrupt): see above.
  void cutUtterance();
  // Hands out everything still held; call once at the end.
  void finish();
  // For a live timeline, which must show a frame every 50 ms: hands out the idle frames decided
  // so far but `keep`, which stay undecided so that an utterance arriving meanwhile can still
  // plan its landing over them. Leaving an utterance, its whole exit dissolve goes out at once
  // (more idle frames are decided when it needs them).
  void releaseIdle(std::size_t keep);
  // How many rendered pictures an entering utterance holds back before its entry dissolve is
  // decided (kMaxBlend + 1 by default); a live timeline, which cannot wait, holds one.
  void setEntryHold(std::size_t pictures) { entryHold_ = std::max<std::size_t>(pictures, 1); }

  std::size_t renderedFrames() const { return renderedCount_; }
  // The largest step between neighbouring output frames at a seam (dissolves and idle jumps), and
  // between neighbouring rendered frames.
  double largestSeamStep() const { return largestSeam_; }
  double largestRenderedStep() const { return largestRendered_; }
  // The largest difference between an idle and a rendered picture across a seam before it was
  // dissolved: how far apart the two pictures were that the dissolve had to join.
  double largestSeamGap() const { return largestGap_; }

 private:
  double reference() const { return std::max(largestRendered_, kQuietStep); }
  // Each tile's step averaged with its neighbours' (3 x 3 tiles): what a region around it moved.
  // The tiles' references are these, so that a region (the eyes) that a few busy tiles border
  // is held to what the region as a whole does.
  static std::vector<double> regional(const std::vector<double>& steps, const Picture& picture);
  // How far a step from a to b goes beyond the references: 1 where it reaches one of them.
  double ratioToReference(const Picture& a, const Picture& b) const;
  // A jump within the idle clip that is no larger than the references allow.
  IdleSource::JumpCheck unseenJump() const;
  // The frames a dissolve from `from` to `to` needs, each step at most half the references.
  std::size_t blendLength(const Picture& from, const Picture& to) const;
  // Hands out the idle frames decided so far, leaving a finished utterance through its exit
  // dissolve and, given the first picture of the next utterance, ending on the clip frame most
  // like it where the clip allows.
  void settleIdle(const Picture* upcoming);
  // Starts the entry dissolve over the rendered pictures held for it.
  void settleEntry();
  // One step of a dissolve from `from` to `to`, each tile's weight (`alpha`, grown in place)
  // growing at its own pace and the whole picture's step within bounds; the frame is left in
  // scratch_. True when every tile has arrived at `to`. No weight stays below its `floors`
  // (none when empty).
  bool stepTiles(const Picture& from, const Picture& to, std::vector<double>& alpha,
                 const std::vector<double>& floors = {});
  // Hands out the next frame of a cut utterance's exit dissolve (the clip frame itself once it
  // has arrived).
  void stepCut();
  // Hands out the next rendered picture, through the entry dissolve while it lasts.
  void dissolveInto(const Picture& rendered);
  void put(const Picture& picture, Kind kind);

  Sink sink_;
  IdleSource& idle_;
  Picture scratch_;
  Picture last_;                       // the last frame handed out
  std::ptrdiff_t lastIdleIndex_ = -1;  // the clip frame handed out last, when it was one
  std::size_t written_ = 0;
  std::size_t pendingIdle_ = 0;  // idle frames decided but not yet handed out
  std::size_t renderedCount_ = 0;
  bool entering_ = false;
  std::vector<Picture> entry_;  // rendered pictures held until the entry dissolve is decided
  std::size_t entryHold_ = kMaxBlend + 1;
  bool dissolving_ = false;  // the entry dissolve has not arrived at the rendered pictures
  std::optional<Picture> dissolveFrom_;  // the idle picture it dissolves from
  std::vector<double> tileAlpha_;  // per tile, the rendered picture's weight in the last frame
  std::optional<Picture> previousRendered_;  // the utterance's latest rendered picture
  std::optional<Picture> exit_;              // the last rendered picture, to fade out
  struct CutExit {
    Picture from;               // what was shown when the utterance was cut
    std::size_t held = 0;       // the clip frame it fades into
    std::vector<double> alpha;  // per tile, the clip frame's weight so far
    // Per tile, the frames within which it arrives (kCutBlend + 1 or kCutBlendStill + 1).
    std::vector<std::size_t> length;
    std::size_t steps = 0;  // frames of it handed out
  };
  std::optional<CutExit> cut_;  // a cut utterance's exit dissolve, while it lasts
  double largestSeam_ = 0;
  double largestRendered_ = 0;
  double largestGap_ = 0;
  std::vector<double> tileReference_;  // per tile, the largest regional step between rendered
                                       // pictures
};

}  // namespace lumora2::render
