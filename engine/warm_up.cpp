// Warm-up: the engine's state allocated once, the latent context seeded from the canonical frame
// and primed with a silence pass and a speech pass where rendering reads what they leave. Never
// throws: every failure is one log line and an early return with isReady() false.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <stdexcept>

#include "engine/log.h"
#include "engine/lumora2_engine.h"
#include "frame_path.h"

namespace lumora2 {
namespace {

constexpr std::int64_t kSilenceSamples = 102400;  // 6.4 s: four chunks

}  // namespace

void Lumora2Engine::prepareState() {
  {
    MutexLock hold(processing_);
    const std::int64_t chosen = settings_.decoderBatch > 0                 ? settings_.decoderBatch
                                : avatar_->decoder().deviceName() == "cpu" ? 1
                                                                           : 8;
    const std::int64_t batch =
        avatar_->decoderTakesBatch() ? std::clamp<std::int64_t>(chosen, 1, 32) : 1;
    decp2X_ = MultiArray(ArrayDataType::float32, {batch, 36, H, W});
    ctxMA_ = MultiArray(ArrayDataType::float32, {1, C, CTX, H, W});
    _window.assign(static_cast<std::size_t>(kWindow), 0.0f);
    _iv = MultiArray(ArrayDataType::float32, {1, kStretched});
    resetCtxLocked();
  }
  MutexLock hold(pulling_);
  framePath_ = std::make_unique<FramePath>();
  framePath_->ensureRGBScratch();
}

// Four chunks of silence from the canonical context; the last frame is the rest pose, which
// becomes the idle picture when the avatar has no clip.
void Lumora2Engine::silencePass() {
  {
    MutexLock hold(lock_);
    buf_.assign(static_cast<std::size_t>(kSilenceSamples), 0.0f);
    bufBase_ = 0;
  }
  std::optional<MultiArray> last = renderAllDraining();
  if (idle_ || !last) return;
  MutexLock hold(pulling_);
  idle_ = framePath_->frameToBGR(last->halves(), settings_.sharpen);
  engineLog("[vivra] idle = the converged rest frame (no clip: " +
            avatar_->idleUnavailableReason().value_or("?") + ")");
}

// Leaves the context in a speaking state; the frames are never shown.
void Lumora2Engine::speechPass(const std::vector<float>& speech) {
  {
    MutexLock hold(lock_);
    buf_ = speech;
    bufBase_ = 0;
    ci_ = 0;
    prevBlk_ = 0;
    prev_.clear();
  }
  for (;;) {
    processAvailable();
    MutexLock hold(lock_);
    frameQueue_.clear();
    if (receivedLocked() < (ci_ + 1) * SPC || failed_) break;
  }
  engineLog("[vivra] speech-warmed ctx (" + std::to_string(speech.size()) + " samples)");
}

void Lumora2Engine::warmUp(const std::optional<std::vector<float>>& speech) {
  try {
    const auto started = std::chrono::steady_clock::now();
    engineLog("[vivra] dec_p2 per-identity decoder ACTIVE (" + avatar_->decoderDesc() +
              ") — the ONLY decoder (taehv floor removed 2026-08-11)");
    prepareState();
    idle_ = avatar_->idleFrame();

    // The two passes prime state that rendering reads only under some arms: every segment
    // starts again from resetState, whose context is the canonical frame unless ctx_seed=warm
    // keeps the speech pass's context, and whose chunk 0 looks back (prepends) by the token
    // count of the last chunk only under the prepend and clamp_only onset arms. The graphs
    // themselves were already run at load (GraphModel times three predictions of each). So the
    // speech pass, most of the warm-up, runs only for ctx_seed=warm, and the silence pass only
    // for those arms or to draw the rest pose when there is no idle clip; the frames rendered
    // afterwards are the same bytes either way. LUMORA2_WARMUP=full runs both always.
    const EngineSettings::ProcessWide& arms = settings_.process;
    const bool warmSeed = arms.ctxSeed.armed == "warm";
    const bool prepends = arms.onset.armed != "gpu" && arms.onset.armed != "gpu_noclamp";
    if (settings_.fullWarmUp || warmSeed || prepends || !idle_) silencePass();
    if (!settings_.fullWarmUp && !warmSeed) {
      engineLog("[vivra] speech pass skipped (ctx_seed=" + arms.ctxSeed.armed +
                ": every segment starts from the canonical frame)");
    } else if (speech && static_cast<std::int64_t>(speech->size()) / 1024 > 24) {
      speechPass(*speech);
    }

    auto primed = std::make_shared<Primed>();
    {
      MutexLock hold(processing_);
      const float* ctx = ctxMA_.floats();
      primed->context.assign(ctx, ctx + ctxMA_.count());
      primed->numTokens = numTokens_;
    }
    primed->idle = idle_;
    becomeReady(started, std::move(primed));
  } catch (const std::exception& e) {
    // Warm-up never throws; anything unexpected leaves the engine not ready, with its reason.
    engineLog(std::string("[vivra] warmUp FAILED — ") + e.what());
  }
}

void Lumora2Engine::warmUpFrom(std::shared_ptr<const Primed> primed) {
  try {
    if (!primed) throw std::invalid_argument("no priming to start from");
    const auto started = std::chrono::steady_clock::now();
    engineLog("[vivra] dec_p2 per-identity decoder ACTIVE (" + avatar_->decoderDesc() +
              ") — the ONLY decoder (taehv floor removed 2026-08-11)");
    prepareState();
    {
      MutexLock hold(processing_);
      numTokens_ = primed->numTokens;
    }
    idle_ = primed->idle;
    engineLog("[vivra] primed from another engine of this avatar (no priming passes)");
    becomeReady(started, std::move(primed));
  } catch (const std::exception& e) {
    engineLog(std::string("[vivra] warmUp FAILED — ") + e.what());
  }
}

// The snapshot taken, a fresh segment from it, and ready.
void Lumora2Engine::becomeReady(std::chrono::steady_clock::time_point started,
                                std::shared_ptr<const Primed> primed) {
  {
    MutexLock hold(processing_);
    primed_ = std::move(primed);
  }
  resetState(true);
  ready_.store(true, std::memory_order_release);
  const double elapsed =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%.1f", elapsed);
  engineLog(std::string("[vivra] warmUp done in ") + seconds +
            "s — ready (idle=" + (idle_ ? "yes" : "no") + ")");
  logArmAttestation();
}

std::shared_ptr<const Lumora2Engine::Primed> Lumora2Engine::primed() const {
  if (!isReady()) return nullptr;
  MutexLock hold(processing_);
  return primed_;
}

}  // namespace lumora2
