// The input side: audio appended under the lock, chunks scheduled on the processing queue, the
// 44,000-sample analysis window of each chunk, the speech front end and voice activity.
#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "engine/log.h"
#include "engine/lumora2_engine.h"
#include "engine/serial_queue.h"
#include "time_stretch.h"

namespace lumora2 {

std::int64_t Lumora2Engine::receivedLocked() const {
  return bufBase_ + static_cast<std::int64_t>(buf_.size());
}

void Lumora2Engine::scheduleProcessing() {
  // Kicks coalesce: one queued processAvailable covers every feed before it starts.
  if (kickPending_.exchange(true)) return;
  std::weak_ptr<Lumora2Engine> weak = weak_from_this();
  procQ_->async([weak] {
    if (auto engine = weak.lock()) {
      engine->kickPending_.store(false);
      engine->processAvailable();
    }
  });
}

void Lumora2Engine::feed(const std::vector<float>& samples) {
  if (!isReady()) return;  // audio before warm-up is dropped silently
  bool restart = false;
  {
    MutexLock hold(lock_);
    // After a completed flush (every padded chunk processed, nothing new since), the next audio
    // starts a new segment: positions restart at 0 and the context is re-seeded. Queued frames
    // of the old segment stay pullable.
    if (tailPad_ && receivedLocked() == tailPad_->second && ci_ * SPC >= tailPad_->second &&
        !failed_) {
      startSegmentLocked();
      restart = true;
    }
    buf_.insert(buf_.end(), samples.begin(), samples.end());
  }
  if (!restart) {
    scheduleProcessing();
    return;
  }
  std::weak_ptr<Lumora2Engine> weak = weak_from_this();
  procQ_->async([weak] {
    if (auto engine = weak.lock()) {
      engine->resetCtx();
      engine->processAvailable();
    }
  });
}

void Lumora2Engine::processAvailable() {
  for (;;) {
    std::int64_t chunk = 0;
    {
      MutexLock hold(lock_);
      const bool full = receivedLocked() >= (ci_ + 1) * SPC && !failed_;
      // Back-pressure: at 64 queued frames chunk processing waits for the puller, which queues
      // this function again once the queue drops below the limit.
      if (!full || frameQueue_.size() >= static_cast<std::size_t>(maxQueuedFrames)) return;
      chunk = ci_;
    }
    try {
      MutexLock processing(processing_);
      processChunkInner();
    } catch (const std::exception& e) {
      {
        MutexLock hold(lock_);
        failed_ = true;
      }
      engineLog("[vivra] CHUNK FAILED after retry (ci=" + std::to_string(chunk) +
                ") — chunk dropped, engine paused until next reset: " + e.what());
      return;
    }
  }
}

Lumora2Engine::Window Lumora2Engine::assembleWindow() {
  const std::string& arm = onsetArm().armed;
  const bool noPrepend = arm == "gpu" || arm == "gpu_noclamp";
  const bool clamp = arm == "gpu" || arm == "clamp_only";
  Window window;
  MutexLock hold(lock_);
  window.ci = ci_;
  window.gen = gen_;
  const std::int64_t ci = ci_;
  const std::int64_t start0 = ci < 2 ? 0 : (ci - 1) * SPC;
  std::int64_t prepend = 0;
  if (ci == 0 && !noPrepend) {
    const auto tokens = static_cast<std::uint64_t>(std::max<std::int64_t>(numTokens_, 1));
    prepend = static_cast<std::int64_t>(std::min<std::uint64_t>(264000 / tokens, 43200));
  }
  const auto count = static_cast<std::int64_t>(buf_.size());
  const std::int64_t rel = std::max<std::int64_t>(start0 - bufBase_, 0);
  const std::int64_t start = std::min(rel, count);
  std::int64_t available = count;
  if (clamp) {
    // No look-ahead past the chunk's own end (this changes only chunk 0).
    const std::int64_t chunkEnd = (ci + 1) * SPC - bufBase_;
    available = chunkEnd < 0 ? 0 : std::min(chunkEnd, count);
  }
  const std::int64_t end = std::min(available, rel + kWindow - prepend);
  window.samples.assign(static_cast<std::size_t>(prepend), 0.0f);
  if (end > start)
    window.samples.insert(window.samples.end(), buf_.begin() + start, buf_.begin() + end);
  if (window.samples.size() < static_cast<std::size_t>(kWindow)) {
    window.samples.resize(static_cast<std::size_t>(kWindow), 0.0f);
  }
  return window;
}

std::vector<float> Lumora2Engine::windowFeats(const std::vector<float>& window) {
  std::vector<float> stretched = audioPreproc() == "linear" ? resampleTo(window, kStretched)
                                                            : WsolaTempo::apply(window, kStretched);
  MultiArray iv(ArrayDataType::float32, {1, kStretched});
  float* p = iv.floats();
  for (std::size_t i = 0; i < stretched.size(); ++i) p[i] = stretched[i] * 3.0f;  // input gain
  if (!w2v_) {
    engineLog("[vivra] FATAL: the speech front end is not loaded while a chunk runs");
    std::abort();  // warm-up guarantees it; reaching this is a programming error
  }
  MultiArray out = predMA(*w2v_, FeatureSet{{"iv", iv}});
  std::vector<float> feats(static_cast<std::size_t>(out.count()));
  if (out.dataType() == ArrayDataType::float32) {
    std::copy_n(out.floats(), feats.size(), feats.begin());
  } else if (out.dataType() == ArrayDataType::float16) {
    const std::uint16_t* h = out.halves();
    for (std::size_t i = 0; i < feats.size(); ++i) feats[i] = halfToFloat(h[i]);
  } else {
    throw PredictionError("speech front end returned " + std::string(dataTypeName(out.dataType())) +
                          " features");
  }
  return feats;
}

std::vector<bool> Lumora2Engine::voiceActivity(std::int64_t firstPos, std::int64_t count) const {
  std::vector<bool> flags(static_cast<std::size_t>(std::max<std::int64_t>(count, 0)), false);
  MutexLock hold(lock_);
  const auto size = static_cast<std::int64_t>(buf_.size());
  for (std::int64_t i = 0; i < count; ++i) {
    const std::int64_t s = (firstPos + i) * SPF - bufBase_;
    if (s < 0 || s + SPF > size) continue;
    flags[static_cast<std::size_t>(i)] = std::any_of(buf_.begin() + s, buf_.begin() + s + SPF,
                                                     [](float v) { return std::fabs(v) > 0.001f; });
  }
  return flags;
}

void Lumora2Engine::trimBuffer() {
  const std::int64_t nextStart = ci_ < 2 ? 0 : (ci_ - 1) * SPC;
  const std::int64_t n = std::min(static_cast<std::int64_t>(buf_.size()),
                                  std::max<std::int64_t>(nextStart - bufBase_, 0));
  if (n <= 0) return;
  buf_.erase(buf_.begin(), buf_.begin() + n);
  bufBase_ += n;
}

bool Lumora2Engine::hasFullChunkPending() const {
  MutexLock hold(lock_);
  return receivedLocked() >= (ci_ + 1) * SPC && !failed_;
}

bool Lumora2Engine::hasPendingTail() const {
  MutexLock hold(lock_);
  return receivedLocked() - ci_ * SPC > 0;
}

}  // namespace lumora2
