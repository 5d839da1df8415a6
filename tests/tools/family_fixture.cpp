#include "family_fixture.h"

#include <gtest/gtest.h>
#include <stdlib.h>

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
};

ScratchRegistry& registry() {
  static ScratchRegistry r;
  return r;
}

GeneratedFamily generate() {
  GeneratedFamily family;
  family.root = scratchDir("family");
  family.staging = family.root / "staging";
  std::vector<std::string> argv{LUMORA2_FAMILY_BIN, "--out", family.root.string()};
#ifdef LUMORA2_MODEL_BIN
  argv.insert(argv.end(), {"--host", LUMORA2_MODEL_BIN});
  family.packed = true;
#else
  argv.push_back("--no-pack");
#endif
  const ProcessResult r = runProcess(argv);
  family.output = r.output;
  if (r.status != 0) {
    throw std::runtime_error("lumora2-family failed with status " + std::to_string(r.status) +
                             ":\n" + r.output);
  }
  return family;
}

}  // namespace

fs::path scratchDir(const std::string& stem) {
  const char* tmp = std::getenv("TMPDIR");
  const fs::path base = (tmp != nullptr && *tmp != '\0') ? fs::path(tmp) : fs::path("/tmp");
  std::string pattern = (base / ("lumora2-" + stem + "-XXXXXX")).string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  ScratchRegistry& r = registry();
  const std::lock_guard lock(r.mutex);
  r.dirs.emplace_back(pattern);
  return pattern;
}

const GeneratedFamily& generatedFamily() {
  static const GeneratedFamily family = generate();
  return family;
}

double laplacianVariance(const unsigned char* rgb, int width, int height) {
  auto grey = [&](int x, int y) {
    const unsigned char* p = rgb + (static_cast<size_t>(y) * width + x) * 3;
    return (static_cast<double>(p[0]) + p[1] + p[2]) / 3.0;
  };
  std::vector<double> values;
  values.reserve(static_cast<size_t>(width) * height);
  for (int y = 1; y + 1 < height; ++y) {
    for (int x = 1; x + 1 < width; ++x) {
      values.push_back(grey(x, y - 1) + grey(x, y + 1) + grey(x - 1, y) + grey(x + 1, y) -
                       4.0 * grey(x, y));
    }
  }
  double mean = 0.0;
  for (double v : values) mean += v;
  mean /= static_cast<double>(values.size());
  double var = 0.0;
  for (double v : values) var += (v - mean) * (v - mean);
  return var / static_cast<double>(values.size());
}

}  // namespace lumora2::family::test
