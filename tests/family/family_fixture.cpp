#include "family_fixture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "family/host_pack.h"
#include "family/identity.h"
#include "family/portrait.h"

namespace lumora2::family::test {

namespace fs = std::filesystem;

namespace {

// Removes every scratch directory when the test binary exits.
struct ScratchRegistry {
  std::mutex mutex;
  std::vector<fs::path> dirs;
  ~ScratchRegistry() {
    std::error_code ec;
    for (const fs::path& d : dirs) fs::remove_all(d, ec);
  }
} registry;

// What the generated family depends on: the generator's and the host's binaries.
std::string buildStamp(const std::vector<std::string>& binaries) {
  std::string stamp;
  for (const std::string& b : binaries) {
    std::error_code ec;
    const auto size = fs::file_size(b, ec);
    const auto time = fs::last_write_time(b, ec).time_since_epoch().count();
    stamp += b + " " + std::to_string(size) + " " + std::to_string(time) + "\n";
  }
  return stamp;
}

// CTest runs every case in its own process, so the family is kept in the build tree and reused
// while the generator and host binaries are unchanged; a file lock serialises parallel cases.
GeneratedFamily generate() {
  GeneratedFamily family;
  family.root = LUMORA2_FAMILY_SCRATCH;
  family.staging = family.root / "staging";
  std::vector<std::string> argv{LUMORA2_FAMILY_BIN, "--out", family.root.string()};
  std::vector<std::string> binaries{LUMORA2_FAMILY_BIN};
#ifdef LUMORA2_MODEL_BIN
  argv.insert(argv.end(), {"--host", LUMORA2_MODEL_BIN});
  binaries.emplace_back(LUMORA2_MODEL_BIN);
  family.packed = true;
#else
  argv.push_back("--no-pack");
#endif
  const std::string stamp = buildStamp(binaries);
  const fs::path stampFile = family.root.string() + ".stamp";

  const int lock =
      open((family.root.string() + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (lock < 0 || flock(lock, LOCK_EX) != 0) throw std::runtime_error("cannot lock the family");
  struct Unlock {
    int fd;
    ~Unlock() { close(fd); }
  } unlock{lock};

  if (fs::exists(stampFile) && readFile(stampFile) == stamp) return family;
  fs::remove(stampFile);
  fs::remove_all(family.root);
  const ProcessResult r = runProcess(argv);
  if (r.status != 0) {
    throw std::runtime_error("lumora2-family failed with status " + std::to_string(r.status) +
                             ":\n" + r.output);
  }
  std::ofstream(stampFile, std::ios::trunc) << stamp;
  return family;
}

}  // namespace

fs::path scratchDir(const std::string& stem) {
  const char* tmp = std::getenv("TMPDIR");
  const fs::path base = (tmp != nullptr && *tmp != '\0') ? fs::path(tmp) : fs::path("/tmp");
  std::string pattern = (base / ("lumora2-" + stem + "-XXXXXX")).string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  const std::lock_guard lock(registry.mutex);
  registry.dirs.emplace_back(pattern);
  return pattern;
}

#ifdef LUMORA2_MODEL_BIN
fs::path faultyFamily() {
  const fs::path root = scratchDir("faulty-family") / "family";
  const ProcessResult r = runProcess({LUMORA2_FAMILY_BIN, "--out", root.string(),
                                      "--faulty-student", "--host", LUMORA2_MODEL_BIN});
  if (r.status != 0) throw std::runtime_error("lumora2-family --faulty-student:\n" + r.output);
  return root;
}
#endif

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

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

std::vector<float> tone(std::size_t count) {
  std::vector<float> out(count);
  for (std::size_t i = 0; i < count; ++i) {
    out[i] = float(0.5 * std::sin(2 * M_PI * 220.0 * double(i) / 16000.0));
  }
  return out;
}

double mouthGrey(const std::uint8_t* pixels) {
  const Rect box = faceRegions(identityByCode("ava")).mouth;
  double sum = 0;
  for (int y = box.y0; y < box.y1; ++y) {
    const std::uint8_t* row = pixels + (std::size_t(y) * 416 + std::size_t(box.x0)) * 3;
    for (int i = 0; i < 3 * box.width(); ++i) sum += row[i];
  }
  return sum / (3.0 * box.width() * box.height());
}

const GeneratedFamily& generatedFamily() {
  static const GeneratedFamily family = generate();
  return family;
}

}  // namespace lumora2::family::test
