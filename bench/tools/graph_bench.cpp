// lumora2-graph-bench --family DIR [--avatar CODE] [--runs N] [--chunks N] [--label TEXT]
//                     [--batch] [--device cpu|cuda]
//
// Median prediction time of each graph of a generated family (DIR/staging/{engine,CODE}) on one
// thread, frozen as the engine's compiled-model cache holds them, with and without LibTorch's
// optimize_for_inference; then the whole chain per 1.6 s chunk (1 front end + 1 tokenizer + 8
// student steps + 32 decoder calls) and its real-time factor. With --device cuda the graphs run
// on the first GPU (LibTorch built with CUDA), each timing waits for the GPU to finish, and the
// batch table goes on to 16 and 32.
#include <ATen/Parallel.h>
#include <torch/cuda.h>
#include <torch/script.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "family/chain.h"
#include "family/graphs.h"
#include "family/latent.h"

namespace {

namespace fs = std::filesystem;
using lumora2::family::Chain;

// Where the graphs run; a GPU's work is asynchronous, so every timing waits for it.
torch::Device gDevice = torch::kCPU;

void settle() {
  if (gDevice.is_cuda()) torch::cuda::synchronize();
}

double medianMs(int runs, const std::function<void()>& predict) {
  // The first predictions pay one-time costs (profiling executor, allocations, on a GPU the
  // kernels' selection).
  for (int i = 0; i < (gDevice.is_cuda() ? 3 : 1); ++i) predict();
  settle();
  std::vector<double> ms;
  for (int i = 0; i < runs; ++i) {
    const auto start = std::chrono::steady_clock::now();
    predict();
    settle();
    ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                     .count());
  }
  std::sort(ms.begin(), ms.end());
  return ms[ms.size() / 2];
}

torch::Tensor speechWindow() {
  torch::Tensor t = torch::arange(lumora2::family::kWindowSamples, torch::kFloat64) / 16000.0;
  torch::Tensor v = torch::sin(2 * lumora2::family::kPi * 150.0 * t) *
                    (torch::sin(2 * lumora2::family::kPi * 4.0 * t) > 0).to(torch::kFloat64);
  return (0.9 * v).to(torch::kFloat32).reshape({1, lumora2::family::kWindowSamples}).to(gDevice);
}

struct Graph {
  std::string name;
  fs::path package;
  std::vector<torch::jit::IValue> inputs;
};

struct BenchOptions {
  fs::path family;
  std::string avatar = "ava";
  std::string label;
  int runs = 20;
  int chunks = 5;
  bool batch = false;  // also the table of batched runs
  std::string device = "cpu";
};

fs::path package(const fs::path& dir, std::string_view name) {
  return dir / (std::string(name) + ".mlpackage");
}

