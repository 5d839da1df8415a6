// The one place where the engine meets LibTorch: loading compiled graphs on a device, running
// them with named arrays, and compiling packages (freeze + save). Every LibTorch error is caught
// here and turned into the engine's own failure: nothing plus a reason for loading and
// compiling, PredictionError for prediction.
#include <sched.h>

#include <ATen/Parallel.h>
#include <torch/cuda.h>
#include <torch/script.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <system_error>
#include <thread>

#include "container/platform.h"
#include "engine/graph_model.h"

namespace lumora2 {

namespace fs = std::filesystem;

namespace {

std::atomic<std::size_t> gCompileCount{0};
// Nanoseconds spent in GraphModel::predict, summed over every graph and thread: one relaxed add
// per prediction, so benchmarks can tell prediction time from everything around it.
std::atomic<std::int64_t> gPredictNanos{0};

// Adds the wall time of its scope to gPredictNanos, on every way out of predict.
class PredictTimer {
 public:
  PredictTimer() = default;
  PredictTimer(const PredictTimer&) = delete;
  PredictTimer& operator=(const PredictTimer&) = delete;
  ~PredictTimer() {
    const auto spent = std::chrono::steady_clock::now() - started_;
    gPredictNanos.fetch_add(std::chrono::duration_cast<std::chrono::nanoseconds>(spent).count(),
                            std::memory_order_relaxed);
  }

 private:
  std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
};

// LibTorch's thread pools belong to the process: set once, before the first graph is touched.
// Each engine's processing queue runs one prediction at a time, so inter-op parallelism gets one
// thread and the intra-op work of the running graph gets `threads` (0: every core the process
// may run on).
void configureThreadsOnce(int threads) {
  static std::once_flag once;
  std::call_once(once, [threads] {
    int cores = threads;
    cpu_set_t set;
    if (cores <= 0 && sched_getaffinity(0, sizeof set, &set) == 0) cores = CPU_COUNT(&set);
    if (cores <= 0) cores = static_cast<int>(std::thread::hardware_concurrency());
    if (cores <= 0) cores = 1;
    try {
      at::set_num_interop_threads(1);
    } catch (const std::exception&) {
      // The inter-op pool already started (the embedder used LibTorch first): keep its size.
    }
    at::set_num_threads(cores);
  });
}

c10::Device deviceFor(ComputeUnits units) {
  if (units != ComputeUnits::cpuOnly && torch::cuda::is_available()) {
    return c10::Device(c10::kCUDA, 0);
  }
  return c10::Device(c10::kCPU);
}

std::string torchText(const c10::Error& e) { return e.what_without_backtrace(); }

std::optional<at::ScalarType> scalarTypeOf(ArrayDataType type) {
  switch (type) {
    case ArrayDataType::float32:
      return at::kFloat;
    case ArrayDataType::float16:
      return at::kHalf;
    case ArrayDataType::int32:
      return at::kInt;
    case ArrayDataType::float64:
      return at::kDouble;
    case ArrayDataType::int64:
      return at::kLong;
  }
  return std::nullopt;
}

std::optional<ArrayDataType> arrayTypeOf(at::ScalarType type) {
  switch (type) {
    case at::kFloat:
      return ArrayDataType::float32;
    case at::kHalf:
      return ArrayDataType::float16;
    case at::kInt:
      return ArrayDataType::int32;
    case at::kDouble:
      return ArrayDataType::float64;
    case at::kLong:
      return ArrayDataType::int64;
    default:
      return std::nullopt;
  }
}

std::string shapeText(const std::vector<std::int64_t>& shape) {
  std::string s = "[";
  for (std::size_t i = 0; i < shape.size(); ++i) {
    if (i != 0) s += ",";
    s += std::to_string(shape[i]);
  }
  return s + "]";
}

// A fresh private directory under the system temporary directory.
std::optional<fs::path> makeTempDir(std::string* error) {
  std::string pattern = (systemTempDir() / "lumora2-mlmodelc-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    if (error != nullptr) {
      *error = "cannot create a temporary directory in " + systemTempDir().string() + ": " +
               std::generic_category().message(errno);
    }
    return std::nullopt;
  }
  return fs::path(pattern);
}

// A synthetic input for a timing run: every input needs a fixed shape; nothing otherwise.
std::optional<std::vector<c10::IValue>> timingInputs(const ModelDescription& d) {
  std::vector<c10::IValue> args;
  for (const auto& feature : d.inputs) {
    if (!feature.multiArray || feature.multiArray->shape.empty()) return std::nullopt;
    for (std::int64_t dim : feature.multiArray->shape) {
      if (dim < 1) return std::nullopt;
    }
    auto type = *scalarTypeOf(feature.multiArray->dataType);
    args.emplace_back(at::full(feature.multiArray->shape, 0.5, at::TensorOptions().dtype(type)));
  }
  return args;
}

// Seconds of the third forward: the first two run the profiling executor's recording and
// optimising passes.
double steadyForwardSeconds(torch::jit::Module& module, const std::vector<c10::IValue>& args) {
  double seconds = 0;
  for (int run = 0; run < 3; ++run) {
    auto start = std::chrono::steady_clock::now();
    module.forward(args);
    seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }
  return seconds;
}

// optimize_for_inference (oneDNN layouts, fused operators) speeds some graphs up and slows
// others down (a small convolutional decoder here), so it replaces the frozen module only where
// a quick measurement on a synthetic input shows it at least 10% faster. Its result cannot be
// saved: the choice is made again at every load, never cached. Any failure keeps the plain
// module.
bool optimizeWhereFaster(torch::jit::Module& module, const ModelDescription& description) {
  auto args = timingInputs(description);
  if (!args) return false;
  try {
    c10::InferenceMode inferenceMode;
    torch::jit::Module candidate = module.clone();  // optimising a frozen module works in place
    candidate = torch::jit::optimize_for_inference(candidate);
    double plain = steadyForwardSeconds(module, *args);
    double optimized = steadyForwardSeconds(candidate, *args);
    if (optimized < 0.9 * plain) {
      module = candidate;
      return true;
    }
  } catch (const std::exception&) {
    // Not optimisable, or it fails on this input: the plain module stays.
  }
  return false;
}

}  // namespace

