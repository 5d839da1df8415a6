// The avatar's image decoder: found only in the avatar's own directory, cached under a
// per-avatar key, held to its input/output contract and moved down the unit ladder when it
// computes nothing on its declared unit.
#include "decoder_loading.h"

#include <algorithm>
#include <string>

#include "compute_unit_choice.h"
#include "engine/log.h"
#include "fs_ops.h"
#include "liveness.h"

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

void logCandidateFailed(const std::string& name) {
  engineLog("[vivra] " + name + " compile/load FAILED — trying the next dec_p2 candidate");
}

// The decoder computes nothing on its declared unit: the ladder's other units, in order, until
// one computes something; nothing when none does.
std::shared_ptr<GraphModel> climbLadder(const Path& package, const std::string& key,
                                        const std::string& member, const std::string& declared,
                                        const std::string& reason, const EngineSettings& settings,
                                        const ModelCache& cache, std::string* unitInUse) {
  std::string ladder;
  for (std::string_view unit : DecoderLoading::kLivenessLadder) {
    if (!ladder.empty()) ladder += ",";
    ladder += unit;
  }
  engineLog("[vivra] " + member + " loaded on " + declared + " and COMPUTES NOTHING (" + reason +
            ") — a render on this unit would be a blank picture behind a green healthz. Retrying "
            "the liveness ladder " +
            ladder);
  for (std::string_view unitName : DecoderLoading::kLivenessLadder) {
    if (unitName == declared) continue;
    const std::string unit(unitName);
    auto rungCompiled = cache.compiledURL(package, key);
    if (!rungCompiled) continue;
    auto rung = GraphModel::load(*rungCompiled, ComputeUnitChoice::cuFromName(unit));
    if (!rung) continue;
    auto rungReason = Liveness::deadGraphReason(*rung, settings);
    if (!rungReason) {
      *unitInUse = unit;
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

}  // namespace

std::shared_ptr<GraphModel> DecoderLoading::loadDecp2Member(const Path& dir,
                                                            const Decp2Candidate& candidate,
                                                            const EngineSettings& settings,
                                                            const ModelCache& cache,
                                                            std::string* unitInUse) {
  const std::string member(candidate.member);
  const Path package = dir / (member + ".mlpackage");
  if (!fsops::existsAnyKind(package)) return nullptr;

  // Decoders of different avatars must never evict one another.
  const std::string key = member + "-" + package.parent_path().filename().string();
  const std::string declared =
      ComputeUnitChoice::cuNameFromEnv(settings, candidate.unitEnv, candidate.defaultUnit);
  auto model = cache
                   .loadCompiled(package, key, ComputeUnitChoice::cuFromName(declared),
                                 "[vivra] cached " + member +
                                     " mlmodelc failed to load — purging + recompiling once")
                   .model;
  if (!model) {
    logCandidateFailed(member);
    return nullptr;
  }
  if (!meetsContract(model->description())) {
    engineLog("[vivra] " + member +
              " I/O contract mismatch (want x[1,36,90,52] → fp16 rgb[1,3,720,416]) — trying the "
              "next dec_p2 candidate");
    return nullptr;
  }
  auto reason = Liveness::deadGraphReason(*model, settings);
  if (!reason) {
    *unitInUse = declared;
    return model;
  }
  return climbLadder(package, key, member, declared, *reason, settings, cache, unitInUse);
}

std::optional<DecoderLoading::Loaded> DecoderLoading::loadDecp2(const Path& dir,
                                                                const EngineSettings& settings,
                                                                const ModelCache& cache) {
  for (const Decp2Candidate& row : kDecp2Candidates) {
    Loaded loaded;
    loaded.model = loadDecp2Member(dir, row, settings, cache, &loaded.unit);
    if (!loaded.model) continue;
    loaded.desc = std::string(row.label) + "/" + loaded.unit;
    return loaded;
  }
  return std::nullopt;
}

}  // namespace lumora2
