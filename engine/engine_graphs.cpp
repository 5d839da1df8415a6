// The engine file's graphs, loaded once and shared, and the process's one shared speech front
// end.
#include "engine/engine_graphs.h"

#include <exception>
#include <mutex>
#include <string>

#include "compute_unit_choice.h"
#include "engine/log.h"
#include "liveness.h"
#include "model_cache.h"

namespace lumora2 {
namespace {

constexpr std::string_view kFrontEnd = "w2v_frontend_cpuAndNE";
constexpr std::string_view kTokenizer = "audiotokenizer_cpuAndNE";
constexpr std::string_view kStudent = "student_v4_forward_frame_cpuAndNE";

// The process-wide speech front end of LUMORA2_SHARED_W2V: one graph for every EngineGraphs of
// the process, loaded by the first that asks. A failed load leaves the slot empty, so that the
// next one tries again.
std::shared_ptr<GraphModel> processFrontEnd(const EngineSettings& settings,
                                            const ModelCache& cache) {
  static std::mutex mutex;
  // Never destroyed: the graph stays usable until the process ends, with no exit-time ordering
  // against LibTorch's own statics.
  static auto* slot = new std::shared_ptr<GraphModel>();
  std::lock_guard lock(mutex);
  if (!*slot) {
    *slot = cache.load(kFrontEnd, ComputeUnitChoice::cuForModel(settings, kFrontEnd));
    if (*slot) engineLog("[vivra] shared w2v loaded ONCE for this process (LUMORA2_SHARED_W2V)");
  }
  return *slot;
}

}  // namespace

EngineGraphs::EngineGraphs(std::shared_ptr<GraphModel> w2v, std::shared_ptr<GraphModel> atok,
                           std::shared_ptr<GraphModel> student)
    : w2v_(std::move(w2v)), atok_(std::move(atok)), student_(std::move(student)) {}

std::shared_ptr<const EngineGraphs> EngineGraphs::load(const EngineSettings& settings) {
  try {
    configureComputeThreads(settings.computeThreads);
    const ModelCache cache(settings);
    auto load = [&](std::string_view name) {
      return cache.load(name, ComputeUnitChoice::cuForModel(settings, name));
    };
    std::shared_ptr<GraphModel> w2v =
        settings.process.sharedFrontEnd ? processFrontEnd(settings, cache) : load(kFrontEnd);
    std::shared_ptr<GraphModel> atok, student;
    if (w2v) atok = load(kTokenizer);
    if (atok) student = load(kStudent);
    if (!student) {
      engineLog("[vivra] warmUp FAILED — missing model(s)");
      return nullptr;
    }
    Liveness::warnDeadFrontEnd(settings, *w2v, *atok, *student);
    return std::make_shared<const EngineGraphs>(std::move(w2v), std::move(atok),
                                                std::move(student));
  } catch (const std::exception& e) {
    engineLog(std::string("[vivra] warmUp FAILED — ") + e.what());
    return nullptr;
  }
}

}  // namespace lumora2
