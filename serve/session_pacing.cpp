// The pacing thread of a LiveSession: one frame and its 50 ms of sound every 50 ms to the viewer
// while one is connected, on the session's sample clock. While nobody watches, the clock holds:
// what is queued waits for the next viewer, and a session whose viewer left and did not come back
// within the grace period ends.
#include <cmath>

#include "live_session.h"
#include "media/webrtc_sender.h"

namespace lumora2::serve {

using Clock = std::chrono::steady_clock;
namespace {
constexpr auto kFramePeriod = std::chrono::milliseconds(50);
}  // namespace

bool LiveSession::awaitIdleClip() {
  while (!ended_ && clip_.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready) {
  }
  if (ended_) return false;
  try {
    std::shared_ptr<const IdleSource::Clip> clip = clip_.get();
    MutexLock hold(lock_);
    idle_->use(std::move(clip));
    return true;
  } catch (const std::exception& e) {
    end(std::string("the avatar's idle clip cannot be shown: ") + e.what(), "render_failed");
    return false;
  }
}

void LiveSession::paceLoop() {
  if (!awaitIdleClip()) return;
  for (;;) {
    std::shared_ptr<WebRtcSender> sender, gone;
    bool graceOver = false;
    {
      MutexLock hold(lock_);
      while (!ended_ && viewer_ != Viewer::connected) {
        if (viewer_ == Viewer::left) {
          gone = std::move(sender_);
          graceOver = Clock::now() - viewerSince_ > options_.viewerGrace;
          if (graceOver || gone) break;
        }
        changed_.wait_for(lock_, std::chrono::milliseconds(100));
      }
      if (!ended_ && viewer_ == Viewer::connected) sender = sender_;
    }
    retire(std::move(gone));  // a departed viewer's pipeline, stopped outside the lock
    if (graceOver) {
      end("the viewer left and did not come back within " +
              std::to_string(options_.viewerGrace.count()) + " s",
          "viewer_left");
    }
    if (ended_) return;
    if (sender) paceViewer(sender);
  }
}

// Frames to one viewer from the moment it is connected until it goes or the session ends. Its
// stream's time starts at 0; the timeline goes on from where the last viewer left it.
void LiveSession::paceViewer(const std::shared_ptr<WebRtcSender>& sender) {
  const auto start = Clock::now();
  Clock::duration paused{};  // stalls so far: the clock stands still while stalled
  std::uint64_t sent = 0;
  bool stalled = false;
  LiveFrame frame;
  std::uint64_t clock = 0;  // the frame's index on the session's sample clock
  if (options_.trace) {
    // How this viewer's RTP times follow from the frames' time stamps (see traceFrame).
    const RtpClock rtp = sender->rtpClock();
    options_.trace->write("#rtp " + id_ + " " + std::to_string(double(rtp.base.count()) / 1e6) +
                          " " + std::to_string(rtp.videoOffset) + " " +
                          std::to_string(rtp.audioOffset) + "\n");
  }
  for (;;) {
    const auto due = start + paused + sent * kFramePeriod;
    {
      MutexLock hold(lock_);
      while (!ended_ && viewer_ == Viewer::connected && Clock::now() < due) {
        changed_.wait_until(lock_, due);
      }
      if (ended_ || viewer_ != Viewer::connected || sender_ != sender) return;
      if (!timeline_.next(frame, Clock::now())) {
        if (!stalled) {
          ++stalls_;
          const double at = std::chrono::duration<double>(due - start).count();
          lastStall_.emplace(timeline_.lastWait(), at);
          const LiveTimeline::Wait& wait = lastStall_->first;
          events_.publish("stall", {{"utterance", wait.utterance},
                                    {"frame", wait.frame},
                                    {"frames_received", wait.received},
                                    {"after_connect_s", at}});
        }
        stalled = true;
        pacerStarved_ = true;
        changed_.wait_for(lock_, std::chrono::milliseconds(5));
        pacerStarved_ = false;
        const auto late = Clock::now() - due;
        if (late > Clock::duration::zero()) {
          paused += late;
          stalledSeconds_ += std::chrono::duration<double>(late).count();
        }
        continue;
      }
      stalled = false;
      clock = timeline_.framesOut() - 1;
      if (frame.itemArrived) {
        speechLatency_ = std::chrono::duration<double>(Clock::now() - *frame.itemArrived).count();
        if (sayTimes_ && sayTimes_->item == frame.item) sayTimes_->firstFrameSent = speechLatency_;
      }
      if (!firstFrameAfter_) {
        firstFrameAfter_ = std::chrono::duration<double>(Clock::now() - start).count();
      }
    }
    const auto pts =
        std::chrono::duration_cast<std::chrono::nanoseconds>(paused + sent * kFramePeriod);
    if (options_.trace) traceFrame(sent, pts, frame);
    sender->push(pts, std::move(frame.picture.bytes), std::move(frame.samples));
    ++sent;
    publishPlayback(frame, clock, pts);
  }
}

// An utterance's first frame sent, or its last one when it was not cut: where on the session's
// sample clock (`sample`) and in the viewer's stream (`media_time`, seconds) its sound begins or
// ends.
void LiveSession::publishPlayback(const LiveFrame& frame, std::uint64_t clock,
                                  std::chrono::nanoseconds pts) {
  if (frame.item == 0 || frame.cut) return;
  const double seconds = std::chrono::duration<double>(pts).count();
  if (frame.itemFrame == 0) {
    events_.publish(
        "utterance_started",
        {{"utterance", frame.item}, {"sample", clock * kFrameSamples}, {"media_time", seconds}});
  }
  if (frame.itemLast) {
    {
      MutexLock hold(lock_);
      spoken_.erase(frame.item);
    }
    const double end = seconds + double(kFrameSamples) / 16000.0;
    events_.publish("utterance_finished",
                    {{"utterance", frame.item},
                     {"samples_played", (frame.itemFrame + 1) * kFrameSamples},
                     {"sample", (clock + 1) * kFrameSamples},
                     {"media_time", end}});
  }
}

// One line per frame sent: the session, the frame's index and time stamp (ms), its sound's RMS,
// and the mean luma of a 4 x 8 grid of the picture, row by row. A diagnostic: what left the
// server, to set beside what a viewer got.
void LiveSession::traceFrame(std::uint64_t index, std::chrono::nanoseconds pts,
                             const LiveFrame& frame) {
  double squares = 0;
  for (float v : frame.samples) squares += double(v) * double(v);
  std::string line = id_ + " " + std::to_string(index) + " " +
                     std::to_string(double(pts.count()) / 1e6) + " " +
                     std::to_string(std::sqrt(squares / double(frame.samples.size())));
  const Picture& p = frame.picture;
  for (int row = 0; row < 8; ++row) {
    for (int col = 0; col < 4; ++col) {
      double sum = 0;
      const int y0 = row * p.height / 8, y1 = (row + 1) * p.height / 8;
      const int x0 = col * p.width / 4, x1 = (col + 1) * p.width / 4;
      for (int y = y0; y < y1; ++y) {
        const std::uint8_t* at = p.bytes.data() + std::size_t(y) * std::size_t(p.width);
        for (int x = x0; x < x1; ++x) sum += at[x];
      }
      // Appended piece by piece: GCC 12 misreads `" " + std::to_string(...)` (its -Wrestrict
      // false positive, bug 105651).
      line += ' ';
      line += std::to_string(int(sum / double((y1 - y0) * (x1 - x0)) * 100) / 100.0);
    }
  }
  line += "\n";
  options_.trace->write(line);
}

}  // namespace lumora2::serve
