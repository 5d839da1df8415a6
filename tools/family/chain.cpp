#include "family/chain.h"

#include <cstring>
#include <utility>

#include "family/graphs.h"
#include "family/latent.h"
#include "family/modules.h"
#include "family/portrait.h"

namespace lumora2::family {

namespace fs = std::filesystem;

Chain::Chain(torch::jit::Module frontEnd, torch::jit::Module tokenizer, torch::jit::Module student,
             torch::jit::Module decoder)
    : frontEnd_(std::move(frontEnd)),
      tokenizer_(std::move(tokenizer)),
      student_(std::move(student)),
      decoder_(std::move(decoder)) {}

torch::jit::Module Chain::loadFrozen(const fs::path& packageDir, const torch::Device& device) {
  torch::jit::Module m = torch::jit::load((packageDir / "model.pt").string(), device);
  m.eval();
  return torch::jit::freeze(m);
}

Chain Chain::load(const fs::path& engineDir, const fs::path& avatarDir,
                  const torch::Device& device) {
  auto package = [](const fs::path& dir, std::string_view name) {
    return dir / (std::string(name) + ".mlpackage");
  };
  return Chain(loadFrozen(package(engineDir, kFrontEndPackage), device),
               loadFrozen(package(engineDir, kTokenizerPackage), device),
               loadFrozen(package(engineDir, kStudentPackage), device),
               loadFrozen(package(avatarDir, kDecoderPackage), device));
}

torch::Tensor Chain::seedContext(const std::vector<float>& canon) {
  torch::Tensor planes =
      torch::from_blob(const_cast<float*>(canon.data()),
                       {1, kLatentChannels, 1, kLatentHeight, kLatentWidth}, torch::kFloat32);
  return planes.expand({1, kLatentChannels, kContextSlots, kLatentHeight, kLatentWidth})
      .contiguous();
}

torch::Tensor Chain::features(const torch::Tensor& iv) {
  return frontEnd_.forward({iv}).toTensor();
}

torch::Tensor Chain::tokens(const torch::Tensor& features) {
  return tokenizer_.forward({features}).toTensor();
}

torch::Tensor Chain::step(torch::Tensor& context, const torch::Tensor& tokens, int index) {
  const torch::Tensor token = tokens.select(1, index).contiguous();  // [1, 16, 384]
  torch::Tensor latent = student_.forward({context, token}).toTensor();
  using torch::indexing::Slice;
  context = torch::cat(
      {context.index({Slice(), Slice(), Slice(1, kContextSlots)}), latent.unsqueeze(2)}, 2);
  return latent;
}

torch::Tensor Chain::picture(const torch::Tensor& current, const torch::Tensor& previous,
                             int phase) {
  torch::Tensor onehot =
      torch::zeros({1, 4, kLatentHeight, kLatentWidth}, torch::device(current.device()));
  onehot.select(1, phase).fill_(1.0f);
  const torch::Tensor x = torch::cat({current, previous, onehot}, 1);
  return decoder_.forward({x}).toTensor();
}

std::vector<torch::Tensor> Chain::chunk(const torch::Tensor& iv, torch::Tensor& context,
                                        torch::Tensor& previous, int firstToken, int count) {
  const torch::Tensor toks = tokens(features(iv));
  std::vector<torch::Tensor> pictures;
  pictures.reserve(static_cast<size_t>(count) * 4);
  for (int i = 0; i < count; ++i) {
    torch::Tensor latent = step(context, toks, firstToken + i);
    if (!previous.defined()) previous = latent;
    for (int phase = 0; phase < 4; ++phase) pictures.push_back(picture(latent, previous, phase));
    previous = latent;
  }
  return pictures;
}

std::vector<std::vector<std::uint8_t>> renderIdleFrames(const Identity& id, int tokens) {
  torch::NoGradGuard noGrad;
  Chain chain(makeFrontEnd(false), makeTokenizer(), makeStudent(false),
              makeDecoder(id, false, DecoderKind::kNormal));
  const std::vector<float> canon = canonLatent(id);
  torch::Tensor context = Chain::seedContext(canon);
  const torch::Tensor silence = chain.tokens(chain.features(torch::zeros({1, kWindowSamples})));
  torch::Tensor previous;
  std::vector<std::vector<std::uint8_t>> frames;
  for (int t = 0; t < tokens; ++t) {
    torch::Tensor latent = chain.step(context, silence, 6);
    if (!previous.defined()) previous = latent;
    for (int phase = 0; phase < 4; ++phase) {
      const torch::Tensor rgb = chain.picture(latent, previous, phase).to(torch::kFloat32);
      Picture pic;
      std::memcpy(pic.planes.data(), rgb.contiguous().data_ptr<float>(),
                  pic.planes.size() * sizeof(float));
      frames.push_back(toRgb24(pic, 0.8f));
    }
    previous = latent;
  }
  return frames;
}

}  // namespace lumora2::family
