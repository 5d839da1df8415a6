// The compiled-model cache on real packages in a real cache root: content fingerprints, hits,
// installs, eviction, corrupt entries and concurrent processes.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "cache_entry.h"
#include "engine/lumora2_engine.h"
#include "support/harness.h"
#include "support/package_maker.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;
using testing::logTexts;
using testing::Scratch;
using testing::StderrCapture;

// A package named `name` in `dir`: an identity graph plus a weight file whose first byte is
// `weightByte`, so that versions differ by exactly one byte.
fs::path writePackage(const fs::path& dir, const std::string& name, char weightByte = 'a') {
  fs::path p = dir / (name + ".mlpackage");
  testing::writeScriptPackage(p, "def forward(self, x):\n  return x + 1.0\n",
                              testing::simpleIo("[2]"));
  std::ofstream(p / "weights.bin", std::ios::binary) << weightByte << std::string(4095, 'w');
  return p;
}

class ModelCache : public ::testing::Test {
 protected:
  void SetUp() override { scratch.env().set("MORVANE_LUMORA2_DIR", scratch.dir().string()); }
  std::optional<fs::path> compiled(const fs::path& package, const std::string& key,
                                   std::vector<std::string>* log = nullptr) {
    StderrCapture capture;
    auto result = Lumora2Engine::compiledURL(package, key);
    auto lines = logTexts(capture.finish());
    if (log != nullptr) *log = lines;
    return result;
  }
  Scratch scratch;
};

TEST_F(ModelCache, FingerprintHashesNamesSizesAndContentInNameOrder) {
  fs::path p = scratch.dir() / "fp.mlpackage";
  fs::create_directories(p / "sub");
  std::ofstream(p / "b") << "BB";
  std::ofstream(p / "sub" / "a") << "A";
  std::ofstream(p / ".hidden") << "";
  fs::create_symlink(p / "b", p / "link");  // links are not regular files: left out
  // Expected: ".hidden", "b", "sub/a", each name + NUL + u64 LE size + content.
  std::string stream;
  for (auto [rel, content] :
       {std::pair<std::string, std::string>{".hidden", ""}, {"b", "BB"}, {"sub/a", "A"}}) {
    stream += rel;
    stream.push_back('\0');
    for (int i = 0; i < 8; ++i) stream.push_back(static_cast<char>(i == 0 ? content.size() : 0));
    stream += content;
  }
  unsigned char digest[32];
  unsigned int n = 0;
  EVP_Digest(stream.data(), stream.size(), digest, &n, EVP_sha256(), nullptr);
  std::string hex;
  for (unsigned char b : digest) {
    char two[3];
    std::snprintf(two, sizeof two, "%02x", b);
    hex += two;
  }
  auto fp = Lumora2Engine::packageFingerprint(scratch.dir() / "." / "fp.mlpackage/");
  ASSERT_TRUE(fp);
  EXPECT_EQ(fp->hex, hex);
  EXPECT_EQ(fp->bytes, 3u);
  EXPECT_EQ(Lumora2Engine::cacheEntryName("k", *fp), "k-3-sha" + hex.substr(0, 32) + ".mlmodelc");
}

TEST_F(ModelCache, CopiedOrTouchedPackagesHitTheSameEntry) {
  fs::path p = writePackage(scratch.dir(), "m");
  std::vector<std::string> log;
  auto first = compiled(p, "m", &log);
  ASSERT_TRUE(first);
  std::string entry = first->filename().string();
  EXPECT_EQ(log, (std::vector<std::string>{"[vivra] mlmodelc cached: " + entry}));
  EXPECT_EQ(first->parent_path(), scratch.cache());
  EXPECT_TRUE(fs::is_empty(scratch.tmp()));  // the compile moved into the cache whole

  fs::path copy = scratch.dir() / "elsewhere" / "m.mlpackage";
  fs::create_directories(copy.parent_path());
  fs::copy(p, copy, fs::copy_options::recursive);
  fs::last_write_time(p / "weights.bin", fs::file_time_type::clock::now() + std::chrono::hours(1));
  fs::last_write_time(*first, fs::file_time_type::clock::now() - std::chrono::hours(48));
  std::size_t compiles = compileCount();
  for (const fs::path& package : {p, copy}) {
    EXPECT_EQ(compiled(package, "m", &log), first);
    EXPECT_EQ(log, (std::vector<std::string>{"[vivra] mlmodelc cache HIT: " + entry}));
  }
  EXPECT_EQ(compileCount(), compiles);
  // A hit marks the entry as just used.
  EXPECT_LT(fs::file_time_type::clock::now() - fs::last_write_time(*first),
            std::chrono::minutes(1));
}

