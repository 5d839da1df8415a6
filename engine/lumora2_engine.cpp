// Construction, the process-wide arms, the sharpening strength, resets and the engine's answers
// to the MorvaneEngine interface.
#include "engine/lumora2_engine.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "engine/idle_clip_stream.h"
#include "engine/log.h"
#include "frame_path.h"
#include "model_resolution.h"
#include "protocol/dev_env.h"
#include "engine/serial_queue.h"

namespace lumora2 {
namespace {

constexpr const char* kArmValidation = "LUMORA2_ARM_VALIDATION=v1";

// A 32-bit float written in decimal, the whole text and nothing else: an optional sign, digits
// with an optional fraction and exponent. No blanks, no hexadecimal, no "inf" or "nan".
std::optional<float> parseFloat(const std::string& text) {
  if (text.empty()) return std::nullopt;
  bool digit = false;
  for (char c : text) {
    if (std::isdigit(static_cast<unsigned char>(c)) != 0) {
      digit = true;
    } else if (std::strchr("+-.eE", c) == nullptr) {
      return std::nullopt;
    }
  }
  if (!digit) return std::nullopt;
  errno = 0;
  char* end = nullptr;
  float value = std::strtof(text.c_str(), &end);
  if (end != text.c_str() + text.size()) return std::nullopt;
  return value;
}

std::string trimmedLower(const std::string& value) {
  const char* blanks = " \t\n\r\v\f";
  std::size_t first = value.find_first_not_of(blanks);
  if (first == std::string::npos) return "";
  std::size_t last = value.find_last_not_of(blanks);
  std::string out = value.substr(first, last - first + 1);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

std::string joined(const std::vector<std::string>& items, const char* separator) {
  std::string out;
  for (const std::string& item : items) {
    if (!out.empty()) out += separator;
    out += item;
  }
  return out;
}

}  // namespace

Lumora2Engine::Lumora2Engine()
    : procQ_(std::make_unique<SerialQueue>("com.morvane.lumora2.engine.proc")) {}

Lumora2Engine::~Lumora2Engine() {
  // The queue goes first (it is declared last), so no task runs while the rest is torn down.
  procQ_.reset();
}

std::shared_ptr<Lumora2Engine> Lumora2Engine::create() {
  return std::shared_ptr<Lumora2Engine>(new Lumora2Engine());
}

void Lumora2Engine::setActiveAgentDir(std::optional<std::filesystem::path> dir) {
  ModelResolution::setActiveAgentDir(std::move(dir));
}

EngineId Lumora2Engine::id() const { return {"lumora2", {"vivra", "lumora-2"}}; }

Lumora2Engine::Arm Lumora2Engine::resolveArm(const std::string& name,
                                             const std::vector<std::string>& known,
                                             const std::string& fallback) {
  std::optional<std::string> raw = DevEnv::knob(name);
  if (!raw) return {fallback, std::nullopt, true};
  std::string value = trimmedLower(*raw);
  if (std::find(known.begin(), known.end(), value) != known.end()) return {value, value, true};
  engineLog("[vivra] " + name + "=" + (value.empty() ? std::string("<empty>") : value) +
            " is not a recognised arm (known: " + joined(known, "|") + ") — arming the DEFAULT " +
            fallback + ", NOT the pre-09-02 legacy arm. " + kArmValidation);
  return {fallback, value, false};
}

const Lumora2Engine::Arm& Lumora2Engine::onsetArm() {
  static const Arm arm =
      resolveArm("LUMORA2_ONSET", {"gpu", "gpu_noclamp", "prepend", "clamp_only"}, "gpu");
  return arm;
}

const Lumora2Engine::Arm& Lumora2Engine::ctxSeedArm() {
  static const Arm arm = resolveArm("LUMORA2_CTX_SEED", {"canon", "warm"}, "canon");
  return arm;
}

void Lumora2Engine::logArmAttestation() {
  auto describe = [](const Arm& arm) {
    return arm.armed + " (requested " + arm.requested.value_or("<unset>") + ", recognised " +
           (arm.recognised ? "yes" : "NO") + ")";
  };
  engineLog("[vivra] chunk-0 arms: onset=" + describe(onsetArm()) +
            " ctx_seed=" + describe(ctxSeedArm()) + " " + kArmValidation);
}

const std::string& Lumora2Engine::audioPreproc() {
  static const std::string mode = [] {
    std::optional<std::string> raw = DevEnv::knob("LUMORA2_AUDIO_PREPROC");
    if (!raw) return std::string("tempo");
    std::string value = *raw;
    std::transform(value.begin(), value.end(), value.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return value;
  }();
  return mode;
}

float Lumora2Engine::sharpenAmount() {
  MutexLock hold(pulling_);
  return sharpenAmountLocked();
}

float Lumora2Engine::sharpenAmountLocked() {
  if (!sharpen_) {
    // When LUMORA2_SHARPEN is set but unparsable, VIVRA_SHARPEN is not consulted.
    std::optional<std::string> text = DevEnv::knob("LUMORA2_SHARPEN");
    if (!text) text = DevEnv::knob("VIVRA_SHARPEN");
    std::optional<float> value = text ? parseFloat(*text) : std::nullopt;
    sharpen_ = value ? std::max(*value, 0.0f) : 0.8f;
  }
  return *sharpen_;
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
  if (ctxSeedArm().armed == "warm" && warmCtx_ && warmCtx_->size() == blocks * plane) {
    std::copy(warmCtx_->begin(), warmCtx_->end(), ctx);
    return;
  }
  // Each of the 16 canonical planes repeated across the 16 slots of its channel. A canonical
  // frame shorter than 16 planes leaves the rest zero.
  for (std::size_t i = 0; i < static_cast<std::size_t>(C); ++i) {
    for (std::size_t j = 0; j < static_cast<std::size_t>(CTX); ++j) {
      float* block = ctx + (i * static_cast<std::size_t>(CTX) + j) * plane;
      const std::size_t from = i * plane;
      const std::size_t n = canon_.size() > from ? std::min(plane, canon_.size() - from) : 0;
      std::copy_n(canon_.begin() + static_cast<std::ptrdiff_t>(from), n, block);
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

std::int64_t Lumora2Engine::segmentFrames() const {
  MutexLock hold(lock_);
  return segFrames_;
}

std::int64_t Lumora2Engine::chunkIndex() const {
  MutexLock hold(lock_);
  return ci_;
}

bool Lumora2Engine::failed() const {
  MutexLock hold(lock_);
  return failed_;
}

std::int64_t Lumora2Engine::idleFrameCount() const {
  return idleClip_ ? idleClip_->frameCount() : 0;
}
std::int64_t Lumora2Engine::idleIndex() const { return idleClip_ ? idleClip_->lastIndex() : -1; }
std::int64_t Lumora2Engine::idleWraps() const { return idleClip_ ? idleClip_->wraps() : 0; }

}  // namespace lumora2
