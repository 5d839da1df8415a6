#include "render_test_support.h"

#include <sys/wait.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <fstream>

#include "family_fixture.h"

namespace lumora2::family::test {

namespace fs = std::filesystem;

Shell shell(const std::string& command, const fs::path& errFile) {
  const std::string line =
      command + (errFile.empty() ? std::string(" 2>/dev/null") : " 2>'" + errFile.string() + "'");
  Shell r;
  FILE* pipe = ::popen(line.c_str(), "r");
  if (pipe == nullptr) return r;
  char buf[1 << 16];
  for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, pipe)) > 0;) r.out.append(buf, n);
  const int raw = ::pclose(pipe);
  r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
  return r;
}

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