// Each graph's median time with its inputs stacked `depth` deep, and the chunk (1 + 1 + 8 + 32
// predictions) those times make: frames a second on one core. A graph whose forward refuses a
// batch runs once per chunk instead (its time marked "*": depth times its single run), as the
// engine would run it.
void batchTable(const std::vector<Graph>& graphs, const std::string& label, int runs) {
  std::printf("%-10s %-6s %12s %12s %12s %12s %16s %8s\n", label.c_str(), "batch", "front ms",
              "tokenizer ms", "student ms", "decoder ms", "frames/s/core", "gain");
  double single = 0;
  double one[4] = {0, 0, 0, 0};
  std::vector<bool> refuses(graphs.size(), false);
  std::vector<std::int64_t> depths{1, 2, 4, 8};
  if (gDevice.is_cuda()) depths.insert(depths.end(), {16, 32});
  for (const std::int64_t depth : depths) {
    double ms[4] = {0, 0, 0, 0};
    std::string cells[4];
    for (std::size_t g = 0; g < graphs.size() && g < 4; ++g) {
      torch::jit::Module frozen = Chain::loadFrozen(graphs[g].package, gDevice);
      std::vector<torch::jit::IValue> inputs;
      for (const torch::jit::IValue& in : graphs[g].inputs) {
        const torch::Tensor t = in.toTensor();
        std::vector<std::int64_t> times(std::size_t(t.dim()), 1);
        times[0] = depth;
        inputs.emplace_back(t.repeat(times).contiguous());
      }
      if (!refuses[g]) {
        try {
          // A graph that gives fewer items than it was given has not made a batch.
          const torch::jit::IValue out = frozen.forward(inputs);
          const torch::Tensor first =
              out.isTuple() ? out.toTupleRef().elements()[0].toTensor() : out.toTensor();
          if (first.dim() == 0 || first.size(0) != depth) throw std::runtime_error("no batch");
          ms[g] = medianMs(runs, [&] { frozen.forward(inputs); });
        } catch (const std::exception&) {
          refuses[g] = true;
        }
      }
      if (refuses[g]) ms[g] = double(depth) * one[g];
      if (depth == 1) one[g] = ms[g];
      char cell[32];
      std::snprintf(cell, sizeof cell, "%.3f%s", ms[g], refuses[g] ? "*" : "");
      cells[g] = cell;
    }
    const double chunkMs = ms[0] + ms[1] + 8 * ms[2] + 32 * ms[3];
    const double fps = double(depth) * 32.0 * 1000.0 / chunkMs;
    if (depth == 1) single = fps;
    std::printf("%-10s %-6lld %12s %12s %12s %12s %16.1f %7.2fx\n", label.c_str(),
                static_cast<long long>(depth), cells[0].c_str(), cells[1].c_str(), cells[2].c_str(),
                cells[3].c_str(), fps, fps / single);
    std::fflush(stdout);
  }
}

// Each graph alone, frozen and optimised for inference, on inputs of its real shapes.
void compareGraphs(const BenchOptions& o, const fs::path& engine, const fs::path& avatarDir,
                   const torch::Tensor& iv) {
  const torch::Tensor feats =
      Chain::loadFrozen(package(engine, lumora2::family::kFrontEndPackage), gDevice)
          .forward({iv})
          .toTensor();
  const torch::Tensor tokens =
      Chain::loadFrozen(package(engine, lumora2::family::kTokenizerPackage), gDevice)
          .forward({feats})
          .toTensor();
  const torch::Tensor context = torch::rand({1, 16, 16, 90, 52}).to(gDevice);
  torch::Tensor x = torch::rand({1, 36, 90, 52});
  x.index_put_({0, torch::indexing::Slice(32, 36)}, 0.0f);
  x.index_put_({0, 33}, 1.0f);
  x = x.to(gDevice);

  const std::vector<Graph> graphs{
      {"w2v_frontend", package(engine, lumora2::family::kFrontEndPackage), {iv}},
      {"audiotokenizer", package(engine, lumora2::family::kTokenizerPackage), {feats}},
      {"student_v4_forward_frame",
       package(engine, lumora2::family::kStudentPackage),
       {context, tokens.select(1, 6).contiguous()}},
      {"dec_p2_v3_all (" + o.avatar + ")",
       package(avatarDir, lumora2::family::kDecoderPackage),
       {x}},
  };
  std::printf("%-10s %-32s %12s %16s %6s\n", "family", "graph", "frozen ms", "optimized ms",
              "runs");
  for (const Graph& g : graphs) {
    torch::jit::Module frozen = Chain::loadFrozen(g.package, gDevice);
    const double a = medianMs(o.runs, [&] { frozen.forward(g.inputs); });
    double b = -1;
    try {
      torch::jit::Module copy = frozen.clone();
      torch::jit::Module optimized = torch::jit::optimize_for_inference(copy);
      b = medianMs(o.runs, [&] { optimized.forward(g.inputs); });
    } catch (const std::exception&) {
      // Some LibTorch builds cannot optimise every graph for every device; the column says so.
    }
    char optimizedCell[32] = "-";
    if (b >= 0) std::snprintf(optimizedCell, sizeof optimizedCell, "%.3f", b);
    std::printf("%-10s %-32s %12.3f %16s %6d\n", o.label.c_str(), g.name.c_str(), a, optimizedCell,
                o.runs);
    std::fflush(stdout);
  }
  if (o.batch) batchTable(graphs, o.label, o.runs);
}

