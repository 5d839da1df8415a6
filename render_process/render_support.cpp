#include "render_support.h"

#include <sndfile.h>

#include <cmath>
#include <limits>
#include <string>

#include "host/command.h"

namespace lumora2 {
namespace {
constexpr int kEngineRate = 16000;
}  // namespace

std::vector<float> loadWav(const std::filesystem::path& path, std::optional<std::int64_t> loopTo) {
  SF_INFO info{};
  SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
  if (file == nullptr) throw Err("cannot open wav " + path.string());
  struct Close {
    SNDFILE* f;
    ~Close() { sf_close(f); }
  } close{file};
  if (info.channels < 1 || info.frames <= 0) throw Err("wav has no samples: " + path.string());
  // The engine's audio is 16 kHz; samples at another rate would play too fast or too slow.
  if (info.samplerate != kEngineRate) {
    throw Err("wav " + path.string() + " is " + std::to_string(info.samplerate) +
              " Hz; the engine takes " + std::to_string(kEngineRate) + " Hz audio");
  }
  std::vector<float> all(static_cast<std::size_t>(info.frames) *
                         static_cast<std::size_t>(info.channels));
  const sf_count_t read = sf_readf_float(file, all.data(), info.frames);
  if (read < 0 || sf_error(file) != SF_ERR_NO_ERROR) throw Err(sf_strerror(file));
  std::vector<float> clip(static_cast<std::size_t>(read));
  for (std::size_t i = 0; i < clip.size(); ++i) {
    clip[i] = all[i * static_cast<std::size_t>(info.channels)];
  }
  if (clip.empty()) throw Err("wav has no samples: " + path.string());
  if (!loopTo) return clip;
  if (*loopTo <= 0) return {};
  std::vector<float> out;
  out.reserve(static_cast<std::size_t>(*loopTo));
  while (static_cast<std::int64_t>(out.size()) < *loopTo) {
    const std::size_t take = std::min(clip.size(), static_cast<std::size_t>(*loopTo) - out.size());
    out.insert(out.end(), clip.begin(), clip.begin() + static_cast<std::ptrdiff_t>(take));
  }
  return out;
}

double sharpness(const std::vector<std::uint8_t>& frame, int w, int h) {
  if (w <= 0 || h <= 0 ||
      frame.size() < static_cast<std::size_t>(w) * static_cast<std::size_t>(h) * 3) {
    return 0.0;
  }
  if (w < 3 || h < 3) return std::numeric_limits<double>::quiet_NaN();
  auto grey = [&](int x, int y) {
    const std::uint8_t* p = frame.data() + (static_cast<std::size_t>(y) * w + x) * 3;
    return (static_cast<double>(p[0]) + p[1] + p[2]) / 3.0;
  };
  std::vector<double> laplacian;
  laplacian.reserve(static_cast<std::size_t>(w - 2) * static_cast<std::size_t>(h - 2));
  double sum = 0;
  for (int y = 1; y <= h - 2; ++y) {
    for (int x = 1; x <= w - 2; ++x) {
      const double l =
          grey(x, y - 1) + grey(x, y + 1) + grey(x - 1, y) + grey(x + 1, y) - 4.0 * grey(x, y);
      laplacian.push_back(l);
      sum += l;
    }
  }
  const double mean = sum / static_cast<double>(laplacian.size());
  double squares = 0;
  for (double l : laplacian) squares += (l - mean) * (l - mean);
  return squares / static_cast<double>(laplacian.size());
}

}  // namespace lumora2
