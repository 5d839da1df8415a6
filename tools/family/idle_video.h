// Writes an identity's idle clip: RGB24 frames encoded as an MP4 with the FFmpeg libraries, H.264
// in yuv420p through libx264 when that encoder is present, else the built-in MPEG-4 part 2
// encoder. One encoder thread and fixed options keep the file the same from run to run.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace lumora2::family {

// Encodes frames of width x height interleaved RGB24 at `fps` frames per second. Returns the name
// of the encoder used. Throws std::runtime_error with FFmpeg's reason on failure.
std::string writeIdleClip(const std::filesystem::path& path,
                          const std::vector<std::vector<std::uint8_t>>& frames, int width,
                          int height, int fps);

}  // namespace lumora2::family