// The whole chain as the engine runs a chunk, timed per stage.
void timeChain(const BenchOptions& o, const fs::path& engine, const fs::path& avatarDir,
               const torch::Tensor& iv) {
  Chain chain = Chain::load(engine, avatarDir, gDevice);
  torch::Tensor ctx =
      Chain::seedContext(std::vector<float>(lumora2::family::kLatentSize, 0.0f)).to(gDevice);
  torch::Tensor previous;
  double stageMs[4] = {0, 0, 0, 0};
  auto timed = [&](int stage, const std::function<torch::Tensor()>& f) {
    const auto start = std::chrono::steady_clock::now();
    torch::Tensor t = f();
    settle();
    stageMs[stage] +=
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    return t;
  };
  auto runChunk = [&] {
    const torch::Tensor f = timed(0, [&] { return chain.features(iv); });
    const torch::Tensor toks = timed(1, [&] { return chain.tokens(f); });
    for (int i = 0; i < 8; ++i) {
      const torch::Tensor latent = timed(2, [&] { return chain.step(ctx, toks, 6 + i); });
      if (!previous.defined()) previous = latent;
      for (int phase = 0; phase < 4; ++phase) {
        timed(3, [&] { return chain.picture(latent, previous, phase); });
      }
      previous = latent;
    }
  };
  runChunk();
  std::fill(std::begin(stageMs), std::end(stageMs), 0.0);
  const double chunkMs = medianMs(o.chunks, runChunk);
  const double n = o.chunks + 1;  // medianMs runs once more to warm up
  std::printf("%-10s %-32s %12.3f %16s %6d   real-time factor %.1fx (1.6 s of audio)\n",
              o.label.c_str(), "chunk: 1+1+8+32 predictions", chunkMs, "-", o.chunks,
              1600.0 / chunkMs);
  std::printf(
      "%-10s %-32s front end %.1f, tokenizer %.1f, 8 student steps %.1f, 32 pictures %.1f\n",
      o.label.c_str(), "  mean ms per chunk stage:", stageMs[0] / n, stageMs[1] / n, stageMs[2] / n,
      stageMs[3] / n);
}

}  // namespace

int main(int argc, char** argv) {
  BenchOptions o;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string_view key = argv[i];
    if (key == "--batch") {
      --i;  // a flag without a value
      continue;
    }
    if (key == "--family") o.family = argv[i + 1];
    if (key == "--avatar") o.avatar = argv[i + 1];
    if (key == "--runs") o.runs = std::max(1, std::atoi(argv[i + 1]));
    if (key == "--chunks") o.chunks = std::max(1, std::atoi(argv[i + 1]));
    if (key == "--label") o.label = argv[i + 1];
    if (key == "--device") o.device = argv[i + 1];
  }
  if (o.family.empty()) {
    std::fprintf(stderr,
                 "usage: lumora2-graph-bench --family DIR [--avatar CODE] [--runs N] "
                 "[--chunks N] [--label TEXT] [--batch] [--device cpu|cuda]\n");
    return 1;
  }
  if (o.device == "cuda") {
    if (!torch::cuda::is_available()) {
      std::fprintf(stderr, "lumora2-graph-bench: --device cuda: this LibTorch sees no GPU\n");
      return 1;
    }
    gDevice = torch::Device(torch::kCUDA, 0);
  } else if (o.device != "cpu") {
    std::fprintf(stderr, "lumora2-graph-bench: --device is cpu or cuda, not %s\n",
                 o.device.c_str());
    return 1;
  }
  if (o.label.empty()) o.label = o.family.filename().string();
  o.batch = std::find(argv + 1, argv + argc, std::string_view("--batch")) != argv + argc;
  at::set_num_threads(1);
  at::set_num_interop_threads(1);
  torch::NoGradGuard noGrad;
  const fs::path engine = o.family / "staging" / "engine";
  const fs::path avatarDir = o.family / "staging" / o.avatar;
  const torch::Tensor iv = speechWindow();
  compareGraphs(o, engine, avatarDir, iv);
  timeChain(o, engine, avatarDir, iv);
  return 0;
}
