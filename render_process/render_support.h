// The render host's helpers that need no engine: the WAV loader (warm-up and test speech), the
// sharpness measure validate judges frames by.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <vector>

namespace lumora2 {

// The file's first channel as 32-bit floats. The file must be at the engine's rate, 16 kHz: it is
// never resampled. With `loopTo`, whole copies of the clip are appended until at least that many
// samples are held and the result is cut to exactly `loopTo` (a negative count gives nothing).
// Throws Err: "cannot open wav <path>", the reader's own error, "wav has no samples: <path>", or
// "wav <path> is <rate> Hz; the engine takes 16000 Hz audio".
std::vector<float> loadWav(const std::filesystem::path& path,
                           std::optional<std::int64_t> loopTo = std::nullopt);

// Variance of the Laplacian of the grey image ((b0 + b1 + b2) / 3 per pixel) over the interior
// pixels of a frame of w × h pixels of 3 bytes: 0 when the frame holds fewer bytes, NaN when it
// has no interior pixel. The population variance (divided by the count).
double sharpness(const std::vector<std::uint8_t>& frame, int w, int h);

}  // namespace lumora2
