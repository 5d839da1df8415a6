#include "stream_session.h"

#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <thread>

#include "host/command.h"
#include "protocol/session_wire.h"
#include "protocol/stream_wire.h"

namespace lumora2 {
namespace {

using Clock = std::chrono::steady_clock;
constexpr int kBackPressureFrames = 32;
constexpr auto kPaceWait = std::chrono::duration<double>(5.0);
constexpr auto kFlushBudget = std::chrono::duration<double>(8.0);
constexpr int kRespawnAfterFailures = 2;

// The sessions this process serves now.
std::atomic<int> liveSessions{0};

// Hands the heap's free pages back: after every segment of a process that serves one session (it
// renders nothing until the next), at most once a minute in one that serves several.
void trimHeap() {
  static std::atomic<std::int64_t> last{0};
  const std::int64_t now =
      std::chrono::duration_cast<std::chrono::seconds>(Clock::now().time_since_epoch()).count();
  std::int64_t before = last.load();
  if (liveSessions.load() > 1 && before != 0 && now - before < 60) return;
  if (last.compare_exchange_strong(before, now)) ::malloc_trim(0);
}

}  // namespace

StreamSession::StreamSession(std::shared_ptr<Lumora2Engine> engine,
                             std::optional<std::uint32_t> session, bool i420, Sink sink,
                             std::function<void()> parentGone, std::string label)
    : engine_(std::move(engine)),
      session_(session),
      sink_(std::move(sink)),
      parentGone_(std::move(parentGone)),
      label_(std::move(label)),
      lead_(session ? 8 : 4),
      i420_(i420),
      record_(lead_ + (i420 ? Lumora2Engine::kI420Bytes : Lumora2Engine::kFrameBytes)),
      out_("lumora2.render-stream.out") {
  ++liveSessions;
}

StreamSession::~StreamSession() { --liveSessions; }

void StreamSession::log(const std::string& text) const {
  const std::string line = label_ + " " + text + "\n";
  [[maybe_unused]] ssize_t n = ::write(STDERR_FILENO, line.data(), line.size());
}

void StreamSession::write(const std::uint8_t* bytes, std::size_t size) {
  if (sink_(bytes, size)) return;
  parentGone_();
  std::_Exit(kExitOk);  // parentGone_ does not return; this is its backstop
}

// Every ready frame, lead + pixels in one write each. The engine writes the pixels straight into
// the record, R, G, B in the wire's order or the 4:2:0 planes; the record is the one buffer every
// frame uses.
void StreamSession::drain() {
  const std::span<std::uint8_t> pixels(record_.data() + lead_, record_.size() - lead_);
  for (;;) {
    const auto frame =
        i420_ ? engine_->pullI420Into(pixels) : engine_->pullInto(pixels, PixelOrder::rgb);
    if (!frame) return;
    const auto position = static_cast<std::uint32_t>(frame->pos);
    if (session_) {
      wire::sessions::putFrameLead(record_.data(), *session_, position);
    } else {
      wire::putLittleEndian(record_.data(), position);
    }
    write(record_.data(), record_.size());
  }
}

// At most one asynchronous drain waits on the output queue at any time.
void StreamSession::kick() {
  {
    std::lock_guard hold(kickLock_);
    if (kickScheduled_) return;
    kickScheduled_ = true;
  }
  out_.async([this] {
    {
      std::lock_guard hold(kickLock_);
      kickScheduled_ = false;
    }
    drain();
  });
}

void StreamSession::pace() {
  if (engine_->hasFullChunkPending()) {
    kick();
    if (!engine_->waitForScheduledRenders(kPaceWait)) {
      log("pace: render did not land within 5 s — continuing");
    }
  }
  while (engine_->queuedFrames() > kBackPressureFrames) {
    kick();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  kick();
}

void StreamSession::reset() {
  onOutput([this] { drain(); });
  engine_->resetState(true);
}

void StreamSession::audio(const std::vector<float>& samples) {
  engine_->feed(samples);
  pace();
}

bool StreamSession::flush() {
  engine_->flushTail();
  const auto deadline = Clock::now() + kFlushBudget;
  for (;;) {
    const auto left = std::chrono::duration<double>(deadline - Clock::now());
    const bool landed = left.count() > 0 && engine_->waitForScheduledRenders(left);
    onOutput([this] { drain(); });
    // Pulling below the back-pressure limit lets the rest of the tail render; the segment
    // is complete once nothing is pending and everything rendered has been written.
    if (engine_->failed() || (!engine_->hasPendingTail() && engine_->queuedFrames() == 0)) break;
    if (!landed || Clock::now() >= deadline) {
      log("flush: render did not land within 8 s — answering with what is queued");
      onOutput([this] { drain(); });
      break;
    }
  }
  if (engine_->failed()) {
    ++failures_;
    log("segment ended with engine FAILED (transient ANE error survived retry) — " +
        std::to_string(failures_) + " consecutive; recovers on next reset");
  } else {
    failures_ = 0;
  }
  onOutput([this] {
    if (session_) {
      const std::string marker = wire::sessions::markerRecord(*session_);
      write(reinterpret_cast<const std::uint8_t*>(marker.data()), marker.size());
    } else {
      std::uint8_t marker[4];
      wire::putLittleEndian(marker, wire::kMarker);
      write(marker, sizeof marker);
    }
  });
  // Frames and the graphs' buffers are made and freed on several threads; glibc keeps the
  // freed pieces in its heap, scattered, and a live session's child crept up by a fifth in ten
  // minutes. Between segments the free pages go back; in a process that serves many sessions, a
  // segment ends every second or so and pages handed back are faulted in again by the next
  // frame, so there at most once a minute.
  trimHeap();
  if (failures_ >= kRespawnAfterFailures) {
    log("engine failed 2 consecutive segments — exiting for a fresh respawn");
    return true;
  }
  return false;
}

void StreamSession::finish() {
  onOutput([this] { drain(); });
}

}  // namespace lumora2
