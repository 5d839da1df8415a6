#include "idle_source.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <fstream>
#include <limits>

#include "client_error.h"
#include "container/archive.h"
#include "container/imx.h"
#include "container/platform.h"
#include "engine/idle_clip_stream.h"
#include "signal_cleanup.h"

namespace lumora2::render {
namespace {

constexpr const char* kClipName = "idle.mp4";
// Frames held at most (30 s at 20 fps, 270 MiB at 416 x 720); a longer clip loops over its start.
constexpr std::size_t kMaxFrames = 600;

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

// The size of the clip's first video stream as its header declares it; 0 x 0 when unknown (the
// reader then reports what is wrong).
std::pair<int, int> declaredSize(const std::filesystem::path& clip) {
  AVFormatContext* format = nullptr;
  if (avformat_open_input(&format, clip.c_str(), nullptr, nullptr) < 0) return {0, 0};
  std::pair<int, int> size{0, 0};
  if (avformat_find_stream_info(format, nullptr) >= 0) {
    for (unsigned i = 0; i < format->nb_streams; ++i) {
      const AVCodecParameters* p = format->streams[i]->codecpar;
      if (p->codec_type == AVMEDIA_TYPE_VIDEO) {
        size = {p->width, p->height};
        break;
      }
    }
  }
  avformat_close_input(&format);
  return size;
}

// A picture's thumbnail over the cells that move in the clip.
IdleSource::Likeness likenessOf(const std::vector<std::size_t>& moving, const Picture& picture) {
  const std::vector<std::uint8_t> t = thumbnail(picture);
  IdleSource::Likeness out;
  out.reserve(moving.size());
  for (std::size_t c : moving) out.push_back(c < t.size() ? t[c] : 0);
  return out;
}

}  // namespace

std::shared_ptr<const IdleSource::Clip> IdleSource::read(const std::filesystem::path& avatar,
                                                         int width, int height) {
  // The clip is read whole here, so its extracted copy lives only as long as this call.
  ScratchDir scratch("lumora2-render-idle-");
  signal_cleanup::setIdleClip(scratch.path() / kClipName, scratch.path());
  struct Unregister {
    ~Unregister() { signal_cleanup::setIdleClip({}, {}); }
  } unregister;
  const std::filesystem::path clipPath = extractClip(avatar, scratch.path());
  if (width == 0 || height == 0) std::tie(width, height) = declaredSize(clipPath);
  auto [clip, why] = IdleClipStream::open(clipPath, width, height);
  if (!clip) throw ClientError("the idle clip of " + avatar.string() + ": " + why.value_or("?"));

  PictureConverter converter(width, height, PictureConverter::Layout::bgra);
  std::vector<Picture> frames;
  while (frames.size() < kMaxFrames) {
    std::optional<PixelBuffer> bgra = clip->next();
    if (clip->wraps() > 0) break;
    if (!bgra || !bgra->bytes) continue;  // an unusable picture is left out
    converter.convert(bgra->bytes->data(), frames.emplace_back(width, height), bgra->stride);
  }
  if (frames.empty()) throw ClientError("the idle clip of " + avatar.string() + " has no frame");
  return fromFrames(std::move(frames));
}

std::shared_ptr<const IdleSource::Clip> IdleSource::fromFrames(std::vector<Picture> frames) {
  if (frames.empty()) throw ClientError("an idle clip without frames");
  for (const Picture& f : frames) {
    if (f.width != frames.front().width || f.height != frames.front().height ||
        f.bytes.size() != Picture::pictureBytes(f.width, f.height)) {
      throw ClientError("an idle clip whose frames differ in size");
    }
  }
  auto shared = std::make_shared<Clip>();
  Clip& out = *shared;
  out.frames = std::move(frames);

  // The moving parts: thumbnail cells whose level changes by kMovingLevels or more across the
  // clip. A clip that hardly moves is compared everywhere.
  constexpr int kMovingLevels = 4;
  std::vector<std::vector<std::uint8_t>> thumbs;
  for (const Picture& f : out.frames) thumbs.push_back(thumbnail(f));
  const std::size_t cells = thumbs.front().size();
  for (std::size_t cell = 0; cell < cells; ++cell) {
    int lo = 255, hi = 0;
    for (const auto& t : thumbs) {
      lo = std::min<int>(lo, t[cell]);
      hi = std::max<int>(hi, t[cell]);
    }
    if (hi - lo >= kMovingLevels) out.moving.push_back(cell);
  }
  if (out.moving.size() * 100 < cells) {
    out.moving.clear();
    for (std::size_t cell = 0; cell < cells; ++cell) out.moving.push_back(cell);
  }
  for (const Picture& f : out.frames) out.likenesses.push_back(likenessOf(out.moving, f));

  const std::size_t n = out.frames.size();
  out.distances.assign(n * n, 0.0);
  for (std::size_t a = 0; a < n; ++a) {
    for (std::size_t b = a + 1; b < n; ++b) {
      out.distances[a * n + b] = out.distances[b * n + a] =
          thumbnailDistance(out.likenesses[a], out.likenesses[b]);
    }
  }
  for (std::size_t a = 0; a < n; ++a) {
    const std::vector<double> steps = tileSteps(out.frames[a], out.frames[(a + 1) % n], kTile);
    out.tileMotion.resize(steps.size(), 0.0);
    for (std::size_t t = 0; t < steps.size(); ++t) {
      out.tileMotion[t] = std::max(out.tileMotion[t], steps[t]);
    }
  }
  for (std::size_t a = 0; a < n; ++a) {
    out.largestNaturalStep = std::max(out.largestNaturalStep, out.distances[a * n + (a + 1) % n]);
  }
  return shared;
}

IdleSource::IdleSource(const std::filesystem::path& avatar, int width, int height)
    : IdleSource(read(avatar, width, height)) {}

IdleSource::IdleSource(std::shared_ptr<const Clip> clip) { use(std::move(clip)); }

void IdleSource::use(std::shared_ptr<const Clip> clip) {
  if (!clip || clip->frames.empty()) throw ClientError("an idle clip without frames");
  clip_ = std::move(clip);
  cursor_ = 0;
}

IdleSource::~IdleSource() = default;

const Picture& IdleSource::next() {
  const Picture& f = clip_->frames[cursor_];
  cursor_ = (cursor_ + 1) % clip_->frames.size();
  return f;
}

IdleSource::Likeness IdleSource::likeness(const Picture& picture) const {
  return likenessOf(clip_->moving, picture);
}

double IdleSource::distance(const Likeness& picture, std::size_t index) const {
  return thumbnailDistance(picture, clip_->likenesses[index % clip_->frames.size()]);
}

std::size_t IdleSource::nearest(const Likeness& picture) const {
  std::size_t best = 0;
  double bestDistance = std::numeric_limits<double>::infinity();
  for (std::size_t i = 0; i < clip_->likenesses.size(); ++i) {
    const double d = thumbnailDistance(picture, clip_->likenesses[i]);
    if (d < bestDistance) {
      bestDistance = d;
      best = i;
    }
  }
  return best;
}

IdleSource::Plan IdleSource::planIdle(std::size_t start, std::size_t count, std::size_t target,
                                      std::ptrdiff_t previous, const JumpCheck& acceptable) const {
  const std::size_t n = clip_->frames.size();
  Plan plan;
  plan.frames.resize(count);
  if (count == 0) return plan;
  start %= n;
  // Frame t is start + t before the jump and target - (count - 1 - t) from it on. Jumping at s
  // puts frame (landing + s) right after (start + s - 1), or after `previous` when s is 0.
  const std::size_t landing = (target % n + n * count - (count - 1)) % n;
  std::ptrdiff_t jumpAt = -1;
  plan.lands = (start + count - 1) % n == target % n;
  if (!plan.lands) {
    // Candidate moments, the least visible first; the few best are put to `acceptable`.
    constexpr std::size_t kChecked = 8;
    std::vector<std::pair<double, std::size_t>> candidates;
    for (std::size_t s = 0; s < count; ++s) {
      if (s == 0 && previous < 0) continue;
      const std::size_t before = s == 0 ? std::size_t(previous) : start + s - 1;
      const double cost = distance(before, landing + s);
      if (cost <= clip_->largestNaturalStep) candidates.emplace_back(cost, s);
    }
    std::sort(candidates.begin(), candidates.end());
    for (std::size_t k = 0; k < std::min(kChecked, candidates.size()); ++k) {
      const std::size_t s = candidates[k].second;
      const std::size_t before = s == 0 ? std::size_t(previous) : start + s - 1;
      if (acceptable(before % n, (landing + s) % n)) {
        jumpAt = std::ptrdiff_t(s);
        plan.jump = candidates[k].first;
        plan.lands = true;
        break;
      }
    }
  }
  for (std::size_t t = 0; t < count; ++t) {
    const bool jumped = jumpAt >= 0 && t >= std::size_t(jumpAt);
    plan.frames[t] = jumped ? (landing + t) % n : (start + t) % n;
  }
  return plan;
}

}  // namespace lumora2::render
