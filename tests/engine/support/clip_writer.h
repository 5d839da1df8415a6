// Writes small video clips for the idle-clip tests with FFmpeg's command-line tool: H.264 (libx264)
// in yuv420p with B-frames, so that readers must reorder pictures and drain the decoder at the end
// of the file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

namespace lumora2::testing {

struct ClipOptions {
  const char* container = "mp4";  // the muxer's short name, e.g. "mp4", "matroska"
  int fps = 10;                   // the frames lie 1/fps seconds apart
  int declaredFps = 0;            // the nominal rate written into the stream's header; 0: fps
  bool zeroPayloads = false;      // every coded picture's bytes overwritten with zeros (mp4 only)
};

// One picture per entry, width x height x 3 bytes in B, G, R order. Throws std::runtime_error on
// failure.
void writeClip(const std::filesystem::path& path, const std::vector<std::vector<std::uint8_t>>& bgr,
               int width, int height, const ClipOptions& options = {});

}  // namespace lumora2::testing
