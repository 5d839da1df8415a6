// The per-identity decoder: lookup, per-identity cache key, contract check and the liveness
// ladder, with every line it logs.
#include <gtest/gtest.h>

#include <fstream>

#include "cache_entry.h"
#include "engine/lumora2_engine.h"
#include "support/harness.h"
#include "support/package_maker.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;
using testing::logTexts;
using testing::Scratch;

const std::string kAlive =
    "def forward(self, x):\n  return (x.mean() + self.b).expand(1, 3, 720, 416).half()\n";
const std::string kDead =
    "def forward(self, x):\n  return (x[:, :3, :1, :1] * 0.0).expand(1, 3, 720, 416).half()\n";

std::string decoderIo(const std::string& xName = "x", const std::string& xShape = "[1,36,90,52]",
                      const std::string& outShape = "[1,3,720,416]",
                      const std::string& outType = "float16") {
  return R"({"inputs":[{"name":")" + xName + R"(","shape":)" + xShape +
         R"(,"dtype":"float32"}],"outputs":[{"name":"rgb","shape":)" + outShape + R"(,"dtype":")" +
         outType + R"("}]})";
}

void writeDecoder(const fs::path& identity, const std::string& source,
                  const std::string& io = decoderIo()) {
  testing::writeScriptPackage(identity / "dec_p2_v3_all.mlpackage", source, io,
                              {{"b", {1, 1, 1, 1}, 0.5f}});
}

// Graph-defining lines only: cache lines are tested with the cache.
std::vector<std::string> decoderLines(const std::string& err) {
  std::vector<std::string> out;
  for (auto& line : logTexts(err)) {
    if (line.find("mlmodelc cache") == std::string::npos &&
        line.find("mlmodelc cached") == std::string::npos) {
      out.push_back(line);
    }
  }
  return out;
}

class Decoder : public ::testing::Test {
 protected:
  void SetUp() override {
    identity = scratch.dir() / "alice";
    Lumora2Engine::setActiveAgentDir(identity);
  }
  void TearDown() override { Lumora2Engine::setActiveAgentDir(std::nullopt); }
  std::shared_ptr<GraphModel> loadDecp2(std::vector<std::string>* log = nullptr) {
    testing::StderrCapture capture;
    auto model = engine.loadDecp2();
    if (log != nullptr) *log = decoderLines(capture.finish());
    return model;
  }
  Scratch scratch;
  fs::path identity;
  Lumora2Engine engine;
};

TEST_F(Decoder, LoadsOnTheDeclaredUnitUnderAPerIdentityKey) {
  writeDecoder(identity, kAlive);
  std::vector<std::string> log;
  auto model = loadDecp2(&log);
  ASSERT_TRUE(model);
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(engine.decp2Description(), "dec_p2_v3/all");
  EXPECT_EQ(engine.decp2UnitInUse(), "all");
  EXPECT_EQ(model->computeUnits(), ComputeUnits::all);

  // Another identity with the same decoder bytes gets its own entry, and keeps the first one
  // even with a keep of one per key.
  scratch.env().set("LUMORA2_MLMODELC_CACHE_KEEP", "1");
  scratch.env().set("LUMORA2_DECP2_V3_CU", "cpuOnly");
  fs::path bob = scratch.dir() / "bob";
  fs::create_directories(bob);
  fs::copy(identity / "dec_p2_v3_all.mlpackage", bob / "dec_p2_v3_all.mlpackage",
           fs::copy_options::recursive);
  Lumora2Engine::setActiveAgentDir(bob);
  Lumora2Engine other;
  ASSERT_TRUE(other.loadDecp2());
  EXPECT_EQ(other.decp2Description(), "dec_p2_v3/cpuOnly");
  auto entries = scratch.cacheEntries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_TRUE(cacheEntry::belongsTo(entries[0], "dec_p2_v3_all-alice"));
  EXPECT_TRUE(cacheEntry::belongsTo(entries[1], "dec_p2_v3_all-bob"));
}

TEST_F(Decoder, AnActiveIdentityHidesDecodersElsewhere) {
  fs::path dev = scratch.dir() / "dev";
  writeDecoder(dev, kAlive);
  scratch.env().set("MORVANE_LUMORA2_DIR", dev.string());
  fs::create_directories(identity);
  std::vector<std::string> log;
  EXPECT_FALSE(loadDecp2(&log));
  EXPECT_TRUE(log.empty());  // a missing member is silent
  EXPECT_FALSE(engine.decp2Description());

  Lumora2Engine::setActiveAgentDir(std::nullopt);  // now modelURL finds it in the developer dir
  EXPECT_TRUE(loadDecp2());
  EXPECT_TRUE(cacheEntry::belongsTo(scratch.cacheEntries().at(0), "dec_p2_v3_all-dev"));
}

