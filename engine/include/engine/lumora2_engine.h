// Lumora2Engine: the render engine of the lumora-2 family. This header holds the graph runtime
// side: where graph packages and identity resources are found, the on-disk cache of compiled
// graphs, compute-unit choice, the liveness probe and the per-identity decoder. Warm-up, audio
// intake, chunk inference and the frame queue build on it.
//
// Load code never throws: a failure is "nothing" plus, where the engine's log names one, a line
// on standard error. Only GraphModel::predict throws.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "engine/compute_units.h"
#include "engine/graph_model.h"

namespace lumora2 {

class Lumora2Engine {
 public:
  using Path = std::filesystem::path;

  // ---- Process-wide settings, read and written under one process-wide mutex.

  // The unpacked identity directory; the render commands set it before building an engine.
  static std::optional<Path> activeAgentDir();
  static void setActiveAgentDir(std::optional<Path> dir);
  // The unpacked engine directory, for embedders that set it directly.
  static std::optional<Path> engineDir();
  static void setEngineDir(std::optional<Path> dir);
  // MORVANE_LUMORA2_DIR when set and non-empty, else MORVANE_VIVRA_DIR when set and non-empty,
  // with a leading "~" expanded; read on every call.
  static std::optional<Path> devDir();

  // ---- Model resolution and the compiled-model cache.

  struct PackageFingerprint {
    std::string hex;          // SHA-256 of the package content, 64 lowercase hex digits
    std::uint64_t bytes = 0;  // total size of the package's regular files
  };

  // <name>.mlpackage in activeAgentDir, devDir, engineDir, then the own bundle ("vivra", top
  // level) and the main bundle ("vivra", top level). Any kind of file-system object counts.
  static std::optional<Path> modelURL(std::string_view name);
  // <name>.<ext>: only activeAgentDir when it is set; otherwise devDir, then the four bundle
  // locations. engineDir is never searched for resources.
  static std::optional<Path> resURL(std::string_view name, std::string_view ext);
  // The package's content digest over its regular files sorted by relative name; nothing when
  // the directory cannot be listed, holds no regular file or has a file that cannot be read.
  static std::optional<PackageFingerprint> packageFingerprint(const Path& url);
  // LUMORA2_MLMODELC_CACHE when set and non-empty, else <user caches>/morvane-lumora2.
  static std::optional<Path> cacheRoot();
  // "<key>-<bytes>-sha<first 32 hex digits>.mlmodelc".
  static std::string cacheEntryName(std::string_view key, const PackageFingerprint& fingerprint);
  // The compiled form of `packageURL`: a cache entry (hit, or compiled and installed now), or a
  // session-temporary compile when there is no cache root, no fingerprint or the install failed.
  static std::optional<Path> compiledURL(const Path& packageURL, std::string_view key);
  // Evicts entries of `key` in `root`: every legacy entry, then current entries beyond the newest
  // LUMORA2_MLMODELC_CACHE_KEEP (default 24, at least 1). `keeping` is never removed.
  static void prune(const Path& root, std::string_view key, std::string_view keeping);
  // The number of entries prune keeps per key under the current environment.
  static int cacheKeep();
  // Finds, compiles and loads the graph `name`; one purge-and-recompile retry when the compiled
  // form does not load.
  static std::shared_ptr<GraphModel> load(std::string_view name, ComputeUnits cu);

  // ---- Compute units.

  // The units named by the variable's value when it is one of the four names, else `fallback`.
  static ComputeUnits cuFromEnv(std::string_view envName, ComputeUnits fallback);
  // The variable's value when it is one of the four names, else `defaultName` unchanged.
  static std::string cuNameFromEnv(std::string_view envName, std::string_view defaultName);
  // By the graph's name: "student" → LUMORA2_STUDENT_CU, "w2v" → LUMORA2_W2V_CU,
  // "audiotokenizer" → LUMORA2_ATOK_CU (tested in that order); default cpuAndNE.
  static ComputeUnits cuForModel(std::string_view name);
  // The decoder's mapping: "cpuAndGPU", "all", "cpuOnly"; any other text gives cpuAndNE.
  static ComputeUnits cuFromName(std::string_view name);

  // ---- Graph liveness.

  // False only when LUMORA2_GRAPH_LIVENESS is exactly "0"; read once per process.
  static bool livenessEnabled();
  // True only when LUMORA2_SHARED_W2V is exactly "1"; read once per process.
  static bool sharedW2VEnabled();
  // Why `model` computes nothing on a synthetic input ("prediction FAILED", "N of M outputs are
  // NaN/Inf", "ALL M outputs are ZERO"), or nothing when it is alive or cannot be judged.
  static std::optional<std::string> deadGraphReason(const GraphModel& model);
  // Warm-up's warning over the three front-end graphs: one line for each dead one. Null graphs
  // are skipped. Never changes anything.
  static void warnDeadFrontEnd(const GraphModel* w2v, const GraphModel* atok,
                               const GraphModel* student);

  // ---- The per-identity decoder and the shared front end.

  struct Decp2Candidate {
    std::string_view member;       // package name
    std::string_view label;        // first half of decp2Desc
    std::string_view unitEnv;      // compute-unit variable
    std::string_view defaultUnit;  // unit name when the variable names none
  };
  static constexpr std::array<Decp2Candidate, 1> kDecp2Candidates{
      {{"dec_p2_v3_all", "dec_p2_v3", "LUMORA2_DECP2_V3_CU", "all"}}};
  // The units a dead decoder is retried on, in order.
  static constexpr std::array<std::string_view, 2> kLivenessLadder{"cpuAndNE", "cpuOnly"};

  // Loads one decoder member: package lookup (activeAgentDir only, when set), cache key
  // "<name>-<identity dir name>", I/O contract check and the liveness ladder. On success the
  // unit name in use goes to *unitInUse (when given).
  static std::shared_ptr<GraphModel> loadDecp2Member(std::string_view name,
                                                     std::string_view envName,
                                                     std::string_view defaultUnitName,
                                                     std::optional<std::string>* unitInUse);
  // The process-wide speech front end "w2v_frontend_cpuAndNE", loaded once under a process-wide
  // mutex; a failed load leaves the slot empty so that the next call tries again.
  static std::shared_ptr<GraphModel> sharedW2V();

  // ---- Per-engine state.

  Lumora2Engine();
  ~Lumora2Engine();
  Lumora2Engine(const Lumora2Engine&) = delete;
  Lumora2Engine& operator=(const Lumora2Engine&) = delete;

  // Tries the decoder candidates in order; the first that loads sets decp2Desc ("<label>/<unit
  // in use>") and decp2CU. Nothing when no candidate loads.
  std::shared_ptr<GraphModel> loadDecp2();

  // The unit the decoder actually runs on, once loadDecp2 succeeded.
  const std::optional<std::string>& decp2UnitInUse() const { return decp2CU; }
  // "<label>/<unit>", once loadDecp2 succeeded.
  const std::optional<std::string>& decp2Description() const { return decp2Desc; }

 private:
  std::optional<std::string> decp2CU;
  std::optional<std::string> decp2Desc;
};

}  // namespace lumora2
