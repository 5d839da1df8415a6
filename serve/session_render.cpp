// The render thread of a LiveSession: one render channel (a render-stream child of its own, or a
// session of a shared render process), fed the segment the timeline asks for, one at a time, its
// frames handed back to the timeline as they come. A channel that ends asking to be replaced (a
// child's exit status 3, a shared process that died) is replaced and its segment sent again,
// once, while the idle clip plays; one that ends otherwise ends the session. The end is noticed
// even while the timeline holds as many frames as it may and nothing is read.
#include <algorithm>

#include "client/picture.h"
#include "client/render_channel.h"
#include "live_session.h"

namespace lumora2::serve {

using Clock = std::chrono::steady_clock;

class SessionRenderer {
 public:
  explicit SessionRenderer(LiveSession& session) : s_(session) {}

  void run() {
    if (!startChild()) return;
    while (!s_.ended_) {
      const bool holdBack = feed();
      if (holdBack) {
        // Nothing is read while the timeline holds enough; the child is only watched.
        if (child_->endsWithin(std::chrono::milliseconds(0)) && !childEnded()) return;
        MutexLock hold(s_.lock_);
        s_.changed_.wait_for(s_.lock_, kIdleSlice);
        continue;
      }
      const render::StreamChild::Event event = child_->next(Clock::now() + kReadSlice);
      if (!handle(event)) return;
    }
  }

 private:
  static constexpr auto kReadSlice = std::chrono::milliseconds(5);
  // How long the loop sleeps with nothing to do: nothing to render, or the timeline holding all
  // it may (100 frames ahead, 5 s). New speech, an interrupt or the session's end wake it at
  // once; this bounds only how late it sees its render process gone or room made in the
  // timeline. At 5 ms it woke 200 times a second in every session, a third of the server's
  // context switches with sixteen sessions speaking.
  static constexpr auto kIdleSlice = std::chrono::milliseconds(40);

  // The segment the child is rendering.
  struct Current {
    std::uint64_t item = 0;
    std::size_t segment = 0;
    std::size_t sent = 0;
    bool flushed = false;
    bool resent = false;
    std::size_t received = 0;
  };

  bool startChild() {
    {
      MutexLock hold(s_.lock_);
      s_.childState_ = "warming";
      s_.childPid_ = -1;
    }
    try {
      render::StreamChild::Command command = s_.options_.command;
      command.avatar = s_.avatar_.file;
      static render::OwnChildren ownChildren;
      render::RenderPool& pool = s_.options_.renderers ? *s_.options_.renderers : ownChildren;
      child_ = pool.open(command);
    } catch (const std::exception& e) {
      s_.end(std::string("the render process did not start: ") + e.what(), "render_failed");
      MutexLock hold(s_.lock_);
      s_.childState_ = "failed";
      ++s_.childDeaths_;
      return false;
    }
    if (!converter_) {
      converter_.emplace(child_->geometry().width, child_->geometry().height,
                         render::PictureConverter::Layout::rgb24);
    }
    MutexLock hold(s_.lock_);
    s_.childState_ = "ready";
    s_.childPid_ = child_->pid();
    s_.lastActivity_ = std::max(s_.lastActivity_, Clock::now());
    return true;
  }

  // Sends the child the sound it has not had yet; whether the timeline holds as many rendered
  // frames as it may (the child is then left to wait).
  bool feed() {
    std::optional<LiveTimeline::RenderWork> work;
    bool holdBack = false;
    bool abandon = false;
    {
      MutexLock hold(s_.lock_);
      abandon = busy_ && !s_.timeline_.wants(current_.item, current_.segment);
      if (!abandon && busy_ && !current_.flushed) work = s_.timeline_.renderWork(current_.sent);
      if (!busy_ && skipMarkers_ == 0) work = s_.timeline_.renderWork(0);
      holdBack = s_.timeline_.framesAhead() >= s_.options_.maxFramesAhead;
    }
    if (abandon) {
      // The segment was dropped or cut: a segment still arriving is reset (the child drops what it
      // has not rendered), and a flush then marks where its frames end in the child's output;
      // one already flushed ends with its own marker. Everything up to that marker is dropped.
      if (!current_.flushed) {
        child_->sendReset();
        child_->sendFlush();
      }
      busy_ = false;
      ++skipMarkers_;
      return false;
    }
    if (work && (!busy_ || current_.item != work->item || current_.segment != work->segment)) {
      current_ = Current{work->item, work->segment};
      busy_ = true;
    }
    if (!work || current_.flushed) return holdBack;
    // The child gets the sound its next frame needs and one chunk more, topped up as its frames
    // come: it never waits for sound, and the reset of an interrupt finds at most two chunks to
    // render ahead of it, however long the segment.
    const std::size_t allowed = wire::samplesBeforeFrame(current_.received) + wire::kChunkSamples;
    const std::size_t room = allowed > current_.sent ? allowed - current_.sent : 0;
    const std::size_t count = std::min(room, work->samples.size());
    if (count > 0) {
      child_->sendAudio(work->samples.data(), count);
      if (current_.sent == 0) {
        MutexLock hold(s_.lock_);
        if (s_.sayTimes_ && s_.sayTimes_->item == current_.item && !s_.sayTimes_->toChild) {
          s_.sayTimes_->toChild = Clock::now();
        }
      }
      current_.sent += count;
    }
    if (work->complete && count == work->samples.size()) {
      child_->sendFlush();
      current_.flushed = true;
      MutexLock hold(s_.lock_);
      s_.timeline_.audioSent(current_.item, current_.segment, Clock::now());
    }
    return holdBack;
  }

