// One avatar's members: the idle clip's first picture, the decoder and the canonical frame.
#include "engine/avatar_model.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <exception>
#include <fstream>
#include <iterator>

#include "decoder_loading.h"
#include "engine/idle_clip_stream.h"
#include "engine/log.h"
#include "fs_ops.h"
#include "model_cache.h"

namespace lumora2 {
namespace {

constexpr int kWidth = 416;
constexpr int kHeight = 720;

// The whole file as little-endian 32-bit floats; a trailing partial float is ignored.
std::optional<std::vector<float>> readFloats(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::vector<float> values(bytes.size() / 4);
  for (std::size_t i = 0; i < values.size(); ++i) {
    const auto* b = reinterpret_cast<const unsigned char*>(bytes.data() + 4 * i);
    std::uint32_t bits = static_cast<std::uint32_t>(b[0]) | static_cast<std::uint32_t>(b[1]) << 8 |
                         static_cast<std::uint32_t>(b[2]) << 16 |
                         static_cast<std::uint32_t>(b[3]) << 24;
    std::memcpy(&values[i], &bits, sizeof bits);
  }
  return values;
}

// <dir>/<file> when it exists (any kind of object), else nothing.
std::optional<std::filesystem::path> member(const std::filesystem::path& dir, const char* file) {
  std::filesystem::path path = dir / file;
  if (!fsops::existsAnyKind(path)) return std::nullopt;
  return path;
}

// Whether `decoder` makes a batch of pictures in one run: two different inputs run together
// give, item by item, what each gives alone (within a step of an 8-bit picture). A decoder that
// refuses a batch, ignores all but its first item or mixes them does not.
bool takesBatch(const GraphModel& decoder) {
  if (decoder.description().inputs.size() != 1) return false;
  const FeatureDescription& input = decoder.description().inputs.front();
  if (!input.multiArray || input.multiArray->dataType != ArrayDataType::float32 ||
      input.multiArray->shape.size() < 2 || input.multiArray->shape[0] != 1) {
    return false;
  }
  std::vector<std::int64_t> shape = input.multiArray->shape;
  const MultiArray one(ArrayDataType::float32, shape);
  shape[0] = 2;
  const MultiArray two(ArrayDataType::float32, shape);
  const auto item = static_cast<std::size_t>(one.count());
  // Each item a latent pair of its own with its own phase (the last four planes' one-hot).
  const std::size_t plane = item / static_cast<std::size_t>(shape[1]);
  for (std::size_t k = 0; k < 2; ++k) {
    float* x = two.floats() + k * item;
    std::fill_n(x, item, k == 0 ? 0.2f : 0.7f);
    std::fill(x + item - 4 * plane, x + item, 0.0f);
    std::fill_n(x + item - (k == 0 ? 4 : 1) * plane, plane, 1.0f);
  }
  try {
    const MultiArray both = decoder.predictFirst(FeatureSet{{input.name, two}}, 2);
    if (both.shape().empty() || both.shape()[0] != 2 || both.dataType() != ArrayDataType::float16) {
      return false;
    }
    const std::size_t values = static_cast<std::size_t>(both.count()) / 2;
    for (std::size_t k = 0; k < 2; ++k) {
      std::copy_n(two.floats() + k * item, item, one.floats());
      const MultiArray alone = decoder.predictFirst(FeatureSet{{input.name, one}});
      if (static_cast<std::size_t>(alone.count()) != values) return false;
      for (std::size_t i = 0; i < values; ++i) {
        const float a = halfToFloat(alone.halves()[i]);
        const float b = halfToFloat(both.halves()[k * values + i]);
        if (!(std::abs(a - b) <= 1.0f / 256)) return false;
      }
    }
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace

std::shared_ptr<const AvatarModel> AvatarModel::load(const std::filesystem::path& dir,
                                                     const EngineSettings& settings) {
  try {
    std::shared_ptr<AvatarModel> avatar(new AvatarModel());
    avatar->dir_ = dir;
    // Only the first picture is kept: the engine shows it as the rest pose; parents that show
    // the clip itself read it on their own.
    auto [clip, why] = IdleClipStream::open(member(dir, "idle.mp4"), kWidth, kHeight, dir);
    avatar->idleUnavailable_ = why;
    if (!clip) {
      engineLog("[vivra] idle clip unavailable: " + why.value_or("?"));
    } else {
      avatar->idleFrame_ = clip->firstFrameBGR();
      engineLog("[vivra] idle clip open (" + std::to_string(clip->frameCount()) +
                " frames, streamed in place, wraps at the authored end) — playing as warmup "
                "backdrop");
    }

    std::optional<DecoderLoading::Loaded> decoder =
        DecoderLoading::loadDecp2(dir, settings, ModelCache(settings));
    if (!decoder) {
      engineLog(
          "[vivra] decp2 members missing/unloadable — REFUSING (taehv floor removed 2026-08-11, "
          "Stage B); re-provision dec_p2_v3_all.mlpackage for this identity "
          "(lumora2-model pack-avatar)");
      return nullptr;
    }
    avatar->decoder_ = std::move(decoder->model);
    avatar->decoderDesc_ = std::move(decoder->desc);
    avatar->decoderTakesBatch_ = takesBatch(*avatar->decoder_);

    std::optional<std::filesystem::path> canonPath = member(dir, "canon.f32");
    std::optional<std::vector<float>> canon = canonPath ? readFloats(*canonPath) : std::nullopt;
    if (!canon) {
      engineLog("[vivra] MISSING canon.f32");
      return nullptr;
    }
    avatar->canon_ = std::move(*canon);
    return avatar;
  } catch (const std::exception& e) {
    engineLog(std::string("[vivra] warmUp FAILED — ") + e.what());
    return nullptr;
  }
}

}  // namespace lumora2