struct KeepCase {
  std::optional<std::string> keep;
  std::size_t kept;  // of three versions of one package
};

class Eviction : public ModelCache, public ::testing::WithParamInterface<KeepCase> {};

TEST_P(Eviction, OneChangedByteMakesANewEntryAndOldOnesArePrunedToKeep) {
  scratch.env().set("LUMORA2_MLMODELC_CACHE_KEEP", GetParam().keep);
  fs::create_directories(scratch.cache());
  for (const char* other :
       {"m-12-34.mlmodelc", "m-1-sha-x.mlmodelc", "mm-1-shaab.mlmodelc", "note.txt"}) {
    fs::create_directories(scratch.cache() / other);
  }
  std::vector<std::string> entries;
  for (char version : {'a', 'b', 'c'}) {
    fs::path p = writePackage(scratch.dir(), "m", version);
    auto entry = compiled(p, "m");
    ASSERT_TRUE(entry);
    entries.push_back(entry->filename().string());
    // Distinct last-use times, oldest first.
    fs::last_write_time(*entry, fs::file_time_type::clock::now() -
                                    std::chrono::hours(10 - static_cast<int>(entries.size())));
  }
  ASSERT_NE(entries[0], entries[1]);
  std::vector<std::string> want{"m-1-sha-x.mlmodelc", "mm-1-shaab.mlmodelc", "note.txt"};
  for (std::size_t i = 3 - GetParam().kept; i < 3; ++i) want.push_back(entries[i]);
  std::sort(want.begin(), want.end());
  EXPECT_EQ(scratch.cacheEntries(), want);  // the legacy "m-12-34" is gone whatever keep is
}

INSTANTIATE_TEST_SUITE_P(Keep, Eviction,
                         ::testing::Values(KeepCase{"0", 1}, KeepCase{"-5", 1}, KeepCase{"1", 1},
                                           KeepCase{"+2", 2}, KeepCase{"abc", 3}, KeepCase{"", 3},
                                           KeepCase{std::nullopt, 3}),
                         [](const auto& param) {
                           const auto& keep = param.param.keep;
                           if (!keep) return std::string("unset");
                           if (keep->empty()) return std::string("empty");
                           std::string name;
                           for (char ch : *keep) {
                             name += ch == '-' ? "minus" : ch == '+' ? "plus" : std::string(1, ch);
                           }
                           return name;
                         });

