// LiveTimeline: one live session's picture-and-sound timeline, without threads or clocks of its
// own. The session's clock is the sample clock of the sound it plays: every output frame is one
// picture and exactly the 800 samples (50 ms at 16 kHz) that play with it, in order, for as long
// as the session lives. Silence shows the avatar's idle clip; speech shows the frames its
// render-stream child rendered, each with the very samples it was rendered from; the Composer
// blends the seams as lumora2-render does.
//
// Speech arrives as items: a posted file (whole, split into utterances by its silences, each one a
// segment for the child) or a stream (one segment that grows until it is ended). An item plays
// from start to end without a break once it has started; it starts only when enough of its first
// segment is rendered to finish in time at the rendering speed measured so far. A stream still
// arriving starts only when the frames it lacks will come in time even if the rest of its sound
// arrives no faster than it plays: the child renders in chunks (wire::samplesBeforeFrame), and the
// first frame of the second chunk, which plays 1.1 s in, needs the first 3.2 s of sound, so a
// stream sent in real time starts about 2.3 s after its first sample. When a rendered
// frame is due and not there, next() says so and nothing is output: the caller pauses sound and
// pictures together (a stall) and asks again.
//
// Not thread-safe: the session calls it under its own lock.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "client/composer.h"
#include "client/idle_source.h"
#include "client/picture.h"

namespace lumora2::serve {

using render::Composer;
using render::IdleSource;
using render::Picture;
using TimePoint = std::chrono::steady_clock::time_point;

inline constexpr std::size_t kFrameSamples = 800;

// One output frame: its picture and the sound that plays with it.
struct LiveFrame {
  Picture picture;
  std::vector<float> samples;  // kFrameSamples
  bool speech = false;         // the frame belongs to an item (its sound may still be silence)
  // On an item's first rendered frame: when the item arrived (its first sample, for a stream).
  std::optional<TimePoint> itemArrived;
  std::uint64_t item = 0;     // the item it belongs to; 0: none
  std::size_t itemFrame = 0;  // its index within the item (it plays the item's samples from
                              // itemFrame * kFrameSamples on)
  bool itemLast = false;      // the item's last frame
  bool cut = false;           // its item was interrupted: its sound fades out or is silent
};

class LiveTimeline {
 public:
  // Undecided idle frames kept ahead of the output, over which an item's start may land on the
  // clip frame most like its first picture: one frame, 50 ms of added latency (the entry dissolve
  // joins the rest).
  static constexpr std::size_t kLookahead = 1;
  // Rendered frames an item's first segment needs before it may start (unless it is shorter).
  static constexpr std::size_t kStartFrames = 8;

  explicit LiveTimeline(IdleSource& idle);
  // Rendered frames held at most before the child is made to wait (the session's back-pressure):
  // an item that has that many at hand starts, whatever the speed measured, since holding more
  // is not possible and waiting gains nothing.
  void setAheadCap(std::size_t frames) { aheadCap_ = frames; }

  // ---- Items ----
  // A whole recording; `segments` are [first, end) frame ranges of it to render (the rest plays
  // the idle clip with the recording's own sound). Returns the item's id.
  std::uint64_t addRecording(std::vector<float> samples,
                             std::vector<std::pair<std::size_t, std::size_t>> segments,
                             TimePoint arrived = {});
  // A streamed item: one segment that grows with appendStream until endStream.
  // A text stream (`sentences`) is one made sentence by sentence, each ended with endSentence:
  // each sentence is a segment of its own, rendered whole as soon as it is made, so the item
  // starts once its first sentence is rendered; when the next sentence is not there in time (the
  // writer is still writing it), the item pauses with silence over the idle clip instead of
  // stalling, and the sentence plays once its first frames are rendered.
  std::uint64_t beginStream(TimePoint arrived = {}, bool sentences = false);
  void appendStream(std::uint64_t item, const float* samples, std::size_t count);
  // A text stream's sentence is whole: its last partial frame is padded with silence.
  void endSentence(std::uint64_t item);
  // Ends the stream: its last partial frame is padded with silence. Returns its length in
  // samples.
  std::size_t endStream(std::uint64_t item);
  // Of an item's first `samples` on the timeline, those that were appended (a text stream's
  // pauses and padding left out): where in what was made a position on the timeline falls.
  std::size_t madeSamples(std::uint64_t item, std::size_t samples);
  // Whether that segment is still to be rendered (its item was not dropped or cut).
  bool wants(std::uint64_t item, std::size_t segment) const;
  // Removes an item that has not started playing; false when it has (or there is none).
  bool dropUnstarted(std::uint64_t item);
  // Cuts what plays and drops what is queued. The item playing stops at the next output frame:
  // that frame's sound fades out and every later one of it is silent, while its pictures end
  // through the seam blend as at an utterance's end (the pictures already decided still show).
  struct Cut {
    std::uint64_t playing = 0;           // the item cut while playing; 0: none played
    std::size_t framesHeard = 0;         // of it, the frames handed out and the one that fades
    std::vector<std::uint64_t> dropped;  // items that had not started
  };
  Cut interrupt();
  // Items not yet finished playing (the one playing included).
  std::size_t queuedItems() const { return items_.size(); }
  bool speaking() const { return current_ != nullptr; }

