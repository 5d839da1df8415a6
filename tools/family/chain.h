// Runs the family's graphs the way the engine chains them: front end -> tokenizer -> one student
// step per token over the latent context -> four decoder phases per token. Used to render idle
// clips, by the tests and by the benchmark. Includes LibTorch.
#pragma once

#include <torch/script.h>

#include <filesystem>
#include <vector>

namespace lumora2::family {

// π for the files that include LibTorch: clang compiles those as C++17, which has no <numbers>.
inline constexpr double kPi = 3.14159265358979323846;

class Chain {
 public:
  Chain(torch::jit::Module frontEnd, torch::jit::Module tokenizer, torch::jit::Module student,
        torch::jit::Module decoder);

  // Loads the packages from an engine and an avatar directory, in eval mode and frozen, as the
  // engine's compiled-model cache holds them.
  // On a GPU the graphs are loaded onto it: a frozen graph holds its weights as constants, which
  // a later .to() would leave behind.
  static Chain load(const std::filesystem::path& engineDir, const std::filesystem::path& avatarDir,
                    const torch::Device& device = torch::kCPU);
  // model.pt of one package, in eval mode and frozen.
  static torch::jit::Module loadFrozen(const std::filesystem::path& packageDir,
                                       const torch::Device& device = torch::kCPU);

  // Every context slot holds the canonical latent (16 x 4,680 floats): [1, 16, 16, 90, 52].
  static torch::Tensor seedContext(const std::vector<float>& canon);

  torch::Tensor features(const torch::Tensor& iv);      // [1, 35200] -> [1, 55, 12, 768]
  torch::Tensor tokens(const torch::Tensor& features);  // -> [1, 14, 16, 384]
  // Predicts the latent for token `index` of `tokens` and shifts it into the context as its most
  // recent slot. Returns [1, 16, 90, 52].
  torch::Tensor step(torch::Tensor& context, const torch::Tensor& tokens, int index);
  // The decoder's picture between two latents at phase 0..3: [1, 3, 720, 416] float16.
  torch::Tensor picture(const torch::Tensor& current, const torch::Tensor& previous, int phase);

  // One chunk: features and tokens of the window `iv`, `count` student steps from token
  // `firstToken`, and four pictures per token (interpolated from `previous`, which is updated).
  // Returns the pictures.
  std::vector<torch::Tensor> chunk(const torch::Tensor& iv, torch::Tensor& context,
                                   torch::Tensor& previous, int firstToken, int count);

 private:
  torch::jit::Module frontEnd_, tokenizer_, student_, decoder_;
};

}  // namespace lumora2::family
