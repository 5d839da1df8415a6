// The per-identity image decoder: found only in the identity's own directory when one is
// active, cached under a per-identity key, held to its input/output contract and moved down the
// unit ladder when it computes nothing on its declared unit.
#include <algorithm>
#include <mutex>
#include <string>

#include "compute_unit_choice.h"
#include "container/platform.h"
#include "decoder_loading.h"
#include "engine/log.h"
#include "engine/lumora2_engine.h"
#include "fs_ops.h"
#include "liveness.h"
#include "model_cache.h"
#include "model_resolution.h"

namespace lumora2 {

namespace {

using Path = std::filesystem::path;

bool shapeIs(const std::vector<std::int64_t>& shape, std::initializer_list<std::int64_t> want) {
  return std::equal(shape.begin(), shape.end(), want.begin(), want.end());
}

// Input "x" of shape [1,36,90,52] in float32 (the engine fills it as float32 planes); the first
// listed output fp16 of shape [1,3,720,416] or unspecified.
bool meetsContract(const ModelDescription& d) {
  const FeatureDescription* x = d.input("x");
  if (x == nullptr || !x->multiArray || !shapeIs(x->multiArray->shape, {1, 36, 90, 52}) ||
      x->multiArray->dataType != ArrayDataType::float32) {
    return false;
  }
  const FeatureDescription* rgb = d.firstOutput();
  if (rgb == nullptr || !rgb->multiArray) return false;
  const MultiArrayConstraint& out = *rgb->multiArray;
  return out.dataType == ArrayDataType::float16 &&
         (out.shape.empty() || shapeIs(out.shape, {1, 3, 720, 416}));
}

void logCandidateFailed(std::string_view name) {
  engineLog("[vivra] " + std::string(name) +
            " compile/load FAILED — trying the next dec_p2 candidate");
}

}  // namespace

std::shared_ptr<GraphModel> DecoderLoading::loadDecp2Member(std::string_view name,
                                                            std::string_view envName,
                                                            std::string_view defaultUnitName,
                                                            std::optional<std::string>* unitInUse) {
  const std::string member(name);
  std::optional<Path> package;
  if (auto agent = ModelResolution::activeAgentDir()) {
    Path candidate = *agent / (member + ".mlpackage");
    if (fsops::existsAnyKind(candidate)) package = candidate;
  } else {
    package = ModelResolution::modelURL(name);
  }
  if (!package) return nullptr;

  // Decoders of different identities must never evict one another.
  const std::string key = member + "-" + package->parent_path().filename().string();
  const std::string declared = ComputeUnitChoice::cuNameFromEnv(envName, defaultUnitName);
  const ComputeUnits declaredUnits = ComputeUnitChoice::cuFromName(declared);

  auto model = ModelCache::loadCompiled(*package, key, declaredUnits,
                                        "[vivra] cached " + member +
                                            " mlmodelc failed to load — purging + recompiling once")
                   .model;
  if (!model) {
    logCandidateFailed(name);
    return nullptr;
  }

  if (!meetsContract(model->description())) {
    engineLog("[vivra] " + member +
              " I/O contract mismatch (want x[1,36,90,52] → fp16 rgb[1,3,720,416]) — trying the "
              "next dec_p2 candidate");
    return nullptr;
  }

  auto reason = Liveness::deadGraphReason(*model);
  if (!reason) {
    if (unitInUse != nullptr) *unitInUse = declared;
    return model;
  }
  std::string ladder;
  for (std::string_view unit : kLivenessLadder) {
    if (!ladder.empty()) ladder += ",";
    ladder += unit;
  }
  engineLog("[vivra] " + member + " loaded on " + declared + " and COMPUTES NOTHING (" + *reason +
            ") — a render on this unit would be a blank picture behind a green healthz. Retrying "
            "the liveness ladder " +
            ladder);
  for (std::string_view unitName : kLivenessLadder) {
    if (unitName == declared) continue;
    const std::string unit(unitName);
    auto rungCompiled = ModelCache::compiledURL(*package, key);
    if (!rungCompiled) continue;
    auto rung = GraphModel::load(*rungCompiled, ComputeUnitChoice::cuFromName(unit));
    if (!rung) continue;
    auto rungReason = Liveness::deadGraphReason(*rung);
    if (!rungReason) {
      if (unitInUse != nullptr) *unitInUse = unit;
      engineLog("[vivra] " + member + " RECOVERED on " + unit +
                " — decoderDesc will report the unit actually in use, NOT the declared " +
                declared + ". This is a fallback, not a fix: something is wrong with " + declared +
                " on this platform.");
      return rung;
    }
    engineLog("[vivra] " + member + " on " + unit + " is ALSO dead (" + *rungReason + ")");
  }
  engineLog("[vivra] " + member +
            " computes nothing on ANY unit in the ladder — REFUSING rather than rendering a blank "
            "picture");
  return nullptr;
}

std::shared_ptr<GraphModel> Lumora2Engine::loadDecp2() {
  for (const DecoderLoading::Decp2Candidate& row : DecoderLoading::kDecp2Candidates) {
    auto model =
        DecoderLoading::loadDecp2Member(row.member, row.unitEnv, row.defaultUnit, &decp2CU);
    if (!model) continue;
    decp2Desc =
        std::string(row.label) + "/" +
        (decp2CU ? *decp2CU : ComputeUnitChoice::cuNameFromEnv(row.unitEnv, row.defaultUnit));
    return model;
  }
  return nullptr;
}

std::shared_ptr<GraphModel> DecoderLoading::sharedW2V() {
  static std::mutex mutex;
  // Never destroyed: the graph stays usable until the process ends, with no exit-time ordering
  // against LibTorch's own statics.
  static auto* slotStorage = new std::shared_ptr<GraphModel>();
  std::lock_guard lock(mutex);
  std::shared_ptr<GraphModel>& slot = *slotStorage;
  if (!slot) {
    constexpr std::string_view kName = "w2v_frontend_cpuAndNE";
    slot = ModelCache::load(kName, ComputeUnitChoice::cuForModel(kName));
    if (slot) engineLog("[vivra] shared w2v loaded ONCE for this process (LUMORA2_SHARED_W2V)");
  }
  return slot;
}

}  // namespace lumora2
