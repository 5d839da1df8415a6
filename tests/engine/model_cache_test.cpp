// The compiled-model cache on real packages in a real cache root: hits, installs, eviction,
// corrupt entries and concurrent processes.
#include <gtest/gtest.h>

#include <fstream>

#include "cache_entry.h"
#include "engine/engine_settings.h"
#include "model_cache.h"
#include "support/harness.h"
#include "support/package_maker.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;
using testing::logTexts;
using testing::StderrCapture;

class ModelCache : public ::testing::Test {
 protected:
  void SetUp() override { scratch.env().set("MORVANE_LUMORA2_DIR", scratch.dir().string()); }
  // A package `name` in `dir`: an identity-like graph plus a weight file whose first byte is
  // `weightByte`, so that versions differ by exactly one byte.
  fs::path writePackage(const fs::path& dir, const std::string& name, char weightByte = 'a') {
    fs::path p = dir / (name + ".mlpackage");
    testing::writeScriptPackage(p, "def forward(self, x):\n  return x + 1.0\n",
                                testing::simpleIo("[2]"));
    std::ofstream(p / "weights.bin", std::ios::binary) << weightByte << std::string(4095, 'w');
    return p;
  }
  // compiledURL under the key "m", its log lines in `log`.
  std::optional<fs::path> compiled(const fs::path& package) {
    StderrCapture capture;
    auto result = cache().compiledURL(package, "m");
    log = logTexts(capture.finish());
    return result;
  }
  // The cache as this process's environment sets it up, at the moment of asking.
  static lumora2::ModelCache cache() {
    return lumora2::ModelCache(EngineSettings::fromEnvironment());
  }
  testing::Scratch scratch;
  Lines log;
};

TEST_F(ModelCache, CopiedOrTouchedPackagesHitTheSameEntryWithoutRecompiling) {
  fs::path p = writePackage(scratch.dir(), "m");
  auto first = compiled(p);
  ASSERT_TRUE(first);
  const std::string entry = first->filename().string();
  EXPECT_EQ(log, Lines{"[vivra] mlmodelc cached: " + entry});
  EXPECT_EQ(first->parent_path(), scratch.cache());
  EXPECT_TRUE(fs::is_empty(scratch.tmp()));  // the compile moved into the cache whole

  fs::path copy = scratch.dir() / "copy";
  fs::copy(p, copy, fs::copy_options::recursive);
  fs::last_write_time(p / "weights.bin", fs::file_time_type::clock::now() + std::chrono::hours(1));
  std::size_t compiles = compileCount();
  for (const fs::path& package : {p, copy}) {
    EXPECT_EQ(compiled(package), first);
    EXPECT_EQ(log, Lines{"[vivra] mlmodelc cache HIT: " + entry});
  }
  EXPECT_EQ(compileCount(), compiles);
}

struct KeepCase {
  const char* label;
  std::optional<std::string> keep;
  std::size_t kept;  // of three versions of one package
};

class Eviction : public ModelCache, public ::testing::WithParamInterface<KeepCase> {};

TEST_P(Eviction, OneChangedByteMakesANewEntryAndOldOnesArePrunedToKeep) {
  scratch.env().set("LUMORA2_MLMODELC_CACHE_KEEP", GetParam().keep);
  // A legacy entry of the key, and a name that is not an entry of the key.
  for (const char* other : {"m-12-34.mlmodelc", "mm-1-shaab.mlmodelc"}) {
    fs::create_directories(scratch.cache() / other);
  }
  Lines entries;
  for (char version : {'a', 'b', 'c'}) {
    auto entry = compiled(writePackage(scratch.dir(), "m", version));
    ASSERT_TRUE(entry);
    entries.push_back(entry->filename().string());
    // Distinct last-use times, oldest first.
    fs::last_write_time(*entry, fs::file_time_type::clock::now() -
                                    std::chrono::hours(10 - static_cast<int>(entries.size())));
  }
  ASSERT_NE(entries[0], entries[1]);
  Lines want{"mm-1-shaab.mlmodelc"};
  want.insert(want.end(), entries.end() - static_cast<long>(GetParam().kept), entries.end());
  std::sort(want.begin(), want.end());
  EXPECT_EQ(scratch.cacheEntries(), want);
}

INSTANTIATE_TEST_SUITE_P(Keep, Eviction,
                         ::testing::Values(KeepCase{"zero", "0", 1}, KeepCase{"minus", "-5", 1},
                                           KeepCase{"plus_two", "+2", 2},
                                           KeepCase{"not_a_number", "abc", 3},
                                           KeepCase{"unset", std::nullopt, 3}),
                         [](const auto& param) { return std::string(param.param.label); });

TEST_F(ModelCache, ACorruptEntryIsPurgedAndRecompiledOnceThenGivesUp) {
  auto entry = compiled(writePackage(scratch.dir(), "m"));
  ASSERT_TRUE(entry);
  std::ofstream(*entry / "model.pt", std::ios::trunc) << "corrupt";
  StderrCapture capture;
  EXPECT_TRUE(cache().load("m", ComputeUnits::cpuOnly));
  const std::string name = entry->filename().string();
  const std::string retry = " — purging + recompiling once";
  EXPECT_EQ(logTexts(capture.finish()),
            (Lines{"[vivra] mlmodelc cache HIT: " + name,
                   "[vivra] cached mlmodelc failed to load for m" + retry,
                   "[vivra] mlmodelc cached: " + name}));

  // Compiles, but forward takes two inputs where io.json describes one: never loads.
  testing::writeScriptPackage(scratch.dir() / "twice.mlpackage",
                              "def forward(self, a, b):\n  return a\n", testing::simpleIo("[1]"));
  std::size_t compiles = compileCount();
  StderrCapture second;
  EXPECT_FALSE(cache().load("twice", ComputeUnits::cpuOnly));
  log = logTexts(second.finish());
  EXPECT_EQ(compileCount(), compiles + 2);  // no third attempt
  ASSERT_EQ(log.size(), 3u);
  EXPECT_EQ(log[1], "[vivra] cached mlmodelc failed to load for twice" + retry);
}

TEST_F(ModelCache, TwoProcessesInstallingOnePackageBothSucceedWithOneEntry) {
  writePackage(scratch.dir(), "race");
  testing::Child a({LUMORA2_ENGINE_DRIVER, "load", "race", "cpuOnly"});
  testing::Child b({LUMORA2_ENGINE_DRIVER, "load", "race", "cpuOnly"});
  for (auto [out, err] : {a.finish(), b.finish()}) EXPECT_EQ(out, "loaded cpu\n") << err;
  Lines entries = scratch.cacheEntries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_TRUE(cacheEntry::belongsTo(entries[0], "race"));
  EXPECT_TRUE(fs::is_empty(scratch.tmp()));  // each process's temporary compile moved or went
}

}  // namespace
}  // namespace lumora2
