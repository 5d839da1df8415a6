// Construction, resets, the arms' attestation and the diagnostics.
#include "engine/lumora2_engine.h"

#include <algorithm>
#include <stdexcept>

#include "engine/log.h"
#include "engine/serial_queue.h"
#include "frame_path.h"

namespace lumora2 {

Lumora2Engine::Lumora2Engine(std::shared_ptr<const EngineGraphs> graphs,
                             std::shared_ptr<const AvatarModel> avatar, EngineSettings settings)
    : graphs_(std::move(graphs)),
      avatar_(std::move(avatar)),
      settings_(std::move(settings)),
      procQ_(std::make_unique<SerialQueue>("lumora2.engine.proc")) {}

Lumora2Engine::~Lumora2Engine() {
  // The queue goes first (it is declared last), so no task runs while the rest is torn down.
  procQ_.reset();
}

std::shared_ptr<Lumora2Engine> Lumora2Engine::create(std::shared_ptr<const EngineGraphs> graphs,
                                                     std::shared_ptr<const AvatarModel> avatar,
                                                     EngineSettings settings) {
  if (!graphs || !avatar) throw std::invalid_argument("Lumora2Engine needs graphs and an avatar");
  return std::shared_ptr<Lumora2Engine>(
      new Lumora2Engine(std::move(graphs), std::move(avatar), std::move(settings)));
}

std::shared_ptr<Lumora2Engine> Lumora2Engine::warmed(
    std::shared_ptr<const EngineGraphs> graphs, std::shared_ptr<const AvatarModel> avatar,
    const EngineSettings& settings, const std::optional<std::vector<float>>& warmSpeech) {
  if (!graphs || !avatar) return nullptr;
  auto engine = create(std::move(graphs), std::move(avatar), settings);
  engine->warmUp(warmSpeech);
  if (!engine->isReady()) return nullptr;
  return engine;
}

void Lumora2Engine::logArmAttestation() const {
  auto describe = [](const Arm& arm) {
    return arm.armed + " (requested " + arm.requested.value_or("<unset>") + ", recognised " +
           (arm.recognised ? "yes" : "NO") + ")";
  };
  engineLog("[vivra] chunk-0 arms: onset=" + describe(settings_.process.onset) +
            " ctx_seed=" + describe(settings_.process.ctxSeed) + " LUMORA2_ARM_VALIDATION=v1");
}

void Lumora2Engine::resetCtx() {
  MutexLock hold(processing_);
  resetCtxLocked();
}

void Lumora2Engine::resetCtxLocked() {
  if (ctxMA_.isNull()) return;
  float* ctx = ctxMA_.floats();
  const std::size_t blocks = static_cast<std::size_t>(C * CTX);
  const std::size_t plane = static_cast<std::size_t>(kPlane);
  if (settings_.process.ctxSeed.armed == "warm" && primed_ &&
      primed_->context.size() == blocks * plane) {
    std::copy(primed_->context.begin(), primed_->context.end(), ctx);
    return;
  }
  // Each of the 16 canonical planes repeated across the 16 slots of its channel. A canonical
  // frame shorter than 16 planes leaves the rest zero.
  const std::vector<float>& canon = avatar_->canon();
  for (std::size_t i = 0; i < static_cast<std::size_t>(C); ++i) {
    for (std::size_t j = 0; j < static_cast<std::size_t>(CTX); ++j) {
      float* block = ctx + (i * static_cast<std::size_t>(CTX) + j) * plane;
      const std::size_t from = i * plane;
      const std::size_t n = canon.size() > from ? std::min(plane, canon.size() - from) : 0;
      std::copy_n(canon.begin() + static_cast<std::ptrdiff_t>(from), n, block);
      std::fill(block + n, block + plane, 0.0f);
    }
  }
}

void Lumora2Engine::startSegmentLocked() {
  buf_.clear();
  bufBase_ = 0;
  ci_ = 0;
  prev_.clear();
  prevBlk_ = 0;
  tailPad_.reset();
  segFrames_ = 0;
}

void Lumora2Engine::resetState(bool clearFrames) {
  bool wasFailed = false;
  {
    MutexLock hold(lock_);
    ++gen_;
    startSegmentLocked();
    if (clearFrames) frameQueue_.clear();
    wasFailed = failed_;
    failed_ = false;
  }
  if (wasFailed) {
    engineLog("[vivra] resetState: clearing failed engine state — retrying from warmCtx");
  }
  resetCtx();
}

std::vector<float> Lumora2Engine::latentContext() const {
  MutexLock hold(processing_);
  if (ctxMA_.isNull()) return {};
  return std::vector<float>(ctxMA_.floats(), ctxMA_.floats() + ctxMA_.count());
}

std::int64_t Lumora2Engine::producedTotal() const {
  MutexLock hold(lock_);
  return producedTotal_;
}

std::int64_t Lumora2Engine::chunkIndex() const {
  MutexLock hold(lock_);
  return ci_;
}

bool Lumora2Engine::failed() const {
  MutexLock hold(lock_);
  return failed_;
}

}  // namespace lumora2
