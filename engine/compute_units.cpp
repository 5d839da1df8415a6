// Which compute unit each graph runs on: fixed defaults, overridden per graph by the unit knobs,
// the four unit names matched exactly.
#include "engine/compute_units.h"

#include <array>
#include <utility>

#include "compute_unit_choice.h"

namespace lumora2 {

namespace {
constexpr std::array<std::pair<std::string_view, ComputeUnits>, 4> kUnitNames{{
    {"cpuOnly", ComputeUnits::cpuOnly},
    {"cpuAndGPU", ComputeUnits::cpuAndGPU},
    {"all", ComputeUnits::all},
    {"cpuAndNE", ComputeUnits::cpuAndNeuralEngine},
}};
}  // namespace

std::optional<ComputeUnits> computeUnitsNamed(std::string_view name) {
  for (const auto& [unitName, units] : kUnitNames) {
    if (unitName == name) return units;
  }
  return std::nullopt;
}

std::string_view computeUnitsName(ComputeUnits units) {
  for (const auto& [unitName, u] : kUnitNames) {
    if (u == units) return unitName;
  }
  return "cpuAndNE";
}

ComputeUnits ComputeUnitChoice::cuFromEnv(const EngineSettings& settings, std::string_view knob,
                                          ComputeUnits fallback) {
  auto value = settings.knob(knob);
  if (!value) return fallback;
  return computeUnitsNamed(*value).value_or(fallback);
}

std::string ComputeUnitChoice::cuNameFromEnv(const EngineSettings& settings, std::string_view knob,
                                             std::string_view defaultName) {
  auto value = settings.knob(knob);
  if (value && computeUnitsNamed(*value)) return *value;
  return std::string(defaultName);
}

ComputeUnits ComputeUnitChoice::cuForModel(const EngineSettings& settings, std::string_view name) {
  // First match wins: a name holding both "student" and "w2v" follows the student's knob.
  static constexpr std::array<std::pair<std::string_view, std::string_view>, 3> kByName{{
      {"student", "LUMORA2_STUDENT_CU"},
      {"w2v", "LUMORA2_W2V_CU"},
      {"audiotokenizer", "LUMORA2_ATOK_CU"},
  }};
  for (const auto& [part, knob] : kByName) {
    if (name.find(part) != std::string_view::npos) {
      return cuFromEnv(settings, knob, ComputeUnits::cpuAndNeuralEngine);
    }
  }
  return ComputeUnits::cpuAndNeuralEngine;
}

ComputeUnits ComputeUnitChoice::cuFromName(std::string_view name) {
  if (name == "cpuAndGPU") return ComputeUnits::cpuAndGPU;
  if (name == "all") return ComputeUnits::all;
  if (name == "cpuOnly") return ComputeUnits::cpuOnly;
  return ComputeUnits::cpuAndNeuralEngine;
}

}  // namespace lumora2
