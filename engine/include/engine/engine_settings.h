// EngineSettings: everything the environment decides about the engine, read once at the edge of
// the process that renders (render-stream, validate, a benchmark) and handed down to the objects
// that use it: the shared graphs, each avatar and each engine. Nothing below that edge reads
// the environment.
//
// The engine honours a fixed list of knobs, deliberately: a variable that is not on it has no
// effect, whatever it holds. Beside the knobs, the settings take the user's cache directory
// ($XDG_CACHE_HOME, $HOME) and LibTorch's thread count ($OMP_NUM_THREADS).
#pragma once

#include <array>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace lumora2 {

// One arm of the first chunk after a reset: what is armed, what the variable asked for, and
// whether that was one of the known values.
struct Arm {
  std::string armed;
  std::optional<std::string> requested;
  bool recognised = true;
};

struct EngineSettings {
  using Path = std::filesystem::path;

  // The honoured knob names, in their documented order.
  static constexpr std::array<std::string_view, 16> kHonouredKnobs{
      "LUMORA2_ONSET",
      "LUMORA2_CTX_SEED",
      "LUMORA2_SHARPEN",
      "VIVRA_SHARPEN",
      "LUMORA2_AUDIO_PREPROC",
      "LUMORA2_SHARED_W2V",
      "LUMORA2_GRAPH_LIVENESS",
      "LUMORA2_STUDENT_CU",
      "LUMORA2_W2V_CU",
      "LUMORA2_ATOK_CU",
      "LUMORA2_DECP2_V3_CU",
      "LUMORA2_MLMODELC_CACHE",
      "LUMORA2_MLMODELC_CACHE_KEEP",
      "MORVANE_LUMORA2_DIR",
      "MORVANE_VIVRA_DIR",
      "LUMORA2_WARMUP",
  };

  // Choices made once for the whole process: every engine a process makes renders under the
  // same arms, the same audio pre-processing, the same liveness rule and the same front-end
  // sharing.
  struct ProcessWide {
    Arm onset{"gpu", std::nullopt, true};      // LUMORA2_ONSET
    Arm ctxSeed{"canon", std::nullopt, true};  // LUMORA2_CTX_SEED
    // LUMORA2_AUDIO_PREPROC lower-cased; "linear" resamples the window, anything else
    // time-compresses it ("tempo", the default).
    std::string audioPreproc = "tempo";
    bool graphLiveness = true;    // false only for LUMORA2_GRAPH_LIVENESS=0
    bool sharedFrontEnd = false;  // true only for LUMORA2_SHARED_W2V=1
  };
  ProcessWide process;

  // The unsharp mask's strength: LUMORA2_SHARPEN, else VIVRA_SHARPEN (not consulted when
  // LUMORA2_SHARPEN is set but not a number); 0.8 when neither gives a number, 0 for a negative
  // one.
  float sharpen = 0.8f;
  // Pictures the avatar's decoder makes in one run where it takes a batch (1 to 32; a chunk has
  // up to 32); 0 chooses: 8 where the decoder runs on a GPU, 1 on the CPU, where a batch makes a
  // chunk no faster (bench/graphs.sh). The frames are the same either way.
  std::int64_t decoderBatch = 0;
  // LUMORA2_WARMUP=full: both priming passes of warm-up run, whether rendering reads what they
  // leave or not.
  bool fullWarmUp = false;

  // The honoured knobs that are set, as written (the compute-unit variables are read from here).
  std::map<std::string, std::string, std::less<>> knobs;
  // A knob's value when it is set (possibly empty), else nothing.
  std::optional<std::string> knob(std::string_view name) const;

  // Graph packages are looked for in the developer directory, then `engineDir`, then the
  // bundles beside the executable. The developer directory is MORVANE_LUMORA2_DIR when set and
  // non-empty, else MORVANE_VIVRA_DIR when set and non-empty (a leading "~" expanded); the render
  // commands point `vivraDir` at the engine they unpacked, overriding the variable.
  std::optional<Path> lumora2Dir;
  std::optional<Path> vivraDir;
  std::optional<Path> engineDir;  // for embedders; no knob sets it
  std::optional<Path> devDir() const;

  // The compiled-model cache: LUMORA2_MLMODELC_CACHE when set and non-empty, else
  // $XDG_CACHE_HOME/lumora2-model when that is absolute, else ~/.cache/lumora2-model; none
  // when there is no home either. Each key keeps its newest `cacheKeep` entries
  // (LUMORA2_MLMODELC_CACHE_KEEP: decimal with an optional sign, at least 1; 24 when unset or not
  // an integer).
  std::optional<Path> cacheRoot;
  int cacheKeep = 24;

  // LibTorch's intra-op threads: OMP_NUM_THREADS when it is a number from 1 to 4096, else 0 for
  // every core the process may run on.
  int computeThreads = 0;

  // The settings of this process's environment. Logs one line for each arm variable whose value
  // is not a known arm.
  static EngineSettings fromEnvironment();
  // The same from `lookup`, which answers a variable's value or nothing when it is unset; it is
  // asked only for honoured knobs, so the cache root comes only from LUMORA2_MLMODELC_CACHE and
  // the thread count stays 0.
  using Lookup = std::function<std::optional<std::string>(std::string_view name)>;
  static EngineSettings fromKnobs(const Lookup& lookup);
};

}  // namespace lumora2
