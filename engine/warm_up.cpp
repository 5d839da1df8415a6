// Warm-up: loads and checks everything the engine needs, then primes the latent context with a
// silence pass and an optional speech pass. Never throws: every failure is one log line and an
// early return with isReady() false.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "compute_unit_choice.h"
#include "decoder_loading.h"
#include "engine/idle_clip_stream.h"
#include "engine/log.h"
#include "engine/lumora2_engine.h"
#include "frame_path.h"
#include "liveness.h"
#include "model_cache.h"
#include "model_resolution.h"
#include "protocol/dev_env.h"

namespace lumora2 {
namespace {

constexpr std::int64_t kSilenceSamples = 102400;  // 6.4 s: four chunks

// The whole file as little-endian 32-bit floats; a trailing partial float is ignored.
std::optional<std::vector<float>> readFloats(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::vector<float> values(bytes.size() / 4);
  for (std::size_t i = 0; i < values.size(); ++i) {
    const auto* b = reinterpret_cast<const unsigned char*>(bytes.data() + 4 * i);
    std::uint32_t bits = static_cast<std::uint32_t>(b[0]) | static_cast<std::uint32_t>(b[1]) << 8 |
                         static_cast<std::uint32_t>(b[2]) << 16 |
                         static_cast<std::uint32_t>(b[3]) << 24;
    std::memcpy(&values[i], &bits, sizeof bits);
  }
  return values;
}

}  // namespace

void Lumora2Engine::warmUp(const std::optional<std::vector<float>>& speech) {
  try {
    const auto started = std::chrono::steady_clock::now();

    // Idle clip: the identity's authored backdrop, or the reason there is none.
    auto [clip, why] =
        IdleClipStream::open(ModelResolution::resURL("idle", "mp4"), kWidth, kHeight);
    idleClip_ = std::move(clip);
    idleUnavailableReason_ = why;
    if (!idleClip_) {
      engineLog("[vivra] idle clip unavailable: " + why.value_or("?"));
    } else {
      idle_ = idleClip_->firstFrameBGR();
      engineLog("[vivra] idle clip open (" + std::to_string(idleClip_->frameCount()) +
                " frames, streamed in place, wraps at the authored end) — playing as warmup "
                "backdrop");
    }

    std::shared_ptr<GraphModel> decoder = loadDecp2();
    std::shared_ptr<GraphModel> w2v;
    if (Liveness::sharedW2VEnabled()) {
      w2v = DecoderLoading::sharedW2V();
    } else {
      constexpr std::string_view kW2V = "w2v_frontend_cpuAndNE";
      w2v = ModelCache::load(kW2V, ComputeUnitChoice::cuForModel(kW2V));
    }
    std::shared_ptr<GraphModel> atok, student;
    if (w2v) {
      constexpr std::string_view kAtok = "audiotokenizer_cpuAndNE";
      atok = ModelCache::load(kAtok, ComputeUnitChoice::cuForModel(kAtok));
      if (atok) {
        constexpr std::string_view kStudent = "student_v4_forward_frame_cpuAndNE";
        student = ModelCache::load(kStudent, ComputeUnitChoice::cuForModel(kStudent));
      }
    }
    if (!w2v || !atok || !student) {
      engineLog("[vivra] warmUp FAILED — missing model(s)");
      return;
    }
    Liveness::warnDeadFrontEnd(w2v.get(), atok.get(), student.get());
    if (!decoder) {
      decoderDesc_ = "missing-decp2";
      engineLog(
          "[vivra] decp2 members missing/unloadable — REFUSING (taehv floor removed 2026-08-11, "
          "Stage B); re-provision dec_p2_v3_all.mlpackage for this identity "
          "(lumora2-model pack-avatar)");
      return;
    }
    w2v_ = std::move(w2v);
    atok_ = std::move(atok);
    student_ = std::move(student);
    decp2_ = std::move(decoder);
    {
      MutexLock hold(processing_);
      decp2X_ = MultiArray(ArrayDataType::float32, {1, 36, H, W});
    }
    decoderDesc_ = decp2Desc.value_or("dec_p2/unknown");
    engineLog("[vivra] dec_p2 per-identity decoder ACTIVE (" + decoderDesc_ +
              ") — the ONLY decoder (taehv floor removed 2026-08-11)");

    std::optional<std::filesystem::path> canonURL = ModelResolution::resURL("canon", "f32");
    std::optional<std::vector<float>> canon = canonURL ? readFloats(*canonURL) : std::nullopt;
    if (!canon) {
      engineLog("[vivra] MISSING canon.f32");
      return;
    }
    canon_ = std::move(*canon);
    {
      MutexLock hold(processing_);
      ctxMA_ = MultiArray(ArrayDataType::float32, {1, C, CTX, H, W});
      resetCtxLocked();
    }

    // The two passes below prime state that rendering reads only under some arms: every segment
    // starts again from resetState, whose context is the canonical frame unless ctx_seed=warm
    // keeps the speech pass's context, and whose chunk 0 looks back (prepends) by the token
    // count of the last chunk only under the prepend and clamp_only onset arms. The graphs
    // themselves were already run at load (GraphModel times three predictions of each). So the
    // speech pass, most of the warm-up, runs only for ctx_seed=warm, and the silence pass only
    // for those arms or to draw the rest pose when there is no idle clip; the frames rendered
    // afterwards are the same bytes either way. LUMORA2_WARMUP=full runs both always.
    const bool full = DevEnv::knob("LUMORA2_WARMUP").value_or("") == "full";
    const bool warmSeed = ctxSeedArm().armed == "warm";
    const std::string& onset = onsetArm().armed;
    const bool prepends = onset != "gpu" && onset != "gpu_noclamp";
    const bool silencePass = full || warmSeed || prepends || !idleClip_;
    const bool speechPass = full || warmSeed;

    // Silence pass: four chunks from the canonical context; its last frame is the rest pose.
    std::vector<std::vector<std::uint16_t>> silence;
    if (silencePass) {
      {
        MutexLock hold(lock_);
        buf_.assign(static_cast<std::size_t>(kSilenceSamples), 0.0f);
        bufBase_ = 0;
      }
      silence = renderAllDraining(true);
    }
    {
      MutexLock hold(pulling_);
      if (!framePath_) framePath_ = std::make_unique<FramePath>();
      framePath_->ensureRGBScratch();
      if (!idleClip_ && !silence.empty()) {
        idle_ = framePath_->frameToBGR(silence.back().data(), sharpenAmountLocked());
        engineLog("[vivra] idle = the converged rest frame (no clip: " +
                  idleUnavailableReason_.value_or("?") + ")");
      }
    }

    // Speech pass: leaves the context in a speaking state; its frames are never shown.
    if (!speechPass) {
      engineLog("[vivra] speech pass skipped (ctx_seed=" + ctxSeedArm().armed +
                ": every segment starts from the canonical frame)");
    } else if (speech && static_cast<std::int64_t>(speech->size()) / 1024 > 24) {
      {
        MutexLock hold(lock_);
        buf_ = *speech;
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
      engineLog("[vivra] speech-warmed ctx (" + std::to_string(speech->size()) + " samples)");
    }

    {
      MutexLock hold(processing_);
      const float* ctx = ctxMA_.floats();
      warmCtx_ = std::vector<float>(ctx, ctx + ctxMA_.count());
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
  } catch (const std::exception& e) {
    // Warm-up never throws; anything unexpected leaves the engine not ready, with its reason.
    engineLog(std::string("[vivra] warmUp FAILED — ") + e.what());
  }
}

}  // namespace lumora2
