// The avatar's decoder: found only in the avatar's own directory, cached under a per-avatar
// key, held to its input/output contract and moved down the unit ladder when it
// computes nothing on its declared unit.
#pragma once

#include <array>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "engine/engine_settings.h"
#include "engine/graph_model.h"
#include "model_cache.h"

namespace lumora2 {

class DecoderLoading {
 public:
  struct Decp2Candidate {
    std::string_view member;       // package name
    std::string_view label;        // first half of the decoder's description
    std::string_view unitEnv;      // compute-unit knob
    std::string_view defaultUnit;  // unit name when the knob names none
  };
  static constexpr std::array<Decp2Candidate, 1> kDecp2Candidates{
      {{"dec_p2_v3_all", "dec_p2_v3", "LUMORA2_DECP2_V3_CU", "all"}}};
  // The units a dead decoder is retried on, in order.
  static constexpr std::array<std::string_view, 2> kLivenessLadder{"cpuAndNE", "cpuOnly"};

  struct Loaded {
    std::shared_ptr<GraphModel> model;
    std::string desc;  // "<label>/<unit in use>", e.g. "dec_p2_v3/all"
    std::string unit;  // the unit it runs on
  };

  // The first candidate that loads from the avatar directory `dir`; nothing (after the
  // candidates' own lines) when none does.
  static std::optional<Loaded> loadDecp2(const std::filesystem::path& dir,
                                         const EngineSettings& settings, const ModelCache& cache);
  // One candidate: <dir>/<name>.mlpackage, cache key "<name>-<avatar dir name>", the I/O
  // contract check and the liveness ladder. On success the unit name in use goes to *unitInUse.
  static std::shared_ptr<GraphModel> loadDecp2Member(const std::filesystem::path& dir,
                                                     const Decp2Candidate& candidate,
                                                     const EngineSettings& settings,
                                                     const ModelCache& cache,
                                                     std::string* unitInUse);
};

}  // namespace lumora2