  // ---- The rendering side ----
  // What the child should render next: the earliest segment not yet finished, with the samples
  // not yet sent from `sent` on (copied), and whether the segment's sound is complete. Empty when
  // there is nothing to render.
  struct RenderWork {
    std::uint64_t item = 0;
    std::size_t segment = 0;
    std::vector<float> samples;  // from `sent` on
    bool complete = false;       // every sample of the segment is in `samples` or was sent
    std::size_t frames = 0;      // the segment's length in frames, once complete
  };
  std::optional<RenderWork> renderWork(std::size_t sent) const;
  // A rendered frame of a segment at its position within the segment. Frames past the segment,
  // or at positions already held or played, are dropped.
  void addFrame(std::uint64_t item, std::size_t segment, std::size_t position, Picture picture,
                TimePoint now);
  // The child has been sent all of a segment's audio and its flush (rendering-speed measurement
  // starts here).
  void audioSent(std::uint64_t item, std::size_t segment, TimePoint now);
  // The segment is finished: the child's end-of-segment marker arrived, or it failed (its missing
  // frames then play the idle clip).
  void segmentDone(std::uint64_t item, std::size_t segment, TimePoint now);
  // Rendered frames held and not yet played (for back-pressure on the child).
  std::size_t framesAhead() const { return framesAhead_; }
  // Rendered frames a second, measured over finished segments that the child rendered at its own
  // pace (not waiting for their sound, nor held back): 0 before the first.
  double renderRate() const { return rate_; }
  // Seconds from a segment's sound to its first frame, the longest seen.
  double renderLatency() const { return latency_; }
  // Seconds from the latest item's arrival (its first sample, for a stream) to its first rendered
  // frame coming from the child; negative before any.
  double arrivalToFirstRendered() const { return firstRendered_; }

  // ---- The output side ----
  // The next output frame into `out`; false when a rendered frame is due and not yet there.
  bool next(LiveFrame& out, TimePoint now);
  std::uint64_t framesOut() const { return framesOut_; }
  // Of those, the ones showing a rendered picture (the rest show the idle clip).
  std::uint64_t renderedOut() const { return renderedOut_; }
  std::uint64_t itemsSpoken() const { return itemsSpoken_; }
  // What the last `next` that returned false waited for: the item (counted from 1 in the order
  // spoken), its frame, and the frames the child had delivered of that segment by then.
  struct Wait {
    std::uint64_t utterance = 0;
    std::size_t frame = 0;
    std::size_t received = 0;
  };
  Wait lastWait() const { return lastWait_; }

 private:
  struct Segment {
    std::size_t first = 0;
    std::size_t end = 0;                    // frames within the item; grows while streamed
    std::map<std::size_t, Picture> frames;  // by position within the segment
    std::size_t played = 0;                 // positions placed on the output
    std::size_t received = 0;
    bool done = false;
    std::optional<TimePoint> audioSentAt;
    std::size_t receivedAtAudioSent = 0;  // frames that came before all its sound was sent
    std::optional<TimePoint> firstFrameAt;
    bool throttled = false;  // it reached the cap on frames held: its speed is not the child's
    bool closed = false;     // a text stream's sentence that is whole
    std::size_t made = 0;    // a text stream's: the samples appended to it
  };
  struct Item {
    std::uint64_t id = 0;
    std::vector<float> samples;
    std::vector<Segment> segments;
    bool streamed = false;
    bool sentences = false;  // a text stream, a segment per sentence
    bool complete = false;   // every sample is here
    bool started = false;
    bool cut = false;               // interrupted: nothing more of it is rendered
    std::size_t startPosition = 0;  // the composer position of its frame 0
    std::size_t handedOut = 0;      // its frames handed out
    TimePoint arrived;
    std::size_t frames() const { return (samples.size() + kFrameSamples - 1) / kFrameSamples; }
    // Whether composer position p is one of its frames (a stream's end is open until complete).
    bool holds(std::size_t p) const {
      return started && p >= startPosition && (!complete || p < startPosition + frames());
    }
  };

  Item* find(std::uint64_t id);
  const Item* find(std::uint64_t id) const;
  // An item queued, playing, or finished and still being handed out.
  Item* findAny(std::uint64_t id);
  bool mayStart(const Item& item, TimePoint now) const;
  // Whether a stream still arriving may start now without a stall: every frame it lacks will be
  // rendered by the time it is due, its sound arriving no faster than it plays.
  bool streamInTime(const Item& item) const;
  // Whether segment k of a text stream has enough frames at hand to begin playing; when not, it
  // and the segments after it move one frame later (a frame of silence before it).
  bool sentenceReady(Item& item, std::size_t k);
  // Decides output frames into the composer until one comes out, or a rendered frame is missing.
  bool decide(TimePoint now);
  // The item playing has played its last frame: it moves to the finished ones.
  void finishCurrent();
  void onComposed(const Picture& picture);

  Composer composer_;
  std::deque<LiveFrame> out_;  // composed and not yet handed out
  std::deque<std::unique_ptr<Item>> items_;
  Item* current_ = nullptr;  // the item playing (items_.front() when set)
  bool inUtterance_ = false;
  std::size_t utteranceSegment_ = 0;
  std::uint64_t nextId_ = 1;
  std::size_t framesAhead_ = 0;
  std::size_t aheadCap_ = SIZE_MAX;
  double rate_ = 0;     // frames a second after a segment's first frame
  double latency_ = 0;  // seconds from a segment's sound to its first frame
  double firstRendered_ = -1;
  std::uint64_t framesOut_ = 0;
  std::uint64_t renderedOut_ = 0;
  std::uint64_t itemsSpoken_ = 0;
  Wait lastWait_;
  // After an interrupt: frames of items up to muteUpTo_ handed out from frame muteFrom_ on are
  // silent, the first of them faded out.
  std::uint64_t muteUpTo_ = 0;
  std::uint64_t muteFrom_ = 0;
  bool fadePending_ = false;
  // Items decided to their end whose last frames the composer may still hold back: the sound of
  // a frame handed out at composer position p is that of the item whose frames hold p.
  std::deque<std::unique_ptr<Item>> finished_;
};

}  // namespace lumora2::serve
