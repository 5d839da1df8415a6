// The per-identity decoder members and the process-wide shared speech front end: lookup, the
// per-identity cache key, the I/O contract check and the liveness ladder.
#pragma once

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "engine/graph_model.h"

namespace lumora2 {

class DecoderLoading {
 public:
  struct Decp2Candidate {
    std::string_view member;       // package name
    std::string_view label;        // first half of decp2Desc
    std::string_view unitEnv;      // compute-unit variable
    std::string_view defaultUnit;  // unit name when the variable names none
  };
  static constexpr std::array<Decp2Candidate, 1> kDecp2Candidates{
      {{"dec_p2_v3_all", "dec_p2_v3", "LUMORA2_DECP2_V3_CU", "all"}}};
  // The units a dead decoder is retried on, in order.
  static constexpr std::array<std::string_view, 2> kLivenessLadder{"cpuAndNE", "cpuOnly"};

  // Loads one decoder member: package lookup (activeAgentDir only, when set), cache key
  // "<name>-<identity dir name>", I/O contract check and the liveness ladder. On success the
  // unit name in use goes to *unitInUse (when given).
  static std::shared_ptr<GraphModel> loadDecp2Member(std::string_view name,
                                                     std::string_view envName,
                                                     std::string_view defaultUnitName,
                                                     std::optional<std::string>* unitInUse);
  // The process-wide speech front end "w2v_frontend_cpuAndNE", loaded once under a process-wide
  // mutex; a failed load leaves the slot empty so that the next call tries again.
  static std::shared_ptr<GraphModel> sharedW2V();
};

}  // namespace lumora2
