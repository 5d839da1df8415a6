// The output side: frames pulled in order and converted into the puller's buffer, the tail flush
// that pads an utterance to push its last frames out, draining and the synthetic throughput
// benchmark.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <stdexcept>

#include "engine/log.h"
#include "engine/lumora2_engine.h"
#include "engine/serial_queue.h"
#include "frame_path.h"

static_assert(lumora2::Lumora2Engine::kI420Bytes == lumora2::FramePath::i420Bytes);

namespace lumora2 {

std::optional<Lumora2Engine::FrameInfo> Lumora2Engine::pullInto(std::span<std::uint8_t> frame,
                                                                PixelOrder order) {
  if (frame.size() != kFrameBytes) {
    throw std::invalid_argument("pullInto: a frame takes 898,560 bytes");
  }
  return pullWith([&](FramePath& path, const Unit& unit) {
    path.frameInto(unit.raw.halves(), settings_.sharpen, frame, order);
  });
}

std::optional<Lumora2Engine::FrameInfo> Lumora2Engine::pullI420Into(
    std::span<std::uint8_t> planes) {
  if (planes.size() != kI420Bytes) {
    throw std::invalid_argument("pullI420Into: a 4:2:0 frame takes 449,280 bytes");
  }
  return pullWith([&](FramePath& path, const Unit& unit) {
    path.frameIntoI420(unit.raw.halves(), settings_.sharpen, planes);
  });
}

template <class Convert>
std::optional<Lumora2Engine::FrameInfo> Lumora2Engine::pullWith(Convert convert) {
  Unit unit;
  std::size_t remaining = 0;
  {
    MutexLock hold(lock_);
    if (frameQueue_.empty()) return std::nullopt;
    unit = std::move(frameQueue_.front());
    frameQueue_.pop_front();
    remaining = frameQueue_.size();
  }
  // Processing that paused at the limit resumes once the queue is below it again.
  if (remaining >= static_cast<std::size_t>(maxQueuedFrames - 1)) scheduleProcessing();
  {
    MutexLock hold(pulling_);
    convert(*framePath_, unit);
  }
  return FrameInfo{unit.legacySpeech, unit.isSpeech, unit.pos};
}

int Lumora2Engine::queuedFrames() const {
  MutexLock hold(lock_);
  return static_cast<int>(frameQueue_.size());
}

void Lumora2Engine::flushTail() {
  if (!isReady()) return;
  {
    MutexLock hold(lock_);
    const std::int64_t received = receivedLocked();
    if (received == 0 || (tailPad_ && tailPad_->second == received)) {
      engineLog("[vivra] flushTail: nothing pending (ci=" + std::to_string(ci_) + ")");
      return;
    }
    // To the next chunk boundary plus one whole chunk: the pipeline lags one chunk behind, so
    // the extra chunk pushes the real audio's last frames out.
    const std::int64_t pad = received % SPC == 0 ? SPC : 2 * SPC - received % SPC;
    buf_.resize(buf_.size() + static_cast<std::size_t>(pad), 0.0f);
    tailPad_ = {received, received + pad};
    engineLog("[vivra] flushTail: real=" + std::to_string(received) +
              " pad=" + std::to_string(pad) + " → tail 0 at audio-frame " +
              std::to_string(received / SPF) + " (ci=" + std::to_string(ci_) + ")");
  }
  scheduleProcessing();
}

bool Lumora2Engine::waitForScheduledRenders(std::chrono::duration<double> timeout) {
  return procQ_->waitForEarlierTasks(timeout);
}

std::optional<MultiArray> Lumora2Engine::renderAllDraining() {
  std::optional<MultiArray> last;
  for (;;) {
    processAvailable();
    MutexLock hold(lock_);
    if (!frameQueue_.empty()) last = std::move(frameQueue_.back().raw);
    frameQueue_.clear();
    if (receivedLocked() < (ci_ + 1) * SPC || failed_) return last;
  }
}

void Lumora2Engine::benchSync(int seconds) {
  if (!isReady()) return;
  resetState(true);
  std::vector<float> samples(static_cast<std::size_t>(std::max(seconds, 0)) * 16000);
  double phase = 0.0;
  for (float& s : samples) {
    s = static_cast<float>(std::sin(phase) * 0.25);
    phase += 0.055;
  }
  const std::int64_t before = producedTotal();
  const auto started = std::chrono::steady_clock::now();
  {
    MutexLock hold(lock_);
    buf_.insert(buf_.end(), samples.begin(), samples.end());
  }
  for (;;) {
    processAvailable();
    MutexLock hold(lock_);
    frameQueue_.clear();
    if (receivedLocked() < (ci_ + 1) * SPC || failed_) break;
  }
  const std::int64_t frames = producedTotal() - before;
  const double elapsed =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  const double fps = elapsed > 0 ? static_cast<double>(frames) / elapsed : 0.0;
  char line[256];
  std::snprintf(line, sizeof line,
                "[vivra-BENCH] generated %lld frames (%ds audio) in %.2fs = %.1f fps GENERATION = "
                "%.2fx realtime (vs 20fps content)",
                static_cast<long long>(frames), seconds, elapsed, fps, fps / 20.0);
  engineLog(line);
  resetState(true);
}

}  // namespace lumora2
