// The reference family, generated once per test binary by the real lumora2-family process into a
// scratch directory that is removed when the binary exits. With the host binary built, the family
// is also packed with its pack commands.
#pragma once

#include <filesystem>
#include <string>

namespace lumora2::family::test {

struct GeneratedFamily {
  std::filesystem::path root;     // --out
  std::filesystem::path staging;  // root/staging
  bool packed = false;
  std::string output;  // what lumora2-family printed

  std::filesystem::path engine() const { return staging / "engine"; }
  std::filesystem::path avatar(const std::string& code) const { return staging / code; }
};

// Generates on first use; a failed generation fails every test that asks for it.
const GeneratedFamily& generatedFamily();

// A fresh directory under $TMPDIR (or /tmp), removed at process exit.
std::filesystem::path scratchDir(const std::string& stem);

// Variance of the Laplacian of the grey image ((b0 + b1 + b2) / 3) over interior pixels: the
// sharpness the host's self-test judges rendered frames by.
double laplacianVariance(const unsigned char* rgb, int width, int height);

}  // namespace lumora2::family::test