  // What the child said; false when the session's rendering is over.
  bool handle(const render::RenderChannel::Event& event) {
    using Kind = render::RenderChannel::Event::Kind;
    switch (event.kind) {
      case Kind::late:
        if (!busy_) {
          MutexLock hold(s_.lock_);
          if (!s_.ended_ && !s_.timeline_.renderWork(0)) s_.changed_.wait_for(s_.lock_, kIdleSlice);
        }
        return true;
      case Kind::frame:
        if (busy_ && skipMarkers_ == 0) frame(event);
        return true;
      case Kind::marker:
        if (skipMarkers_ > 0) {
          --skipMarkers_;
          return true;
        }
        // A segment the engine failed ends with a marker and no frames; the child leaves right
        // after it when it wants to be respawned.
        if (busy_ && current_.received == 0 && child_->endsWithin(std::chrono::seconds(3))) {
          return true;  // the next read says `ended`
        }
        if (busy_) {
          {
            MutexLock hold(s_.lock_);
            s_.timeline_.segmentDone(current_.item, current_.segment, Clock::now());
          }
          s_.changed_.notify_all();
        }
        busy_ = false;
        return true;
      case Kind::ended:
        return s_.ended_ || childEnded();
    }
    return true;
  }

  void frame(const render::RenderChannel::Event& event) {
    Picture picture;
    picture.width = child_->geometry().width;
    picture.height = child_->geometry().height;
    if (child_->i420()) {
      // The channel's buffer becomes the picture: no copy, and no pool of buffers on its side.
      picture.bytes = child_->takePixels();
      if (picture.bytes.size() != Picture::pictureBytes(picture.width, picture.height)) {
        picture.bytes.assign(event.rgb,
                             event.rgb + Picture::pictureBytes(picture.width, picture.height));
      }
    } else {
      picture = Picture(picture.width, picture.height);
      converter_->convert(event.rgb, picture);
    }
    ++current_.received;
    bool wake = false;
    {
      MutexLock hold(s_.lock_);
      wake = s_.pacerStarved_;
      ++s_.framesRendered_;
      if (current_.received == 1 && s_.sayTimes_ && s_.sayTimes_->item == current_.item &&
          !s_.sayTimes_->fromChild) {
        s_.sayTimes_->fromChild = Clock::now();
      }
      s_.timeline_.addFrame(current_.item, current_.segment, event.position, std::move(picture),
                            Clock::now());
    }
    if (wake) s_.changed_.notify_all();
  }

  // The channel ended: a replacement (a respawn the child asked for, a shared process that died),
  // or the end of the session's rendering (false).
  bool childEnded() {
    const render::RenderChannel::Ending ending = child_->ending();
    child_.reset();
    if (!ending.replace) {
      s_.end(ending.why, "render_failed");
      MutexLock hold(s_.lock_);
      s_.childState_ = "failed";
      ++s_.childDeaths_;
      s_.childPid_ = -1;
      return false;
    }
    s_.events_.publish("child_respawned", {{"reason", ending.why}});
    {
      MutexLock hold(s_.lock_);
      ++s_.respawns_;
      if (busy_ && current_.resent) {
        // Failed twice: the idle clip covers the rest of the segment.
        s_.timeline_.segmentDone(current_.item, current_.segment, Clock::now());
        busy_ = false;
      }
    }
    if (busy_) {
      current_.sent = 0;
      current_.flushed = false;
      current_.resent = true;
      current_.received = 0;
    }
    skipMarkers_ = 0;  // a new child owes no markers
    return startChild();
  }

  LiveSession& s_;
  std::unique_ptr<render::RenderChannel> child_;
  std::optional<render::PictureConverter> converter_;
  Current current_;
  bool busy_ = false;            // the child has a segment (current_)
  std::size_t skipMarkers_ = 0;  // markers (and the frames before them) of abandoned segments
};

void LiveSession::renderLoop() { SessionRenderer(*this).run(); }

}  // namespace lumora2::serve
