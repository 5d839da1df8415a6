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

void Lumora2Engine::feed(std::span<const float> samples) {
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
  const std::string& arm = settings_.process.onset.armed;
  const bool noPrepend = arm == "gpu" || arm == "gpu_noclamp";
  const bool clamp = arm == "gpu" || arm == "clamp_only";
  Window window;
  // The window: `prepend` zeros, the buffered samples from the window's start, zeros to 44,000.
  std::int64_t prepend = 0;
  std::int64_t taken = 0;
  {
    MutexLock hold(lock_);
    window.ci = ci_;
    window.gen = gen_;
    const std::int64_t ci = ci_;
    const std::int64_t start0 = ci < 2 ? 0 : (ci - 1) * SPC;
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
    if (end > start) {
      taken = end - start;
      std::copy(buf_.begin() + start, buf_.begin() + end, _window.begin() + prepend);
    }
  }
  std::fill_n(_window.begin(), prepend, 0.0f);
  std::fill(_window.begin() + prepend + taken, _window.end(), 0.0f);
  window.speech =
      std::any_of(_window.begin(), _window.end(), [](float v) { return std::fabs(v) > 0.001f; });
  return window;
}

MultiArray Lumora2Engine::windowFeats() {
  // Compressed straight into the front end's input, with its fixed input gain of 3.
  std::span<float> iv(_iv.floats(), static_cast<std::size_t>(kStretched));
  if (settings_.process.audioPreproc == "linear") {
    resampleInto(_window, iv, 3.0f);
  } else {
    WsolaTempo::apply(_window, iv, 3.0f);
  }
  MultiArray out = predMA(graphs_->frontEnd(), FeatureSet{{"iv", _iv}});
  // The tokenizer reads the features as [1, 55, 12, 768] float32: the front end's own output
  // when it is that already, viewed in that shape.
  const std::vector<std::int64_t> shape{1, 55, 12, 768};
  constexpr std::int64_t kFeatures = 55 * 12 * 768;
  if (out.dataType() != ArrayDataType::float32 && out.dataType() != ArrayDataType::float16) {
    throw PredictionError("speech front end returned " + std::string(dataTypeName(out.dataType())) +
                          " features");
  }
  if (out.count() != kFeatures) {
    throw PredictionError("speech front end gave " + std::to_string(out.count()) +
                          " features, the tokenizer takes " + std::to_string(kFeatures));
  }
  if (out.dataType() == ArrayDataType::float32) {
    return MultiArray::wrap(ArrayDataType::float32, shape, out.storage());
  }
  MultiArray feats(ArrayDataType::float32, shape);
  const std::uint16_t* h = out.halves();
  for (std::int64_t i = 0; i < kFeatures; ++i) feats.floats()[i] = halfToFloat(h[i]);
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