struct GraphModel::Impl {
  torch::jit::Module module;
  ModelDescription description;
  ComputeUnits units = ComputeUnits::cpuOnly;
  c10::Device device{c10::kCPU};
  std::string label;  // the compiled directory's name, for error texts
  bool optimized = false;
  // No lock: one graph serves several engines, each predicting from its own processing thread,
  // and their predictions run side by side. That is safe because nothing here changes once load
  // returns: the module is frozen and in eval mode, so forward writes no parameter, buffer or
  // attribute; the executor's own plan and profiling state are guarded inside LibTorch; every
  // input is the caller's own array, and an output that shares storage with the module is copied
  // out (outputArray).
};

GraphModel::GraphModel(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
GraphModel::~GraphModel() = default;

const ModelDescription& GraphModel::description() const { return impl_->description; }
ComputeUnits GraphModel::computeUnits() const { return impl_->units; }
std::string GraphModel::deviceName() const { return impl_->device.str(); }
bool GraphModel::optimizedForInference() const { return impl_->optimized; }

std::shared_ptr<GraphModel> GraphModel::load(const fs::path& compiled, ComputeUnits units,
                                             std::string* error) {
  std::string why;
  try {
    configureThreadsOnce(0);
    auto impl = std::make_unique<Impl>();
    impl->units = units;
    impl->label = compiled.filename().string();
    auto description = ModelDescription::read(compiled / "io.json", &why);
    if (!description) throw std::runtime_error(why);
    impl->description = std::move(*description);
    impl->device = deviceFor(units);
    impl->module = torch::jit::load((compiled / "model.pt").string(), impl->device);
    impl->module.eval();
    // forward must take exactly the described inputs: a mismatch would only surface as a
    // confusing failure at the first prediction.
    auto method = impl->module.find_method("forward");
    if (!method) throw std::runtime_error("the module has no forward method");
    std::size_t arity = method->function().getSchema().arguments().size() - 1;  // minus self
    if (arity != impl->description.inputs.size()) {
      throw std::runtime_error("forward takes " + std::to_string(arity) +
                               " inputs, io.json describes " +
                               std::to_string(impl->description.inputs.size()));
    }
    if (impl->device.is_cpu()) {
      impl->optimized = optimizeWhereFaster(impl->module, impl->description);
    }
    return std::shared_ptr<GraphModel>(new GraphModel(std::move(impl)));
  } catch (const c10::Error& e) {
    why = torchText(e);
  } catch (const std::exception& e) {
    why = e.what();
  }
  if (error != nullptr) *error = why;
  return nullptr;
}

namespace {

// The shape a graph described as `described` takes or gives `batch` deep: a leading 1 (the
// batch dimension of every graph that has one) becomes `batch`.
std::vector<std::int64_t> batched(std::vector<std::int64_t> described, std::int64_t batch) {
  if (batch != 1 && !described.empty() && described[0] == 1) described[0] = batch;
  return described;
}

bool fitsShape(const std::vector<std::int64_t>& want, const std::vector<std::int64_t>& shape) {
  bool fits = want.size() == shape.size();
  for (std::size_t i = 0; fits && i < want.size(); ++i) fits = want[i] <= 0 || want[i] == shape[i];
  return fits;
}

at::Tensor inputTensor(const FeatureDescription& feature, const MultiArray& array,
                       const std::string& label, std::int64_t batch) {
  if (array.isNull()) {
    throw PredictionError("graph " + label + ": input \"" + feature.name + "\" has no storage");
  }
  if (feature.multiArray) {
    const auto& want = *feature.multiArray;
    if (array.dataType() != want.dataType) {
      throw PredictionError("graph " + label + ": input \"" + feature.name + "\" is " +
                            std::string(dataTypeName(array.dataType())) + ", the graph takes " +
                            std::string(dataTypeName(want.dataType)));
    }
    const std::vector<std::int64_t> shape = batched(want.shape, batch);
    if (!want.shape.empty() && !fitsShape(shape, array.shape())) {
      throw PredictionError("graph " + label + ": input \"" + feature.name + "\" has shape " +
                            shapeText(array.shape()) + ", the graph takes " + shapeText(shape));
    }
  }
  // The tensor reads the caller's elements in place and holds their owner, so that an output
  // that aliases an input outlives the caller's array safely.
  auto options = at::TensorOptions().dtype(*scalarTypeOf(array.dataType()));
  return torch::from_blob(
      array.data(), array.shape(), [owner = array.storage()](void*) {}, options);
}

MultiArray outputArray(at::Tensor t, const std::string& name, const std::string& label) {
  auto type = arrayTypeOf(t.scalar_type());
  if (!type) {
    throw PredictionError("graph " + label + ": output \"" + name + "\" has the unsupported type " +
                          std::string(c10::toString(t.scalar_type())));
  }
  t = t.to(at::kCPU).contiguous();
  // An output that shares its elements with anything else (a frozen constant, another output)
  // is copied, so that writing into the result can never reach the graph.
  if (t.use_count() > 1 || t.storage().use_count() > 1) t = t.clone();
  auto holder = std::make_shared<at::Tensor>(t);
  std::shared_ptr<void> storage(holder, t.data_ptr());
  return MultiArray::wrap(*type, t.sizes().vec(), std::move(storage));
}

// A result must be what io.json promises before anything downstream reads it: a decoder that
// returned float32 or a smaller picture would otherwise send the frame path past its buffers.
// Outputs described without a type and shape are taken as they come.
void checkOutput(const FeatureDescription& want, const MultiArray& array, const std::string& label,
                 std::int64_t batch) {
  if (!want.multiArray) return;
  const MultiArrayConstraint& c = *want.multiArray;
  if (array.dataType() != c.dataType) {
    throw PredictionError("graph " + label + ": output \"" + want.name + "\" is " +
                          std::string(dataTypeName(array.dataType())) + ", io.json describes " +
                          std::string(dataTypeName(c.dataType)));
  }
  if (c.shape.empty()) return;  // unspecified shape
  const std::vector<std::int64_t> shape = batched(c.shape, batch);
  if (!fitsShape(shape, array.shape())) {
    throw PredictionError("graph " + label + ": output \"" + want.name + "\" has shape " +
                          shapeText(array.shape()) + ", io.json describes " + shapeText(shape));
  }
}

}  // namespace

FeatureSet GraphModel::predict(const FeatureSet& inputs) const { return predict(inputs, 1); }

FeatureSet GraphModel::predict(const FeatureSet& inputs, std::int64_t batch) const {
  if (batch < 1) {
    throw PredictionError("graph " + impl_->label + ": a batch of " + std::to_string(batch));
  }
  const PredictTimer timer;
  const Impl& g = *impl_;
  c10::InferenceMode inferenceMode;  // per-prediction tensors live only in this scope
  std::vector<c10::IValue> args;
  args.reserve(g.description.inputs.size());
  for (const auto& feature : g.description.inputs) {
    const MultiArray* array = inputs.find(feature.name);
    if (array == nullptr) {
      throw PredictionError("graph " + g.label + ": missing input \"" + feature.name + "\"");
    }
    at::Tensor t = inputTensor(feature, *array, g.label, batch);
    args.emplace_back(g.device.is_cpu() ? t : t.to(g.device));
  }
  std::vector<at::Tensor> results;
  try {
    c10::IValue out = const_cast<torch::jit::Module&>(g.module).forward(std::move(args));
    args.clear();
    if (out.isTensor()) {
      results.push_back(out.toTensor());
    } else if (out.isTuple()) {
      for (const auto& element : out.toTupleRef().elements()) {
        if (!element.isTensor()) {
          throw PredictionError("graph " + g.label + ": forward returned a non-tensor output");
        }
        results.push_back(element.toTensor());
      }
    } else {
      throw PredictionError("graph " + g.label + ": forward returned " + out.tagKind() +
                            ", not a tensor or a tuple of tensors");
    }
  } catch (const PredictionError&) {
    throw;
  } catch (const c10::Error& e) {
    throw PredictionError("graph " + g.label + ": prediction failed: " + torchText(e));
  } catch (const std::exception& e) {
    // The TorchScript interpreter reports some failures as std::runtime_error with its trace.
    throw PredictionError("graph " + g.label + ": prediction failed: " + e.what());
  }
  if (results.size() != g.description.outputs.size()) {
    throw PredictionError("graph " + g.label + ": forward returned " +
                          std::to_string(results.size()) + " outputs, io.json describes " +
                          std::to_string(g.description.outputs.size()));
  }
  FeatureSet named;
  for (std::size_t i = 0; i < results.size(); ++i) {
    const FeatureDescription& want = g.description.outputs[i];
    at::Tensor t = std::move(results[i]);
    results[i] = at::Tensor();
    MultiArray array = outputArray(std::move(t), want.name, g.label);
    checkOutput(want, array, g.label, batch);
    named.set(want.name, std::move(array));
  }
  return named;
}

MultiArray GraphModel::predictFirst(const FeatureSet& inputs, std::int64_t batch) const {
  FeatureSet all = predict(inputs, batch);
  const FeatureDescription* first = impl_->description.firstOutput();
  return all.at(first->name);  // predict guarantees one result per described output
}

std::chrono::nanoseconds GraphModel::predictTimeTotal() {
  return std::chrono::nanoseconds(gPredictNanos.load(std::memory_order_relaxed));
}

std::optional<fs::path> compileModelPackage(const fs::path& package, std::string* error) {
  ++gCompileCount;
  std::string why;
  std::optional<fs::path> dir;
  try {
    configureThreadsOnce(0);
    if (!ModelDescription::read(package / "io.json", &why)) throw std::runtime_error(why);
    torch::jit::Module module = torch::jit::load((package / "model.pt").string(), torch::kCPU);
    module.eval();
    torch::jit::Module frozen = torch::jit::freeze(module);
    dir = makeTempDir(&why);
    if (!dir) throw std::runtime_error(why);
    frozen.save((*dir / "model.pt").string());
    fs::copy_file(package / "io.json", *dir / "io.json");
    return dir;
  } catch (const c10::Error& e) {
    why = torchText(e);
  } catch (const std::exception& e) {
    why = e.what();
  }
  if (dir) removeTreeQuietly(*dir);
  if (error != nullptr) *error = why;
  return std::nullopt;
}

std::size_t compileCount() { return gCompileCount.load(); }

void configureComputeThreads(int threads) { configureThreadsOnce(threads); }

}  // namespace lumora2
