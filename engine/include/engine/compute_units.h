// The compute units a graph may be loaded on, under their four fixed names.
#pragma once

#include <optional>
#include <string_view>

namespace lumora2 {

// "cpuOnly", "cpuAndGPU", "all", "cpuAndNE". On this platform cpuOnly always runs on the CPU and
// the other three run on CUDA when LibTorch has it, else on the CPU.
enum class ComputeUnits { cpuOnly, cpuAndGPU, all, cpuAndNeuralEngine };

// Exactly the four names, case-sensitive, no trimming.
std::optional<ComputeUnits> computeUnitsNamed(std::string_view name);
std::string_view computeUnitsName(ComputeUnits units);

}  // namespace lumora2
