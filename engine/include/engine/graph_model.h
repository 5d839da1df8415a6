// GraphModel: one compiled graph loaded on a compute unit, predicting with named inputs and
// outputs. LibTorch stays behind the pointer to its implementation, so that including this header
// costs nothing and loads nothing.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "engine/compute_units.h"
#include "engine/model_description.h"
#include "engine/multi_array.h"

namespace lumora2 {

// A prediction that did not produce its outputs. what() names the graph's failure, including
// LibTorch's own text where it has one.
class PredictionError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Named arrays in insertion order. Setting a name that is present replaces its array.
class FeatureSet {
 public:
  FeatureSet() = default;
  FeatureSet(std::initializer_list<std::pair<std::string, MultiArray>> entries);

  void set(std::string name, MultiArray array);
  const MultiArray* find(std::string_view name) const;
  // Throws std::out_of_range naming the feature when it is absent.
  const MultiArray& at(std::string_view name) const;

  bool empty() const { return entries_.empty(); }
  std::size_t size() const { return entries_.size(); }
  auto begin() const { return entries_.begin(); }
  auto end() const { return entries_.end(); }

 private:
  std::vector<std::pair<std::string, MultiArray>> entries_;
};

class GraphModel {
 public:
  ~GraphModel();
  GraphModel(const GraphModel&) = delete;
  GraphModel& operator=(const GraphModel&) = delete;

  // Loads the compiled model directory `compiled` (model.pt and io.json) on `units`. Nothing when
  // the description does not read, the module does not load or move to its device, or forward
  // does not take exactly the described inputs; the reason goes to *error. Never throws.
  static std::shared_ptr<GraphModel> load(const std::filesystem::path& compiled, ComputeUnits units,
                                          std::string* error = nullptr);

  const ModelDescription& description() const;
  ComputeUnits computeUnits() const;
  // "cpu" or "cuda:<n>": where the units put the graph on this machine.
  std::string deviceName() const;
  // Whether load replaced the frozen module by its optimize_for_inference form, which it does on
  // the CPU only where a quick timing on a synthetic input shows that form at least 10% faster.
  bool optimizedForInference() const;

  // Runs forward once: inputs are taken by name and passed by position in the description's
  // order; the results are named by the described outputs (a tuple or a single tensor). Input
  // arrays are read in place, without a copy, and must not change during the call. Throws
  // PredictionError for a missing input, a forward that fails, or results that do not match the
  // description's outputs in number, type or shape. Safe to call from several threads at once,
  // without taking turns: engines on shared graphs predict side by side.
  FeatureSet predict(const FeatureSet& inputs) const;
  // The same run `batch` deep: every input and output described with a leading 1 (the batch
  // dimension) has `batch` there instead, item i of each output answering item i of the inputs.
  // Only for graphs whose forward takes a batch; one that does not fails as PredictionError.
  FeatureSet predict(const FeatureSet& inputs, std::int64_t batch) const;
  // The array of the first listed output of predict(inputs, batch).
  MultiArray predictFirst(const FeatureSet& inputs, std::int64_t batch = 1) const;
  // Wall time spent in predict by every graph of this process so far, failed calls included.
  static std::chrono::nanoseconds predictTimeTotal();

 private:
  struct Impl;
  explicit GraphModel(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

// Compiles the package directory `package` (model.pt + io.json): loads model.pt, puts it in eval
// mode, freezes it and saves the frozen module as model.pt in a fresh temporary directory beside
// a copy of io.json. Returns that directory, or nothing (reason in *error) when the package does
// not load, freeze or describe itself. Never throws.
std::optional<std::filesystem::path> compileModelPackage(const std::filesystem::path& package,
                                                         std::string* error = nullptr);

// Sizes LibTorch's thread pools for the whole process: one inter-op thread, and `threads` intra-op
// threads (0: every core the process may run on). The first call (or the first graph loaded or
// compiled, which sizes them for every core) decides; later calls change nothing.
void configureComputeThreads(int threads);

// How many graph compilations this process has run (successful or not); benchmarks and tests
// count them to prove the cache works.
std::size_t compileCount();

}  // namespace lumora2
