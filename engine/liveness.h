// The liveness probe: whether a loaded graph computes anything on a synthetic input.
#pragma once

#include <optional>
#include <string>

#include "engine/engine_settings.h"
#include "engine/graph_model.h"

namespace lumora2 {

class Liveness {
 public:
  // Why `model` computes nothing on a synthetic input ("prediction FAILED", "N of M outputs are
  // NaN/Inf", "ALL M outputs are ZERO"), or nothing when it is alive, cannot be judged, or the
  // settings turn the probe off (LUMORA2_GRAPH_LIVENESS=0).
  static std::optional<std::string> deadGraphReason(const GraphModel& model,
                                                    const EngineSettings& settings);
  // The warning over the three front-end graphs: one line for each dead one, naming the unit
  // its knob asks for. Never changes anything.
  static void warnDeadFrontEnd(const EngineSettings& settings, const GraphModel& w2v,
                               const GraphModel& atok, const GraphModel& student);
};

}  // namespace lumora2
