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

std::string simpleIo(const std::string& shape) {
  return R"({"inputs":[{"name":"x","shape":)" + shape +
         R"(,"dtype":"float32"}],"outputs":[{"name":"y","shape":)" + shape +
         R"(,"dtype":"float32"}]})";
}

}  // namespace lumora2::testing
