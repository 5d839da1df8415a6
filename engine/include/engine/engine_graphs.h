// EngineGraphs: the engine file's graphs (speech front end, audio tokenizer, per-frame student),
// loaded, probed and checked once per process and shared by every engine made on them, whatever
// avatar each renders. Read-only once loaded: engines predict on them from their own processing
// threads at the same time (GraphModel::predict takes no turns; graph_runtime.cpp says why that
// is safe).
#pragma once

#include <memory>

#include "engine/engine_settings.h"
#include "engine/graph_model.h"

namespace lumora2 {

class EngineGraphs {
 public:
  // Sizes LibTorch's thread pools from the settings (first call in the process), then finds,
  // compiles and loads the three graphs through the compiled-model cache, each on the unit its
  // knob names, and warns (one line each) about any that computes nothing. With the settings'
  // shared front end (LUMORA2_SHARED_W2V=1) the speech front end is the process's one, loaded by
  // whichever call came first. Never throws: nothing, after "[vivra] warmUp FAILED — missing
  // model(s)", when a graph is missing or does not load.
  static std::shared_ptr<const EngineGraphs> load(const EngineSettings& settings);

  const GraphModel& frontEnd() const { return *w2v_; }
  const GraphModel& tokenizer() const { return *atok_; }
  const GraphModel& student() const { return *student_; }

  EngineGraphs(std::shared_ptr<GraphModel> w2v, std::shared_ptr<GraphModel> atok,
               std::shared_ptr<GraphModel> student);

 private:
  std::shared_ptr<GraphModel> w2v_, atok_, student_;
};

}  // namespace lumora2
