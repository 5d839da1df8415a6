// Writes real graph packages for tests and benchmarks: a TorchScript module defined from source
// text, with its parameters, saved as model.pt beside an io.json. The header keeps LibTorch out
// of the test files; only package_maker.cpp includes it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "engine/graph_model.h"

namespace lumora2::testing {

// A float32 tensor registered on the module under `name`: `values` when given (their count must
// match the shape), else uniform random numbers from `seed` when `random`, else all `fill`.
struct Weight {
  std::string name;
  std::vector<std::int64_t> shape;
  float fill = 0.0f;
  std::vector<float> values = {};
  bool random = false;
  std::uint64_t seed = 0;
};

// Creates `dir` with model.pt (methods from `source`, e.g. "def forward(self, x):\n  return x")
// and io.json (`ioJson` verbatim). Throws std::runtime_error when the source does not compile.
void writeScriptPackage(const std::filesystem::path& dir, const std::string& source,
                        const std::string& ioJson, const std::vector<Weight>& weights = {});

// io.json text: `feature` entries joined into the two lists.
std::string feature(const std::string& name, const std::string& shape,
                    const std::string& dtype = "float32");
std::string io(const std::string& inputs, const std::string& outputs);
// One float32 input "x" and one float32 output "y", both of `shape`.
std::string simpleIo(const std::string& shape);

// Writes the package at `dir`, compiles it and loads it on `units`; nothing when a step fails.
std::shared_ptr<GraphModel> makeGraph(const std::filesystem::path& dir, const std::string& source,
                                      const std::string& ioJson,
                                      const std::vector<Weight>& weights = {},
                                      ComputeUnits units = ComputeUnits::cpuOnly);

}  // namespace lumora2::testing
