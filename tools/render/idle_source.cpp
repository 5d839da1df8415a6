#include "idle_source.h"

#include <fstream>

#include "client_error.h"
#include "container/archive.h"
#include "container/imx.h"
#include "engine/idle_clip_stream.h"
#include "signal_cleanup.h"

namespace lumora2::render {
namespace {

constexpr const char* kClipName = "idle.mp4";

// Copies the avatar's idle clip to `dir`/idle.mp4 and returns that path.
std::filesystem::path extractClip(const std::filesystem::path& avatar,
                                  const std::filesystem::path& dir) {
  const std::filesystem::path clip = dir / kClipName;
  try {
    if (Lumora2Container::isContainer(avatar)) {
      const std::string bytes = Lumora2Container::read(kClipName, avatar);
      std::ofstream out(clip, std::ios::binary);
      out.write(bytes.data(), std::streamsize(bytes.size()));
      if (!out.flush()) throw ClientError("cannot write " + clip.string());
    } else if (Lumora2Container::isLegacyZip(avatar)) {
      Archive::unzip(avatar, dir);
      // Only the clip stays, so that the directory empties with it.
      for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        if (entry.path().filename() != kClipName) std::filesystem::remove_all(entry.path());
      }
    } else {
      throw ClientError(avatar.string() + " is not an avatar file");
    }
  } catch (const ClientError&) {
    throw;
  } catch (const std::exception& e) {
    throw ClientError("cannot read the idle clip of " + avatar.string() + ": " + e.what());
  }
  if (!std::filesystem::is_regular_file(clip)) {
    throw ClientError(avatar.string() + " holds no " + kClipName);
  }
  return clip;
}

}  // namespace

IdleSource::IdleSource(const std::filesystem::path& avatar, int width, int height)
    : scratch_("lumora2-render-idle-") {
  signal_cleanup::setIdleClip(scratch_.path() / kClipName, scratch_.path());
  auto [clip, why] = IdleClipStream::open(extractClip(avatar, scratch_.path()), width, height);
  if (!clip) throw ClientError("the idle clip of " + avatar.string() + ": " + why.value_or("?"));
  clip_ = std::move(clip);
  frame_.resize(std::size_t(width) * std::size_t(height) * 3);
  const std::vector<std::uint8_t>& bgr = clip_->firstFrameBGR();
  for (std::size_t i = 0; i + 2 < frame_.size() && i + 2 < bgr.size(); i += 3) {
    frame_[i] = bgr[i + 2];
    frame_[i + 1] = bgr[i + 1];
    frame_[i + 2] = bgr[i];
  }
}

IdleSource::~IdleSource() { signal_cleanup::setIdleClip({}, {}); }

const std::vector<std::uint8_t>& IdleSource::next() {
  std::optional<PixelBuffer> picture = clip_->next();
  if (!picture || !picture->bytes) return frame_;
  const std::uint8_t* src = picture->bytes->data();
  std::uint8_t* dst = frame_.data();
  for (int y = 0; y < picture->height; ++y) {
    const std::uint8_t* row = src + std::size_t(y) * picture->stride;
    for (int x = 0; x < picture->width; ++x, dst += 3) {
      dst[0] = row[4 * x + 2];
      dst[1] = row[4 * x + 1];
      dst[2] = row[4 * x];
    }
  }
  return frame_;
}

}  // namespace lumora2::render
