// The render thread of a LiveSession: one render-stream child, fed the segment the timeline asks
// for, one at a time, its frames handed back to the timeline as they come. A child that asks to
// be respawned (exit status 3) is replaced and its segment sent again, once; one that ends
// otherwise ends the session. The child's death is noticed even while the timeline holds as many
// frames as it may and nothing is read from the child.
#include "client/picture.h"
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
        if (child_->exitsWithin(std::chrono::milliseconds(0)) && !childEnded()) return;
        MutexLock hold(s_.lock_);
        s_.changed_.wait_for(s_.lock_, kReadSlice);
        continue;
      }
      const render::StreamChild::Event event = child_->next(Clock::now() + kReadSlice);
      if (!handle(event)) return;
    }
  }

 private:
  static constexpr auto kReadSlice = std::chrono::milliseconds(5);

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
      child_ = render::StreamChild::start(command);
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
    if (!work->samples.empty()) {
      child_->sendAudio(work->samples.data(), work->samples.size());
      if (current_.sent == 0) {
        MutexLock hold(s_.lock_);
        if (s_.sayTimes_ && s_.sayTimes_->item == current_.item && !s_.sayTimes_->toChild) {
          s_.sayTimes_->toChild = Clock::now();
        }
      }
      current_.sent += work->samples.size();
    }
    if (work->complete) {
      child_->sendFlush();
      current_.flushed = true;
      MutexLock hold(s_.lock_);
      s_.timeline_.audioSent(current_.item, current_.segment, Clock::now());
    }
    return holdBack;
  }

  // What the child said; false when the session's rendering is over.
  bool handle(const render::StreamChild::Event& event) {
    using Kind = render::StreamChild::Event::Kind;
    switch (event.kind) {
      case Kind::late:
        if (!busy_) {
          MutexLock hold(s_.lock_);
          if (!s_.ended_ && !s_.timeline_.renderWork(0)) s_.changed_.wait_for(s_.lock_, kReadSlice);
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
        if (busy_ && current_.received == 0 && child_->exitsWithin(std::chrono::seconds(3))) {
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

  void frame(const render::StreamChild::Event& event) {
    Picture picture(child_->geometry().width, child_->geometry().height);
    converter_->convert(event.rgb, picture);
    ++current_.received;
    {
      MutexLock hold(s_.lock_);
      ++s_.framesRendered_;
      if (current_.received == 1 && s_.sayTimes_ && s_.sayTimes_->item == current_.item &&
          !s_.sayTimes_->fromChild) {
        s_.sayTimes_->fromChild = Clock::now();
      }
      s_.timeline_.addFrame(current_.item, current_.segment, event.position, std::move(picture),
                            Clock::now());
    }
    s_.changed_.notify_all();
  }

  // The child is gone: a respawn it asked for, or the end of the session's rendering (false).
  bool childEnded() {
    const int status = child_->exitStatus();
    child_.reset();
    if (status != 3) {
      s_.end("the render process ended with exit status " + std::to_string(status),
             "render_failed");
      MutexLock hold(s_.lock_);
      s_.childState_ = "failed";
      ++s_.childDeaths_;
      s_.childPid_ = -1;
      return false;
    }
    s_.events_.publish("child_respawned", {{"exit_status", status}});
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
  std::unique_ptr<render::StreamChild> child_;
  std::optional<render::PictureConverter> converter_;
  Current current_;
  bool busy_ = false;            // the child has a segment (current_)
  std::size_t skipMarkers_ = 0;  // markers (and the frames before them) of abandoned segments
};

void LiveSession::renderLoop() { SessionRenderer(*this).run(); }

}  // namespace lumora2::serve
