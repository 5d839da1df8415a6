#include "support/clip_writer.h"

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>

namespace lumora2::testing {

namespace fs = std::filesystem;

void writeClip(const fs::path& path, const std::vector<std::vector<std::uint8_t>>& bgr, int width,
               int height, const ClipOptions& options) {
  const fs::path raw = path.string() + ".bgr";
  {
    std::ofstream out(raw, std::ios::binary);
    for (const auto& picture : bgr)
      out.write(reinterpret_cast<const char*>(picture.data()),
                static_cast<std::streamsize>(picture.size()));
  }
  // Passthrough keeps each picture's time (1/fps apart) while the header declares its own rate.
  const int declared = options.declaredFps > 0 ? options.declaredFps : options.fps;
  const std::string command =
      "ffmpeg -v error -y -f rawvideo -pix_fmt bgr24 -s " + std::to_string(width) + "x" +
      std::to_string(height) + " -r " + std::to_string(options.fps) + " -i '" + raw.string() +
      "' -vsync passthrough -r " + std::to_string(declared) +
      " -c:v libx264 -pix_fmt yuv420p -g 8 -bf 2 -preset veryfast -crf 12 -threads 1 -f " +
      options.container + " '" + path.string() + "' 2>/dev/null";
  const int status = std::system(command.c_str());
  fs::remove(raw);
  if (status != 0) throw std::runtime_error("ffmpeg could not write " + path.string());
  if (!options.zeroPayloads) return;
  // Every coded picture lies in the one "mdat" box: its size, its type, then the pictures.
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(file), {}};
  const std::size_t type = bytes.find("mdat");
  if (type == std::string::npos || type < 4)
    throw std::runtime_error("no mdat box in " + path.string());
  std::uint32_t size = 0;
  for (std::size_t i = type - 4; i < type; ++i) size = size << 8 | std::uint8_t(bytes[i]);
  file.seekp(static_cast<std::streamoff>(type + 4));
  file << std::string(size - 8, '\0');
  if (!file) throw std::runtime_error("cannot zero the pictures of " + path.string());
}

}  // namespace lumora2::testing
