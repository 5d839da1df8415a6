// One avatar's members: the idle clip's first picture, the decoder and the canonical frame.
#include "engine/avatar_model.h"

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
