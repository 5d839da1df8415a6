// DevEnv: the allow-list of environment knobs the engine honours. A reader of an engine knob asks
// `DevEnv::knob(name)`, which answers as if the variable were unset when its name is not on the
// list, without reading the environment: a variable added to the environment but missing here has
// no effect, deliberately. Header-only so that the artifact commands use it without the engine.
#pragma once

#include <array>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>

namespace lumora2::DevEnv {

// The honoured knob names, in their documented order.
inline constexpr std::array<std::string_view, 16> kMeasurementKnobNames{
    "LUMORA2_ONSET",          "LUMORA2_CTX_SEED",      "LUMORA2_SHARPEN",
    "VIVRA_SHARPEN",          "LUMORA2_AUDIO_PREPROC", "LUMORA2_SHARED_W2V",
    "LUMORA2_GRAPH_LIVENESS", "LUMORA2_STUDENT_CU",    "LUMORA2_W2V_CU",
    "LUMORA2_ATOK_CU",        "LUMORA2_DECP2_V3_CU",   "LUMORA2_MLMODELC_CACHE",
    "LUMORA2_MLMODELC_CACHE_KEEP", "MORVANE_LUMORA2_DIR", "MORVANE_VIVRA_DIR",
    "LUMORA2_WARMUP",
};

// The process-wide set, built once on first use (thread-safe static initialisation).
inline const std::unordered_set<std::string>& measurementKnobs() {
  static const std::unordered_set<std::string> knobs = [] {
    std::unordered_set<std::string> names;
    for (std::string_view name : kMeasurementKnobNames) names.emplace(name);
    return names;
  }();
  return knobs;
}

// The knob's value when its name is honoured and the variable is set (possibly empty); nothing
// otherwise.
inline std::optional<std::string> knob(std::string_view name) {
  std::string key(name);
  if (measurementKnobs().count(key) == 0) return std::nullopt;
  const char* value = std::getenv(key.c_str());
  if (value == nullptr) return std::nullopt;
  return std::string(value);
}

}  // namespace lumora2::DevEnv