std::string contractCaseName(const ::testing::TestParamInfo<std::pair<std::string, bool>>& info) {
  static const char* const kNames[] = {"exact",      "unspecified_output", "no_x",
                                       "flexible_x", "wrong_output_shape", "float32_output"};
  return kNames[info.index];
}

class Contract : public Decoder,
                 public ::testing::WithParamInterface<std::pair<std::string, bool>> {};

TEST_P(Contract, RefusesADecoderOfAnotherShape) {
  writeDecoder(identity, kAlive, GetParam().first);
  std::vector<std::string> log;
  auto model = loadDecp2(&log);
  EXPECT_EQ(model != nullptr, GetParam().second);
  if (!GetParam().second) {
    EXPECT_EQ(log, (std::vector<std::string>{
                       "[vivra] dec_p2_v3_all I/O contract mismatch (want x[1,36,90,52] → fp16 "
                       "rgb[1,3,720,416]) — trying the next dec_p2 candidate"}));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, Contract,
    ::testing::Values(std::pair{decoderIo(), true},
                      std::pair{decoderIo("x", "[1,36,90,52]", "[]"), true},
                      std::pair{decoderIo("z"), false},
                      std::pair{decoderIo("x", "[1,36,90,-1]"), false},
                      std::pair{decoderIo("x", "[1,36,90,52]", "[1,3,720,400]"), false},
                      std::pair{decoderIo("x", "[1,36,90,52]", "[1,3,720,416]", "float32"), false}),
    contractCaseName);

TEST_F(Decoder, AnUncompilableMemberIsReported) {
  fs::create_directories(identity / "dec_p2_v3_all.mlpackage");
  std::ofstream(identity / "dec_p2_v3_all.mlpackage" / "model.pt") << "garbage";
  std::ofstream(identity / "dec_p2_v3_all.mlpackage" / "io.json") << decoderIo();
  std::vector<std::string> log;
  EXPECT_FALSE(loadDecp2(&log));
  EXPECT_EQ(log, (std::vector<std::string>{
                     "[vivra] dec_p2_v3_all compile/load FAILED — trying the next dec_p2 "
                     "candidate"}));
}

struct LadderCase {
  std::optional<std::string> declaredEnv;
  std::string declared;
  std::vector<std::string> tried;
};

class Ladder : public Decoder, public ::testing::WithParamInterface<LadderCase> {};

TEST_P(Ladder, ADeadDecoderClimbsTheLadderSkippingItsDeclaredUnitThenIsRefused) {
  scratch.env().set("LUMORA2_DECP2_V3_CU", GetParam().declaredEnv);
  writeDecoder(identity, kDead);
  std::vector<std::string> log;
  EXPECT_FALSE(loadDecp2(&log));
  const std::string reason = "ALL 898560 outputs are ZERO";
  std::vector<std::string> want{"[vivra] dec_p2_v3_all loaded on " + GetParam().declared +
                                " and COMPUTES NOTHING (" + reason +
                                ") — a render on this unit would be a blank picture behind a "
                                "green healthz. Retrying the liveness ladder cpuAndNE,cpuOnly"};
  for (const auto& unit : GetParam().tried) {
    want.push_back("[vivra] dec_p2_v3_all on " + unit + " is ALSO dead (" + reason + ")");
  }
  want.push_back(
      "[vivra] dec_p2_v3_all computes nothing on ANY unit in the ladder — REFUSING rather than "
      "rendering a blank picture");
  EXPECT_EQ(log, want);
  EXPECT_FALSE(engine.decp2Description());
  EXPECT_FALSE(engine.decp2UnitInUse());
}

INSTANTIATE_TEST_SUITE_P(Units, Ladder,
                         ::testing::Values(LadderCase{std::nullopt, "all", {"cpuAndNE", "cpuOnly"}},
                                           LadderCase{"cpuAndNE", "cpuAndNE", {"cpuOnly"}},
                                           LadderCase{"cpuOnly", "cpuOnly", {"cpuAndNE"}},
                                           LadderCase{"gpu", "all", {"cpuAndNE", "cpuOnly"}}),
                         [](const auto& param) {
                           return "declared_" + param.param.declaredEnv.value_or("unset");
                         });

TEST_F(Decoder, WithLivenessOffADeadDecoderIsAcceptedOnItsDeclaredUnit) {
  writeDecoder(identity, kDead);
  auto run = [&](const char* liveness) {
    return testing::runProcess({LUMORA2_ENGINE_DRIVER, "--agent", identity.string(), "decp2"},
                               {{"LUMORA2_GRAPH_LIVENESS", liveness}});
  };
  auto off = run("0");
  EXPECT_EQ(off.out, "decp2 dec_p2_v3/all all\n") << off.err;
  EXPECT_EQ(decoderLines(off.err), std::vector<std::string>{});
  EXPECT_EQ(run("00").out, "nothing\n");  // only exactly "0" turns the probe off
}

}  // namespace
}  // namespace lumora2
