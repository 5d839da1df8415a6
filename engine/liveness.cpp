// The dead-graph probe: a graph can load on a unit and still compute nothing there (all zeros,
// NaN or infinity), which would put a blank picture behind every green health signal. One
// prediction on a synthetic input tells.
#include <cmath>
#include <cstdint>
#include <vector>

#include "compute_unit_choice.h"
#include "engine/log.h"
#include "liveness.h"

namespace lumora2 {

namespace {

// The probe value of one input: fp16 all 0.5; fp32 element i = (i mod 17) / 17 + 0.1 in single
// precision; int32 element i = i mod 7. Nothing when the input cannot be probed.
std::optional<MultiArray> probeInput(const FeatureDescription& feature) {
  if (!feature.multiArray) return std::nullopt;
  const MultiArrayConstraint& c = *feature.multiArray;
  for (std::int64_t d : c.shape) {
    if (d < 1) return std::nullopt;  // flexible: the probe would have to guess a size
  }
  std::optional<MultiArray> array;
  try {
    array.emplace(c.dataType, c.shape);
  } catch (const std::exception&) {
    return std::nullopt;  // allocation failure
  }
  const std::int64_t n = array->count();
  switch (c.dataType) {
    case ArrayDataType::float16: {
      std::uint16_t half = floatToHalf(0.5f);
      std::uint16_t* p = array->halves();
      for (std::int64_t i = 0; i < n; ++i) p[i] = half;
      break;
    }
    case ArrayDataType::float32: {
      float* p = array->floats();
      for (std::int64_t i = 0; i < n; ++i) {
        p[i] = static_cast<float>(i % 17) / 17.0f + 0.1f;
      }
      break;
    }
    case ArrayDataType::int32: {
      std::int32_t* p = array->ints();
      for (std::int64_t i = 0; i < n; ++i) p[i] = static_cast<std::int32_t>(i % 7);
      break;
    }
    default:
      return std::nullopt;
  }
  return array;
}

}  // namespace

std::optional<std::string> Liveness::deadGraphReason(const GraphModel& model,
                                                     const EngineSettings& settings) {
  if (!settings.process.graphLiveness) return std::nullopt;
  FeatureSet inputs;
  for (const auto& feature : model.description().inputs) {
    auto value = probeInput(feature);
    if (!value) return std::nullopt;
    inputs.set(feature.name, std::move(*value));
  }
  if (inputs.empty()) return std::nullopt;

  FeatureSet outputs;
  try {
    outputs = model.predict(inputs);
  } catch (const std::exception&) {
    return "prediction FAILED";
  }
  std::uint64_t total = 0, nonFinite = 0, nonZero = 0, unjudged = 0;
  for (const auto& [name, array] : outputs) {
    const std::int64_t n = array.count();
    if (array.dataType() == ArrayDataType::float16) {
      total += static_cast<std::uint64_t>(n);
      const std::uint16_t* p = array.halves();
      for (std::int64_t i = 0; i < n; ++i) {
        if ((p[i] & 0x7C00u) == 0x7C00u) {
          ++nonFinite;
        } else if ((p[i] & 0x7FFFu) != 0) {
          ++nonZero;
        }
      }
    } else if (array.dataType() == ArrayDataType::float32) {
      total += static_cast<std::uint64_t>(n);
      const float* p = array.floats();
      for (std::int64_t i = 0; i < n; ++i) {
        if (!std::isfinite(p[i])) {
          ++nonFinite;
        } else if (p[i] != 0.0f) {
          ++nonZero;
        }
      }
    } else {
      ++unjudged;
    }
  }
  if (unjudged > 0 || total == 0) return std::nullopt;
  // One non-finite value is enough: it spreads through every later step of the chain.
  if (nonFinite > 0) {
    return std::to_string(nonFinite) + " of " + std::to_string(total) + " outputs are NaN/Inf";
  }
  if (nonZero > 0) return std::nullopt;
  return "ALL " + std::to_string(total) + " outputs are ZERO";
}

void Liveness::warnDeadFrontEnd(const EngineSettings& settings, const GraphModel& w2v,
                                const GraphModel& atok, const GraphModel& student) {
  struct Probe {
    const GraphModel& model;
    std::string_view label;
    std::string_view knob;
  };
  const Probe probes[] = {{w2v, "w2v_frontend", "LUMORA2_W2V_CU"},
                          {atok, "audiotokenizer", "LUMORA2_ATOK_CU"},
                          {student, "student_v4_forward_frame", "LUMORA2_STUDENT_CU"}};
  for (const Probe& probe : probes) {
    auto reason = deadGraphReason(probe.model, settings);
    if (!reason) continue;
    engineLog("[vivra] WARN " + std::string(probe.label) + " loaded on " +
              ComputeUnitChoice::cuNameFromEnv(settings, probe.knob, "cpuAndNE") + " (" +
              std::string(probe.knob) + ") and COMPUTES NOTHING (" + *reason +
              ") — every frame downstream of it is garbage");
  }
}

}  // namespace lumora2
