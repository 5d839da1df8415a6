#include "support/package_maker.h"

#include <ATen/CPUGeneratorImpl.h>
#include <torch/script.h>

#include <fstream>
#include <stdexcept>

namespace lumora2::testing {

namespace fs = std::filesystem;

void writeScriptPackage(const fs::path& dir, const std::string& source, const std::string& ioJson,
                        const std::vector<Weight>& weights) {
  fs::create_directories(dir);
  try {
    torch::jit::Module module("Graph");
    for (const Weight& w : weights) {
      at::Tensor t;
      if (!w.values.empty()) {
        t = torch::tensor(w.values, torch::kFloat).reshape(w.shape).clone();
      } else if (w.random) {
        auto generator = at::make_generator<at::CPUGeneratorImpl>(w.seed);
        t = torch::rand(w.shape, generator, torch::kFloat);
      } else {
        t = torch::full(w.shape, w.fill, torch::kFloat);
      }
      module.register_parameter(w.name, t, /*is_buffer=*/false);
    }
    module.define(source);
    module.save((dir / "model.pt").string());
  } catch (const c10::Error& e) {
    throw std::runtime_error(e.what_without_backtrace());
  }
  std::ofstream(dir / "io.json", std::ios::binary) << ioJson;
}

std::string feature(const std::string& name, const std::string& shape, const std::string& dtype) {
  return R"({"name":")" + name + R"(","shape":)" + shape + R"(,"dtype":")" + dtype + R"("})";
}

std::string io(const std::string& inputs, const std::string& outputs) {
  return R"({"inputs":[)" + inputs + R"(],"outputs":[)" + outputs + "]}";
}

std::string simpleIo(const std::string& shape) {
  return io(feature("x", shape), feature("y", shape));
}

std::shared_ptr<GraphModel> makeGraph(const fs::path& dir, const std::string& source,
                                      const std::string& ioJson, const std::vector<Weight>& weights,
                                      ComputeUnits units) {
  writeScriptPackage(dir, source, ioJson, weights);
  auto compiled = compileModelPackage(dir);
  return compiled ? GraphModel::load(*compiled, units) : nullptr;
}

}  // namespace lumora2::testing
