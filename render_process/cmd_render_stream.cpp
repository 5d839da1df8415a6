// render-stream <X.avatar> --engine <vivra.model>: the long-lived child a parent feeds with audio
// and reads frames from. It refuses containers given in each other's place and members that fail
// their checksums before it warms up. After warm-up it writes one header line, then serves
// length-prefixed messages from standard input (audio, reset, flush, no-op, end) and answers with
// frame records (4-byte position + R, G, B pixels) and end-of-segment markers on standard output.
// One serial output queue alone writes standard output after the header; the main thread only
// reads, feeds and waits. SIGTERM, SIGINT and SIGHUP are taken by one thread (sigwait) that removes
// the working directory and ends the process with 128 + the signal number.
#include <malloc.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "container/archive.h"
#include "container/platform.h"
#include "engine/lumora2_engine.h"
#include "engine/serial_queue.h"
#include "host/args.h"
#include "host/command.h"
#include "protocol/stream_wire.h"
#include "render_commands.h"
#include "render_staging.h"
#include "render_support.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kFrameBytes = Lumora2Engine::kFrameBytes;  // 416 × 720 × 3
constexpr int kBackPressureFrames = 32;
constexpr auto kPaceWait = std::chrono::duration<double>(5.0);
constexpr auto kFlushBudget = std::chrono::duration<double>(8.0);
constexpr int kRespawnAfterFailures = 2;

// One line on standard error in one write, so that it never interleaves with the engine's log.
void stderrLine(const std::string& text) {
  const std::string line = text + "\n";
  [[maybe_unused]] ssize_t n = ::write(STDERR_FILENO, line.data(), line.size());
}

