// The liveness probe: whether a loaded graph computes anything on a synthetic input, and the
// two process-wide switches that govern the probe and the shared front end.
#pragma once

#include <optional>
#include <string>

#include "engine/graph_model.h"

namespace lumora2 {

class Liveness {
 public:
  // False only when LUMORA2_GRAPH_LIVENESS is exactly "0"; read once per process.
  static bool livenessEnabled();
  // True only when LUMORA2_SHARED_W2V is exactly "1"; read once per process.
  static bool sharedW2VEnabled();
  // Why `model` computes nothing on a synthetic input ("prediction FAILED", "N of M outputs are
  // NaN/Inf", "ALL M outputs are ZERO"), or nothing when it is alive or cannot be judged.
  static std::optional<std::string> deadGraphReason(const GraphModel& model);
  // Warm-up's warning over the three front-end graphs: one line for each dead one. Null graphs
  // are skipped. Never changes anything.
  static void warnDeadFrontEnd(const GraphModel* w2v, const GraphModel* atok,
                               const GraphModel* student);
};

}  // namespace lumora2
