#include "render_test_support.h"

#include <cmath>
#include <cstdint>
#include <fstream>

#include "family_fixture.h"

namespace lumora2::family::test {

namespace fs = std::filesystem;

void writeWav(const fs::path& path, const std::vector<float>& samples, bool asFloat) {
  auto u32 = [](std::ofstream& o, std::uint32_t v) { o.write(reinterpret_cast<char*>(&v), 4); };
  auto u16 = [](std::ofstream& o, std::uint16_t v) { o.write(reinterpret_cast<char*>(&v), 2); };
  std::ofstream o(path, std::ios::binary);
  const std::uint16_t width = asFloat ? 4 : 2;
  const auto bytes = std::uint32_t(samples.size() * width);
  o.write("RIFF", 4);
  u32(o, 36 + bytes);
  o.write("WAVEfmt ", 8);
  u32(o, 16);
  u16(o, asFloat ? 3 : 1);
  u16(o, 1);
  u32(o, kRate);
  u32(o, kRate * width);
  u16(o, width);
  u16(o, std::uint16_t(8 * width));
  o.write("data", 4);
  u32(o, bytes);
  for (float s : samples) {
    if (asFloat) {
      o.write(reinterpret_cast<const char*>(&s), 4);
    } else {
      u16(o, std::uint16_t(std::int16_t(std::lround(s * 32767))));
    }
  }
}

std::string decodeVideo(const fs::path& mp4, const std::string& format) {
  return shell(commandLine({"ffmpeg", "-v", "error", "-i", mp4.string(), "-f", "rawvideo",
                            "-pix_fmt", format, "-"}))
      .out;
}

std::set<std::string> namesIn(const fs::path& dir) {
  std::set<std::string> found;
  for (const auto& e : fs::directory_iterator(dir)) found.insert(e.path().filename());
  return found;
}

fs::path renderBin() { return LUMORA2_RENDER_BIN; }
fs::path avatarFile() { return generatedFamily().root / "ava.avatar"; }
fs::path engineFile() { return generatedFamily().root / "vivra.model"; }

std::string commandLine(const std::vector<std::string>& words) {
  std::string line;
  for (const std::string& word : words) {
    line += line.empty() ? "'" : " '";
    line += word;
    line += "'";
  }
  return line;
}

std::string renderCommand(const fs::path& audio, const fs::path& out) {
  return commandLine({renderBin().string(), avatarFile().string(), "--engine",
                      engineFile().string(), "--audio", audio.string(), "-o", out.string()});
}

}  // namespace lumora2::family::test
