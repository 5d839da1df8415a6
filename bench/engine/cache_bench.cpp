// Measures what the compiled-model cache promises, against a baseline taken in the same run:
//  - a cache hit costs at most 1.2x reading and SHA-256 hashing the package's bytes with OpenSSL
//    (the fingerprint is the hit's whole cost besides one directory touch);
//  - no content is compiled twice (a copy of the package elsewhere hits too).
// It also times a decoder-shaped graph with and without optimize_for_inference, the evidence
// for the runtime's choice not to apply it. Exit status 1 when a promise is broken.
//
//   lumora2_engine_cache_bench [weight MiB (default 192)] [runs (default 7)]
#include <fcntl.h>
#include <openssl/evp.h>
#include <stdlib.h>
#include <unistd.h>

#include <torch/script.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "container/platform.h"
#include "engine/engine_settings.h"
#include "model_cache.h"
#include "support/harness.h"
#include "support/package_maker.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// The baseline: every regular file read in 1 MiB pieces and hashed with one SHA-256.
std::uint64_t readAndHash(const fs::path& package) {
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  EVP_DigestInit_ex(ctx, EVP_sha256(), nullptr);
  std::vector<unsigned char> buf(1 << 20);
  std::uint64_t total = 0;
  for (const auto& e : fs::recursive_directory_iterator(package)) {
    if (!e.is_regular_file()) continue;
    int fd = ::open(e.path().c_str(), O_RDONLY);
    for (ssize_t n; (n = ::read(fd, buf.data(), buf.size())) > 0;) {
      EVP_DigestUpdate(ctx, buf.data(), static_cast<std::size_t>(n));
      total += static_cast<std::uint64_t>(n);
    }
    ::close(fd);
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  EVP_DigestFinal_ex(ctx, digest, &len);
  EVP_MD_CTX_free(ctx);
  return total;
}

double timeForward(torch::jit::Module& m, const at::Tensor& x, int runs) {
  c10::InferenceMode guard;
  m.forward({x});  // first call: profiling and allocation
  std::vector<double> t;
  for (int i = 0; i < runs; ++i) {
    auto start = Clock::now();
    m.forward({x});
    t.push_back(secondsSince(start));
  }
  return median(t);
}

// A small convolutional decoder of the family's shape: x[1,36,90,52] → fp16 rgb[1,3,720,416].
void compareOptimizeForInference(const fs::path& dir, int runs) {
  fs::path package = dir / "dec.mlpackage";
  lumora2::testing::writeScriptPackage(
      package,
      "def forward(self, x):\n"
      "  h = torch.relu(torch.conv2d(x, self.w1, self.b1, 1, 1))\n"
      "  h = h.repeat_interleave(8, dim=2).repeat_interleave(8, dim=3)\n"
      "  return torch.sigmoid(torch.conv2d(h, self.w2, self.b2, 1, 1)).half()\n",
      R"({"inputs":[{"name":"x","shape":[1,36,90,52],"dtype":"float32"}],)"
      R"("outputs":[{"name":"rgb","shape":[1,3,720,416],"dtype":"float16"}]})",
      {{"w1", {32, 36, 3, 3}, 0, {}, true, 1},
       {"b1", {32}, 0.01f},
       {"w2", {3, 32, 3, 3}, 0, {}, true, 2},
       {"b2", {3}, 0.0f}});
  auto compiled = lumora2::compileModelPackage(package);
  if (!compiled) {
    std::printf("optimize_for_inference: decoder did not compile\n");
    return;
  }
  torch::jit::Module frozen = torch::jit::load((*compiled / "model.pt").string());
  frozen.eval();
  torch::jit::Module optimized = torch::jit::optimize_for_inference(frozen);
  at::Tensor x = torch::rand({1, 36, 90, 52});
  double plain = timeForward(frozen, x, runs);
  double opt = timeForward(optimized, x, runs);
  std::printf("decoder-shaped graph forward: frozen %.1f ms, optimize_for_inference %.1f ms (%s)\n",
              plain * 1e3, opt * 1e3, opt < plain ? "faster" : "not faster");
  // What the runtime's own load decides, and the prediction time it then gives.
  auto model = lumora2::GraphModel::load(*compiled, lumora2::ComputeUnits::cpuOnly);
  if (!model) return;
  lumora2::MultiArray in(lumora2::ArrayDataType::float32, {1, 36, 90, 52});
  std::vector<double> t;
  for (int i = 0; i < runs; ++i) {
    auto start = Clock::now();
    model->predictFirst({{"x", in}});
    t.push_back(secondsSince(start));
  }
  std::printf("GraphModel::load chose %s; predict median %.1f ms\n",
              model->optimizedForInference() ? "optimize_for_inference" : "the frozen module",
              median(t) * 1e3);
}

}  // namespace

int main(int argc, char** argv) {
  const long mib = argc > 1 ? std::atol(argv[1]) : 192;
  const int runs = argc > 2 ? std::atoi(argv[2]) : 7;
  lumora2::testing::Scratch scratch;  // its own cache root and temporary directory
  const lumora2::ModelCache cache(lumora2::EngineSettings::fromEnvironment());

  fs::path package = scratch.dir() / "bench_graph.mlpackage";
  const std::int64_t floats = mib * (1 << 20) / 4;
  auto start = Clock::now();
  lumora2::testing::writeScriptPackage(package, "def forward(self, x):\n  return x + self.w[0]\n",
                                       lumora2::testing::simpleIo("[1]"),
                                       {{"w", {floats}, 0, {}, true, 7}});
  std::printf("package: %s bytes, written in %.1f s\n",
              std::to_string(lumora2::ModelCache::packageFingerprint(package)->bytes).c_str(),
              secondsSince(start));

  start = Clock::now();
  auto entry = cache.compiledURL(package, "bench_graph");
  std::printf("miss (fingerprint + compile + install): %.2f s\n", secondsSince(start));
  if (!entry) return 1;

  std::vector<double> hits, baseline;
  readAndHash(package);  // both measured from a warm page cache
  for (int i = 0; i < runs; ++i) {
    start = Clock::now();
    auto hit = cache.compiledURL(package, "bench_graph");
    hits.push_back(secondsSince(start));
    if (hit != entry) return 1;
    start = Clock::now();
    readAndHash(package);
    baseline.push_back(secondsSince(start));
  }
  double ratio = median(hits) / median(baseline);
  bool fast = ratio <= 1.2;
  std::printf(
      "hit: median %.1f ms; read + SHA-256 baseline: median %.1f ms; ratio %.3f (limit "
      "1.2) %s\n",
      median(hits) * 1e3, median(baseline) * 1e3, ratio, fast ? "PASS" : "FAIL");

  fs::path copy = scratch.dir() / "copy" / "bench_graph.mlpackage";
  fs::create_directories(copy.parent_path());
  fs::copy(package, copy, fs::copy_options::recursive);
  bool copyHit = cache.compiledURL(copy, "bench_graph") == entry;
  bool once = lumora2::compileCount() == 1 && copyHit;
  std::printf("compiles: %zu for one content after %d hits and a copied package %s\n",
              lumora2::compileCount(), runs + 1, once ? "PASS" : "FAIL");

  compareOptimizeForInference(scratch.dir(), runs);
  return fast && once ? 0 : 1;
}
