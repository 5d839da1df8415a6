// Which compute units each graph is loaded on: the fixed defaults, overridden per graph by the
// settings' unit knobs, the four unit names matched exactly.
#pragma once

#include <string>
#include <string_view>

#include "engine/compute_units.h"
#include "engine/engine_settings.h"

namespace lumora2 {

class ComputeUnitChoice {
 public:
  // The units named by the knob's value when it is one of the four names, else `fallback`.
  static ComputeUnits cuFromEnv(const EngineSettings& settings, std::string_view knob,
                                ComputeUnits fallback);
  // The knob's value when it is one of the four names, else `defaultName` unchanged.
  static std::string cuNameFromEnv(const EngineSettings& settings, std::string_view knob,
                                   std::string_view defaultName);
  // By the graph's name: "student" → LUMORA2_STUDENT_CU, "w2v" → LUMORA2_W2V_CU,
  // "audiotokenizer" → LUMORA2_ATOK_CU (tested in that order); default cpuAndNE.
  static ComputeUnits cuForModel(const EngineSettings& settings, std::string_view name);
  // The decoder's mapping: "cpuAndGPU", "all", "cpuOnly"; any other text gives cpuAndNE.
  static ComputeUnits cuFromName(std::string_view name);
};

}  // namespace lumora2
