#include "family/modules.h"

#include <ATen/CPUGeneratorImpl.h>

#include <cmath>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "family/chain.h"
#include "family/graph_sources.h"
#include "family/latent.h"
#include "family/portrait.h"

namespace lumora2::family {
namespace {

namespace fs = std::filesystem;

// Fixed seeds: the same build writes byte-identical packages.
constexpr std::uint64_t kCodeSeed = 0x4c756d6f72610001ull;
constexpr std::uint64_t kHeavySeed = 0x4c756d6f72610002ull;

torch::Tensor normal(at::Generator& gen, at::IntArrayRef shape, double scale) {
  return torch::randn(shape, gen) * scale;
}

// The codes the front end, tokenizer and student share: how loudness is spread over the
// features and over a token. Every graph derives them from the same seed.
struct Codes {
  torch::Tensor featDir, featBias, tokDir, tokBias;
};

const Codes& codes() {
  static const Codes c = [] {
    at::Generator gen = at::make_generator<at::CPUGeneratorImpl>(kCodeSeed);
    Codes k;
    k.featDir = normal(gen, {12 * 768}, 0.5);
    k.featBias = normal(gen, {12 * 768}, 0.1);
    k.tokDir = normal(gen, {kTokenFloats}, 0.5);
    k.tokBias = normal(gen, {kTokenFloats}, 0.1);
    return k;
  }();
  return c;
}

torch::Tensor dual(const torch::Tensor& direction) { return direction / direction.dot(direction); }

torch::Tensor rgbColumn(Rgb c) { return torch::tensor({c.r, c.g, c.b}).reshape({3, 1, 1}); }

torch::Tensor fromVector(const std::vector<float>& v, at::IntArrayRef shape) {
  return torch::from_blob(const_cast<float*>(v.data()), {static_cast<std::int64_t>(v.size())},
                          torch::kFloat32)
      .clone()
      .reshape(shape);
}

void addFloat(torch::jit::Module& m, const std::string& name, double value) {
  m.register_attribute(name, c10::FloatType::get(), value);
}

void addInt(torch::jit::Module& m, const std::string& name, std::int64_t value) {
  m.register_attribute(name, c10::IntType::get(), value);
}

void addHeavyFrontEnd(torch::jit::Module& m) {
  at::Generator gen = at::make_generator<at::CPUGeneratorImpl>(kHeavySeed);
  m.register_buffer("conv0_w", normal(gen, {512, 1, 10}, std::sqrt(2.0 / 10)));
  m.register_buffer("conv3_w", normal(gen, {512, 512, 3}, std::sqrt(2.0 / 1536)));
  m.register_buffer("conv2_w", normal(gen, {512, 512, 2}, std::sqrt(2.0 / 1024)));
  m.register_buffer("proj_w", normal(gen, {512, 768}, std::sqrt(1.0 / 512)));
  m.register_buffer("proj_b", torch::zeros({768}));
  m.register_buffer("ln1_w", torch::ones({768}));
  m.register_buffer("ln1_b", torch::zeros({768}));
  m.register_buffer("wqkv", normal(gen, {768, 3 * 768}, std::sqrt(1.0 / 768)));
  m.register_buffer("bqkv", torch::zeros({3 * 768}));
  m.register_buffer("wo", normal(gen, {768, 768}, std::sqrt(1.0 / 768)));
  m.register_buffer("bo", torch::zeros({768}));
  m.register_buffer("ln2_w", torch::ones({768}));
  m.register_buffer("ln2_b", torch::zeros({768}));
  m.register_buffer("w1", normal(gen, {768, 3072}, std::sqrt(2.0 / 768)));
  m.register_buffer("b1", torch::zeros({3072}));
  m.register_buffer("w2", normal(gen, {3072, 768}, 0.5 * std::sqrt(1.0 / 3072)));
  m.register_buffer("b2", torch::zeros({768}));
}

// The mouth's box: its background, the lips' shape across it and its colours.
void addMouthBuffers(torch::jit::Module& m, const Identity& id, const torch::Tensor& base,
                     const FaceRegions& r) {
  using torch::indexing::Slice;
  m.register_buffer(
      "mouth_bg",
      base.index({Slice(), Slice(r.mouth.y0, r.mouth.y1), Slice(r.mouth.x0, r.mouth.x1)}).clone());
  std::vector<float> shape(r.mouth.width()), ends(r.mouth.width()), mv(r.mouth.height());
  for (int i = 0; i < r.mouth.width(); ++i) {
    const float u = (static_cast<float>(r.mouth.x0 + i) + 0.5f - id.faceCx) / id.mouthHalfWidth;
    shape[i] = std::sqrt(std::max(1.0f - u * u, 0.0f));
    ends[i] = std::clamp((1.0f - std::abs(u)) * id.mouthHalfWidth + 0.5f, 0.0f, 1.0f);
  }
  for (int j = 0; j < r.mouth.height(); ++j) {
    mv[j] = static_cast<float>(r.mouth.y0 + j) + 0.5f - id.mouthY;
  }
  m.register_buffer("mouth_shape", fromVector(shape, {1, r.mouth.width()}));
  m.register_buffer("mouth_ends", fromVector(ends, {1, r.mouth.width()}));
  m.register_buffer("mouth_v", fromVector(mv, {r.mouth.height(), 1}));
  m.register_buffer("lip_rgb", rgbColumn(id.lips));
  m.register_buffer("inside_rgb", rgbColumn(id.mouthInside));
  m.register_buffer("teeth_rgb", rgbColumn(id.teeth));
  addFloat(m, "open_px", id.mouthOpenPx);
  addFloat(m, "lip_px", id.lipPx);
  addFloat(m, "seam_px", 0.6);
}

// The eyes' box: its background, where each eye's white and lid fall, and their colours.
void addEyeBuffers(torch::jit::Module& m, const Identity& id, const torch::Tensor& base,
                   const FaceRegions& r) {
  using torch::indexing::Slice;
  m.register_buffer(
      "eye_bg",
      base.index({Slice(), Slice(r.eyes.y0, r.eyes.y1), Slice(r.eyes.x0, r.eyes.x1)}).clone());
  const float leftX = id.faceCx - id.eyeDx, rightX = id.faceCx + id.eyeDx;
  std::vector<float> xl(r.eyes.width()), xr(r.eyes.width()), ey(r.eyes.height());
  std::vector<float> sclera(static_cast<size_t>(r.eyes.width()) * r.eyes.height());
  std::vector<float> lidMask(sclera.size());
  for (int i = 0; i < r.eyes.width(); ++i) {
    const float px = static_cast<float>(r.eyes.x0 + i) + 0.5f;
    xl[i] = px - leftX;
    xr[i] = px - rightX;
  }
  for (int j = 0; j < r.eyes.height(); ++j) {
    const float py = static_cast<float>(r.eyes.y0 + j) + 0.5f;
    ey[j] = py - id.eyeY;
    for (int i = 0; i < r.eyes.width(); ++i) {
      const float px = static_cast<float>(r.eyes.x0 + i) + 0.5f;
      const size_t k = static_cast<size_t>(j) * r.eyes.width() + i;
      sclera[k] = std::max(ellipseCoverage(px, py, leftX, id.eyeY, id.eyeRx, id.eyeRy),
                           ellipseCoverage(px, py, rightX, id.eyeY, id.eyeRx, id.eyeRy));
      lidMask[k] =
          std::max(ellipseCoverage(px, py, leftX, id.eyeY, id.eyeRx + 1.0f, id.eyeRy + 1.0f),
                   ellipseCoverage(px, py, rightX, id.eyeY, id.eyeRx + 1.0f, id.eyeRy + 1.0f));
    }
  }
  m.register_buffer("eye_xl", fromVector(xl, {1, r.eyes.width()}));
  m.register_buffer("eye_xr", fromVector(xr, {1, r.eyes.width()}));
  m.register_buffer("eye_y", fromVector(ey, {r.eyes.height(), 1}));
  m.register_buffer("sclera", fromVector(sclera, {r.eyes.height(), r.eyes.width()}));
  m.register_buffer("lid_mask", fromVector(lidMask, {r.eyes.height(), r.eyes.width()}));
  m.register_buffer("white_rgb", rgbColumn({0.97f, 0.96f, 0.94f}));
  m.register_buffer("iris_rgb", rgbColumn(id.iris));
  m.register_buffer("pupil_rgb", rgbColumn({0.05f, 0.04f, 0.04f}));
  m.register_buffer("lid_rgb", rgbColumn(id.skin));
  m.register_buffer("lash_rgb", rgbColumn({id.brow.r * 0.6f, id.brow.g * 0.6f, id.brow.b * 0.6f}));
  addFloat(m, "iris_r", id.irisR);
  addFloat(m, "pupil_r", id.irisR * 0.45f);
  addFloat(m, "eye_ry", id.eyeRy);
  addFloat(m, "gaze_px", 4.0);
}

// The still portrait and the geometry the decoder draws eyes and mouth with.
void addDecoderPicture(torch::jit::Module& m, const Identity& id, bool heavy) {
  const Picture portrait = drawPortrait(id);
  const torch::Tensor base = fromVector(portrait.planes, {3, kPictureHeight, kPictureWidth});
  if (heavy) {
    m.register_buffer("base_f", base);
  } else {
    m.register_buffer("base_h", base.to(torch::kHalf));
  }
  m.register_buffer("phase_weight", torch::tensor({0.25f, 0.5f, 0.75f, 1.0f}));

  const FaceRegions r = faceRegions(id);
  addInt(m, "mx0", r.mouth.x0);
  addInt(m, "mx1", r.mouth.x1);
  addInt(m, "my0", r.mouth.y0);
  addInt(m, "my1", r.mouth.y1);
  addInt(m, "ex0", r.eyes.x0);
  addInt(m, "ex1", r.eyes.x1);
  addInt(m, "ey0", r.eyes.y0);
  addInt(m, "ey1", r.eyes.y1);

  addMouthBuffers(m, id, base, r);
  addEyeBuffers(m, id, base, r);
}

void addHeavyDecoder(torch::jit::Module& m, const Identity& id) {
  at::Generator gen = at::make_generator<at::CPUGeneratorImpl>(kHeavySeed ^ id.seed);
  m.register_buffer("r0_w", normal(gen, {32, 3, 3, 3}, std::sqrt(2.0 / 27)));
  m.register_buffer("r0_b", torch::zeros({32}));
  m.register_buffer("r1_w", normal(gen, {32, 32, 3, 3}, std::sqrt(2.0 / 288)));
  m.register_buffer("r1_b", torch::zeros({32}));
  m.register_buffer("r2_w", normal(gen, {3, 32, 3, 3}, std::sqrt(1.0 / 288)));
  m.register_buffer("r2_b", torch::zeros({3}));
}

nlohmann::json toJson(const std::vector<IoFeature>& features) {
  nlohmann::json list = nlohmann::json::array();
  for (const IoFeature& f : features) {
    list.push_back({{"name", f.name}, {"shape", f.shape}, {"dtype", f.dtype}});
  }
  return list;
}

}  // namespace

torch::jit::Module makeFrontEnd(bool heavy) {
  torch::jit::Module m("W2vFrontend");
  m.register_buffer("feat_dir", codes().featDir.clone());
  m.register_buffer("feat_bias", codes().featBias.clone());
  if (heavy) addHeavyFrontEnd(m);
  m.define(frontEndSource(heavy));
  m.eval();
  return m;
}

torch::jit::Module makeTokenizer() {
  torch::jit::Module m("AudioTokenizer");
  m.register_buffer("feat_bias", codes().featBias.clone());
  m.register_buffer("feat_dual", dual(codes().featDir));
  // Token t averages frames 4t .. 4t+3; the last token averages the three frames that remain.
  torch::Tensor pool = torch::zeros({kTokens, kFeatureFrames});
  for (int t = 0; t < kTokens; ++t) {
    const int first = 4 * t, last = std::min(4 * t + 4, kFeatureFrames);
    pool.index_put_({t, torch::indexing::Slice(first, last)}, 1.0 / (last - first));
  }
  m.register_buffer("pool", pool);
  m.register_buffer("tok_dir", codes().tokDir.clone());
  m.register_buffer("tok_bias", codes().tokBias.clone());
  m.define(tokenizerSource());
  m.eval();
  return m;
}

torch::jit::Module makeStudent(bool faulty) {
  torch::jit::Module m("StudentForwardFrame");
  m.register_buffer("tok_bias", codes().tokBias.clone());
  m.register_buffer("tok_dual", dual(codes().tokDir));
  const double sway = 2.0 * kPi / Motion::kSwayPeriodTokens;
  addFloat(m, "follow", Motion::kFollow);
  addFloat(m, "open_floor", Motion::kOpenFloor);
  addFloat(m, "open_gain", Motion::kOpenGain);
  addFloat(m, "sway_cos", std::cos(sway));
  addFloat(m, "sway_sin", std::sin(sway));
  addFloat(m, "blink_step", 1.0 / Motion::kBlinkPeriodTokens);
  m.define(studentSource(faulty));
  m.eval();
  return m;
}

torch::jit::Module makeDecoder(const Identity& id, bool heavy, DecoderKind kind) {
  torch::jit::Module m("DecoderP2V3");
  addDecoderPicture(m, id, heavy);
  if (heavy) addHeavyDecoder(m, id);
  if (kind == DecoderKind::kNan) {
    m.register_buffer(
        "nan_px", torch::full({1, 1, 1}, std::numeric_limits<float>::quiet_NaN()).to(torch::kHalf));
  }
  m.define(decoderSource(heavy, kind));
  m.eval();
  return m;
}

IoSpec frontEndIo() {
  return {{{"iv", {1, kWindowSamples}, "float32"}},
          {{"feats", {1, kFeatureFrames, 12, 768}, "float32"}}};
}

IoSpec tokenizerIo() {
  return {{{"feats", {1, kFeatureFrames, 12, 768}, "float32"}},
          {{"tokens", {1, kTokens, 16, 384}, "float32"}}};
}

IoSpec studentIo() {
  return {{{"ctx_lat", {1, kLatentChannels, kContextSlots, kLatentHeight, kLatentWidth}, "float32"},
           {"a_tok", {1, 16, 384}, "float32"}},
          {{"lat", {1, kLatentChannels, kLatentHeight, kLatentWidth}, "float32"}}};
}

IoSpec decoderIo() {
  return {{{"x", {1, 36, kLatentHeight, kLatentWidth}, "float32"}},
          {{"rgb", {1, 3, kPictureHeight, kPictureWidth}, "float16"}}};
}

void savePackage(torch::jit::Module& module, const fs::path& dir, std::string_view name,
                 const IoSpec& io) {
  const fs::path package = dir / (std::string(name) + ".mlpackage");
  fs::remove_all(package);
  fs::create_directories(package);
  module.save((package / "model.pt").string());
  const nlohmann::json desc = {{"inputs", toJson(io.inputs)}, {"outputs", toJson(io.outputs)}};
  std::ofstream out(package / "io.json", std::ios::trunc);
  out << desc.dump() << "\n";
  if (!out) throw std::runtime_error("cannot write " + (package / "io.json").string());
}

void writeEngineGraphs(const fs::path& engineDir, const GraphOptions& options) {
  torch::jit::Module frontEnd = makeFrontEnd(options.heavy);
  savePackage(frontEnd, engineDir, kFrontEndPackage, frontEndIo());
  torch::jit::Module tokenizer = makeTokenizer();
  savePackage(tokenizer, engineDir, kTokenizerPackage, tokenizerIo());
  torch::jit::Module student = makeStudent(options.faultyStudent);
  savePackage(student, engineDir, kStudentPackage, studentIo());
}

void writeDecoderGraph(const fs::path& avatarDir, const Identity& id, const GraphOptions& options) {
  torch::jit::Module decoder = makeDecoder(id, options.heavy, options.decoder);
  savePackage(decoder, avatarDir, kDecoderPackage, decoderIo());
}

std::optional<DecoderKind> parseDecoderKind(std::string_view text) {
  if (text == "normal") return DecoderKind::kNormal;
  if (text == "zeros") return DecoderKind::kZeros;
  if (text == "nan") return DecoderKind::kNan;
  return std::nullopt;
}

std::string_view decoderKindName(DecoderKind kind) {
  switch (kind) {
    case DecoderKind::kNormal:
      return "normal";
    case DecoderKind::kZeros:
      return "zeros";
    case DecoderKind::kNan:
      return "nan";
  }
  return "normal";
}

}  // namespace lumora2::family
