#include "family_fixture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "family/host_pack.h"

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

void writeFile(const fs::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
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
  const fs::path outputFile = family.root.string() + ".output";

  const int lock =
      open((family.root.string() + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (lock < 0 || flock(lock, LOCK_EX) != 0) throw std::runtime_error("cannot lock the family");
  struct Unlock {
    int fd;
    ~Unlock() { close(fd); }
  } unlock{lock};

  if (fs::exists(stampFile) && readFile(stampFile) == stamp) {
    family.output = readFile(outputFile);
    return family;
  }
  fs::remove(stampFile);
  fs::remove_all(family.root);
  const ProcessResult r = runProcess(argv);
  family.output = r.output;
  if (r.status != 0) {
    throw std::runtime_error("lumora2-family failed with status " + std::to_string(r.status) +
                             ":\n" + r.output);
  }
  writeFile(outputFile, r.output);
  writeFile(stampFile, stamp);
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

const GeneratedFamily& generatedFamily() {
  static const GeneratedFamily family = generate();
  return family;
}

}  // namespace lumora2::family::test