// Reads exactly `size` bytes; false when standard input ends (or fails) first.
bool readExactly(void* into, std::size_t size) {
  auto* p = static_cast<std::uint8_t*>(into);
  while (size > 0) {
    const ssize_t n = ::read(STDIN_FILENO, p, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

// Writes all of it; false when standard output has gone away.
bool writeAll(const void* from, std::size_t size) {
  const auto* p = static_cast<const std::uint8_t*>(from);
  while (size > 0) {
    const ssize_t n = ::write(STDOUT_FILENO, p, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

// The terminating signals, blocked in every thread of the process (threads inherit the mask of
// the thread that creates them, so this runs before the engine makes any) and taken by one
// thread with sigwait.
sigset_t terminatingSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGHUP);
  return set;
}

class RenderStream {
 public:
  RenderStream(fs::path workDir, std::shared_ptr<Lumora2Engine> engine)
      : workDir_(std::move(workDir)), engine_(std::move(engine)) {}

  // The message loop; returns the process's exit status.
  int serve() {
    wire::StreamMessageReader messages(readExactly);
    for (;;) {
      wire::StreamMessage message = messages.next();
      switch (message.kind) {
        case wire::StreamMessage::Kind::reset:
          onOutput([this] { drain(); });
          engine_->resetState(true);
          break;
        case wire::StreamMessage::Kind::flush:
          if (flush()) return kExitRespawn;
          break;
        case wire::StreamMessage::Kind::audio:
          engine_->feed(message.samples);
          pace();
          break;
        case wire::StreamMessage::Kind::end:
          return endOfStream();
      }
    }
  }

 private:
  // Runs `task` on the output queue and returns once it has run.
  template <typename Task>
  void onOutput(Task task) {
    out_.async(std::move(task));
    out_.waitForEarlierTasks(std::chrono::hours(24));
  }

  // Every ready frame, as position + R, G, B in one write each. The engine writes the pixels
  // straight into the record, in the wire's order; the record is the one buffer every frame uses.
  void drain() {
    const std::span<std::uint8_t> pixels(record_.data() + 4, kFrameBytes);
    while (auto frame = engine_->pullInto(pixels, PixelOrder::rgb)) {
      wire::putLittleEndian(record_.data(), static_cast<std::uint32_t>(frame->pos));
      if (!writeAll(record_.data(), record_.size())) parentGone();
    }
  }

  // Standard output is closed: the parent has gone away. Nothing more can be delivered.
  [[noreturn]] void parentGone() {
    stderrLine("[render-stream] standard output closed (the parent went away) — exiting");
    removeTreeQuietly(workDir_);
    std::_Exit(kExitOk);
  }

  // At most one asynchronous drain waits on the output queue at any time.
  void kick() {
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

  void pace() {
    if (engine_->hasFullChunkPending()) {
      kick();
      if (!engine_->waitForScheduledRenders(kPaceWait)) {
        stderrLine("[render-stream] pace: render did not land within 5 s — continuing");
      }
    }
    while (engine_->queuedFrames() > kBackPressureFrames) {
      kick();
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    kick();
  }

  // Renders the segment's padded tail, writes every one of its frames and then the marker.
  // Returns true when the process must end for a respawn.
  bool flush() {
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
        stderrLine(
            "[render-stream] flush: render did not land within 8 s — answering with what is "
            "queued");
        onOutput([this] { drain(); });
        break;
      }
    }
    if (engine_->failed()) {
      ++failures_;
      stderrLine(
          "[render-stream] segment ended with engine FAILED (transient ANE error survived retry) "
          "— " +
          std::to_string(failures_) + " consecutive; recovers on next reset");
    } else {
      failures_ = 0;
    }
    onOutput([this] {
      std::uint8_t marker[4];
      wire::putLittleEndian(marker, wire::kMarker);
      if (!writeAll(marker, sizeof marker)) parentGone();
    });
    // Frames and the graphs' buffers are made and freed on several threads; glibc keeps the
    // freed pieces in its heaps, scattered, and a live session's child crept up by a fifth in ten
    // minutes. Between segments the free pages go back.
    ::malloc_trim(0);
    if (failures_ >= kRespawnAfterFailures) {
      stderrLine(
          "[render-stream] engine failed 2 consecutive segments — exiting for a fresh respawn");
      return true;
    }
    return false;
  }

  int endOfStream() {
    onOutput([this] { drain(); });
    stderrLine("[render-stream] stdin closed — exiting (produced " +
               std::to_string(engine_->producedTotal()) + " frames)");
    removeTreeQuietly(workDir_);
    return kExitOk;
  }

  fs::path workDir_;
  std::shared_ptr<Lumora2Engine> engine_;
  std::vector<std::uint8_t> record_ = std::vector<std::uint8_t>(4 + kFrameBytes);
  std::mutex kickLock_;
  bool kickScheduled_ = false;  // guarded by kickLock_
  int failures_ = 0;            // consecutive failed segments, for the whole process
  SerialQueue out_{"lumora2.render-stream.out"};  // last: stops first
};

}  // namespace

int renderStream(const Positionals& positionals, const Options& options) {
  const fs::path avatarPath = positionals.at(0);
  const fs::path enginePath = *option(options, "engine");

  // Before any thread exists: the terminating signals go to the signal thread only, and a write
  // to a closed standard output is an error to report, not SIGPIPE.
  const sigset_t signals = terminatingSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::signal(SIGPIPE, SIG_IGN);

  // The environment is read here, once; the engine is handed what it says.
  EngineSettings settings = EngineSettings::fromEnvironment();
  // Which file is which, from the manifests alone, before anything is unpacked or loaded.
  const RenderManifests manifests = readRenderManifests(enginePath, avatarPath);
  const fs::path workDir = fs::temp_directory_path() / ("ane-render-" + newUUID());
  fs::create_directories(workDir);
  // Every member is checked against its manifest before the engine sees it.
  StagedRender staged;
  try {
    staged = stageForRendering(enginePath, avatarPath, workDir);
    verifyStaged(workDir, manifests);
  } catch (...) {
    removeTreeQuietly(workDir);
    throw;
  }
  stderrLine("[render-stream] warming up avatar=" + avatarPath.filename().string() + " …");
  const auto started = Clock::now();
  std::shared_ptr<Lumora2Engine> engine = warmEngine(staged, std::move(settings));
  if (!engine) {
    removeTreeQuietly(workDir);
    throw Err("render-stream: warmUp failed — engine not ready");
  }
  engine->resetState(true);
  char ready[64];
  std::snprintf(ready, sizeof ready, "[render-stream] ready in %.1fs",
                std::chrono::duration<double>(Clock::now() - started).count());
  stderrLine(ready);
  wire::Header promise;
  promise.width = Lumora2Engine::kWidth;
  promise.height = Lumora2Engine::kHeight;
  promise.decoder = engine->decoderDesc();
  const std::string header = wire::headerLine(promise);
  if (!writeAll(header.data(), header.size())) {
    stderrLine("[render-stream] standard output closed (the parent went away) — exiting");
    removeTreeQuietly(workDir);
    return kExitOk;
  }

  std::thread([signals, workDir] {
    int signal = 0;
    if (sigwait(&signals, &signal) != 0) return;
    stderrLine("[render-stream] signal " + std::to_string(signal) + " — exiting");
    removeTreeQuietly(workDir);
    std::_Exit(kExitSignalBase + signal);
  }).detach();

  RenderStream stream(workDir, engine);
  return stream.serve();
}

}  // namespace lumora2
