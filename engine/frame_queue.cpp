// The output side: frames pulled in order and converted, the tail flush that pads an utterance
// to push its last frames out, draining, idle frames and the synthetic throughput benchmark.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "engine/idle_clip_stream.h"
#include "engine/log.h"
#include "engine/lumora2_engine.h"
#include "frame_path.h"
#include "engine/serial_queue.h"

namespace lumora2 {

std::optional<Lumora2Engine::PulledItem> Lumora2Engine::pullPos() {
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
  PulledItem item;
  item.speech = unit.legacySpeech;
  item.isSpeech = unit.isSpeech;
  item.pos = unit.pos;
  {
    MutexLock hold(pulling_);
    if (!framePath_) framePath_ = std::make_unique<FramePath>();
    framePath_->ensureRGBScratch();
    item.frame = framePath_->frameToBGR(unit.raw.data(), sharpenAmountLocked());
  }
  return item;
}

std::optional<PulledFrame> Lumora2Engine::pull() {
  auto item = pullPos();
  if (!item) return std::nullopt;
  return PulledFrame{std::move(item->frame), item->speech};
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

std::vector<std::vector<std::uint16_t>> Lumora2Engine::renderAllDraining(bool capture) {
  std::vector<std::vector<std::uint16_t>> captured;
  for (;;) {
    processAvailable();
    MutexLock hold(lock_);
    if (capture) {
      for (Unit& unit : frameQueue_) captured.push_back(std::move(unit.raw));
    }
    frameQueue_.clear();
    if (receivedLocked() < (ci_ + 1) * SPC || failed_) return captured;
  }
}

std::size_t Lumora2Engine::idleInto(std::vector<std::uint8_t>& buffer) {
  if (buffer.size() < kFrameBytes) return 0;
  if (idleClip_) {
    if (std::optional<PixelBuffer> picture = idleClip_->next()) {
      // The clip is decoded as B, G, R, A: dropping every fourth byte leaves B, G, R.
      if (picture->bytes && picture->width == kWidth && picture->height == kHeight) {
        const std::uint8_t* src = picture->bytes->data();
        std::uint8_t* dst = buffer.data();
        for (int row = 0; row < kHeight; ++row) {
          const std::uint8_t* in = src + static_cast<std::size_t>(row) * picture->stride;
          std::uint8_t* out = dst + static_cast<std::size_t>(row) * kWidth * 3;
          for (int x = 0; x < kWidth; ++x) {
            out[3 * x] = in[4 * x];
            out[3 * x + 1] = in[4 * x + 1];
            out[3 * x + 2] = in[4 * x + 2];
          }
        }
      }
      return kFrameBytes;
    }
  }
  if (idle_) {
    const std::size_t n = std::min(buffer.size(), idle_->size());
    std::memcpy(buffer.data(), idle_->data(), n);
    return n;
  }
  return 0;
}

std::optional<PixelBuffer> Lumora2Engine::idleNextPixelBuffer() {
  if (!idleClip_) return std::nullopt;
  return idleClip_->next();
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