TEST(CacheEntryNames, RecogniseCurrentAndLegacyShapesOfOneKey) {
  struct Case {
    const char* name;
    bool current, legacy;
  };
  const Case cases[] = {
      {"k-10-sha0aF.mlmodelc", true, false},
      {"k-10-sha.mlmodelc", false, false},
      {"k-10-shag1.mlmodelc", false, false},
      {"k-10-20.mlmodelc", false, true},
      {"k-10-20-30.mlmodelc", false, false},
      {"k--20.mlmodelc", false, false},
      {"k-1x-20.mlmodelc", false, false},
      {"k-١٢-٣.mlmodelc", false, true},       // Arabic-Indic digits are digits
      {"k-½-sha１Ａ.mlmodelc", true, false},  // so is a fraction; full-width hex is hex
      {"k-10-sha0a.mlmodelcx", false, false},
      {"kk-10-sha0a.mlmodelc", false, false},
      {".k-10-sha0a.mlmodelc.tmp-12", false, false},
      {"k-10-sha0a", false, false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(cacheEntry::belongsTo(c.name, "k"), c.current) << c.name;
    EXPECT_EQ(cacheEntry::isLegacyOf(c.name, "k"), c.legacy) << c.name;
  }
  for (auto [text, keep] : std::initializer_list<std::pair<std::optional<std::string>, int>>{
           {"7", 7},
           {"+7", 7},
           {"-7", 1},
           {"2", 2},
           {"1", 1},
           {"0", 1},
           {" 7", 24},
           {"7 ", 24},
           {"+-7", 24},
           {"+", 24},
           {"0x10", 24},
           {"99999999999999999999", 24},
           {"", 24},
           {std::nullopt, 24}}) {
    EXPECT_EQ(cacheEntry::keepFromText(text), keep) << text.value_or("<unset>");
  }
}

TEST_F(ModelCache, PruneEvictsLeastRecentlyUsedButNeverTheEntryBeingKept) {
  scratch.env().set("LUMORA2_MLMODELC_CACHE_KEEP", "2");
  auto now = fs::file_time_type::clock::now();
  const char* names[] = {"k-1-sha01.mlmodelc", "k-1-sha02.mlmodelc", "k-1-sha03.mlmodelc",
                         "k-1-sha04.mlmodelc"};
  for (int i = 0; i < 4; ++i) {
    fs::create_directories(scratch.cache() / names[i]);
    fs::last_write_time(scratch.cache() / names[i], now - std::chrono::hours(i));
  }
  // The oldest is the one being kept: it stays, with the two newest.
  Lumora2Engine::prune(scratch.cache(), "k", names[3]);
  EXPECT_EQ(scratch.cacheEntries(), (std::vector<std::string>{names[0], names[1], names[3]}));
  Lumora2Engine::prune(scratch.dir() / "no-such-root", "k", "");  // silently nothing
}

TEST_F(ModelCache, PackagesWithoutFingerprintAreCompiledToTempEveryTime) {
  fs::path empty = scratch.dir() / "empty.mlpackage";
  fs::create_directories(empty / "sub");
  EXPECT_FALSE(Lumora2Engine::packageFingerprint(empty));
  EXPECT_FALSE(compiled(empty, "empty"));
  // Links only: loadable, but no regular file to fingerprint.
  fs::path real = writePackage(scratch.dir() / "real", "l");
  fs::path links = scratch.dir() / "l.mlpackage";
  fs::create_directories(links);
  for (const char* f : {"model.pt", "io.json"}) fs::create_symlink(real / f, links / f);
  EXPECT_FALSE(Lumora2Engine::packageFingerprint(links));
  auto a = compiled(links, "l");
  auto b = compiled(links, "l");
  ASSERT_TRUE(a && b);
  EXPECT_NE(*a, *b);
  EXPECT_EQ(a->parent_path(), scratch.tmp());
  EXPECT_FALSE(fs::exists(scratch.cache()));
}

TEST_F(ModelCache, LoadReportsMissingAndUncompilablePackages) {
  fs::path bad = scratch.dir() / "bad.mlpackage";
  fs::create_directories(bad);
  std::ofstream(bad / "model.pt") << "garbage";
  std::ofstream(bad / "io.json") << testing::simpleIo("[1]");
  StderrCapture capture;
  EXPECT_FALSE(Lumora2Engine::load("nope", ComputeUnits::all));
  EXPECT_FALSE(Lumora2Engine::load("bad", ComputeUnits::all));
  EXPECT_EQ(logTexts(capture.finish()),
            (std::vector<std::string>{"[vivra] MISSING nope.mlpackage in bundle",
                                      "[vivra] compile failed bad"}));
}

TEST_F(ModelCache, ACorruptEntryIsPurgedAndRecompiledOnce) {
  fs::path p = writePackage(scratch.dir(), "m");
  auto entry = compiled(p, "m");
  ASSERT_TRUE(entry);
  std::ofstream(*entry / "model.pt", std::ios::trunc) << "corrupt";
  StderrCapture capture;
  auto model = Lumora2Engine::load("m", ComputeUnits::cpuOnly);
  auto log = logTexts(capture.finish());
  EXPECT_TRUE(model);
  std::string name = entry->filename().string();
  EXPECT_EQ(log, (std::vector<std::string>{
                     "[vivra] mlmodelc cache HIT: " + name,
                     "[vivra] cached mlmodelc failed to load for m — purging + recompiling once",
                     "[vivra] mlmodelc cached: " + name}));
}

TEST_F(ModelCache, ASecondLoadFailureGivesNothing) {
  // Compiles, but forward takes two inputs where io.json describes one: never loads.
  fs::path p = scratch.dir() / "twice.mlpackage";
  testing::writeScriptPackage(p, "def forward(self, a, b):\n  return a\n",
                              testing::simpleIo("[1]"));
  std::size_t compiles = compileCount();
  StderrCapture capture;
  EXPECT_FALSE(Lumora2Engine::load("twice", ComputeUnits::cpuOnly));
  auto log = logTexts(capture.finish());
  EXPECT_EQ(compileCount(), compiles + 2);  // no third attempt
  ASSERT_EQ(log.size(), 3u);
  EXPECT_EQ(log[1],
            "[vivra] cached mlmodelc failed to load for twice — purging + recompiling once");
}

TEST_F(ModelCache, AnUnwritableRootFallsBackToTheSessionCompile) {
  fs::path file = scratch.dir() / "plain-file";
  std::ofstream(file) << "x";
  scratch.env().set("LUMORA2_MLMODELC_CACHE", (file / "cache").string());
  fs::path p = writePackage(scratch.dir(), "m");
  std::vector<std::string> log;
  auto result = compiled(p, "m", &log);
  ASSERT_TRUE(result);
  EXPECT_EQ(result->parent_path(), scratch.tmp());
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0].rfind("[vivra] mlmodelc cache persist FAILED for m (", 0), 0u) << log[0];
  EXPECT_NE(log[0].find(") — using session-temp compile"), std::string::npos);
}

TEST_F(ModelCache, ThreadsOfOneProcessInstallingOnePackageAllGetTheEntry) {
  fs::path p = writePackage(scratch.dir(), "threads");
  std::vector<std::optional<fs::path>> results(4);
  std::vector<std::thread> threads;
  StderrCapture capture;  // the threads' cache lines
  for (auto& result : results) {
    threads.emplace_back([&result, &p] { result = Lumora2Engine::compiledURL(p, "threads"); });
  }
  for (auto& thread : threads) thread.join();
  capture.finish();
  for (const auto& result : results) {
    ASSERT_TRUE(result);
    EXPECT_EQ(*result, results[0]);
  }
  EXPECT_EQ(scratch.cacheEntries().size(), 1u);
}

TEST_F(ModelCache, TwoProcessesCompilingOnePackageBothSucceedWithOneEntry) {
  writePackage(scratch.dir(), "race");
  // Two processes start together; whichever installs second accepts the first one's entry.
  testing::ChildProcess a({LUMORA2_ENGINE_DRIVER, "load", "race", "cpuOnly"});
  testing::ChildProcess b({LUMORA2_ENGINE_DRIVER, "load", "race", "cpuOnly"});
  auto ra = a.finish();
  auto rb = b.finish();
  EXPECT_EQ(ra.out, "loaded cpu\n") << ra.err;
  EXPECT_EQ(rb.out, "loaded cpu\n") << rb.err;
  auto entries = scratch.cacheEntries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_TRUE(cacheEntry::belongsTo(entries[0], "race"));
  EXPECT_TRUE(fs::is_empty(scratch.tmp()));  // each process's temporary compile moved or went
}

}  // namespace
}  // namespace lumora2
