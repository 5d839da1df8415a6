// The avatar's decoder: lookup, per-avatar cache key, contract check and the liveness
// ladder, with every line it logs.
#include <gtest/gtest.h>

#include "decoder_loading.h"
#include "engine/engine_settings.h"
#include "support/harness.h"
#include "support/package_maker.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;
using testing::feature;

const std::string kAlive =
    "def forward(self, x):\n  return (x.mean() + self.b).expand(1, 3, 720, 416).half()\n";
const std::string kDead =
    "def forward(self, x):\n  return (x[:, :3, :1, :1] * 0.0).expand(1, 3, 720, 416).half()\n";
const std::string kX = feature("x", "[1,36,90,52]");
const std::string kRgb = feature("rgb", "[1,3,720,416]", "float16");

// Graph-defining lines only: cache lines are tested with the cache.
Lines decoderLines(const std::string& err) {
  Lines out;
  for (auto& line : testing::logTexts(err)) {
    if (line.find("mlmodelc cache") == std::string::npos) out.push_back(line);
  }
  return out;
}

class Decoder : public ::testing::Test {
 protected:
  void writeDecoder(const std::string& source, const std::string& io = testing::io(kX, kRgb)) {
    testing::writeScriptPackage(avatar / "dec_p2_v3_all.mlpackage", source, io,
                                {{"b", {1, 1, 1, 1}, 0.5f}});
  }
  // The avatar's decoder as the environment's settings load it, its decoder lines in `log`.
  std::optional<DecoderLoading::Loaded> loadDecp2() {
    const EngineSettings settings = EngineSettings::fromEnvironment();
    testing::StderrCapture capture;
    auto loaded = DecoderLoading::loadDecp2(avatar, settings, ModelCache(settings));
    log = decoderLines(capture.finish());
    return loaded;
  }
  testing::Scratch scratch;
  Lines log;
  fs::path avatar = scratch.dir() / "alice";
};

class Contract : public Decoder, public ::testing::WithParamInterface<std::string> {};

TEST_P(Contract, RefusesADecoderOfAnotherShape) {
  writeDecoder(kAlive, GetParam());
  EXPECT_FALSE(loadDecp2());
  EXPECT_EQ(log, Lines{"[vivra] dec_p2_v3_all I/O contract mismatch (want x[1,36,90,52] → fp16 "
                       "rgb[1,3,720,416]) — trying the next dec_p2 candidate"});
}

INSTANTIATE_TEST_SUITE_P(Shapes, Contract,
                         ::testing::Values(testing::io(feature("z", "[1,36,90,52]"), kRgb),
                                           testing::io(feature("x", "[1,36,90,-1]"), kRgb),
                                           testing::io(feature("x", "[1,36,90,52]", "float16"),
                                                       kRgb),
                                           testing::io(kX, feature("rgb", "[1,3,720,416]"))));

struct LadderCase {
  std::optional<std::string> declared;  // LUMORA2_DECP2_V3_CU; the candidate's default is "all"
  Lines tried;
};

class Ladder : public Decoder, public ::testing::WithParamInterface<LadderCase> {};

TEST_P(Ladder, ADeadDecoderClimbsTheLadderSkippingItsDeclaredUnitThenIsRefused) {
  scratch.env().set("LUMORA2_DECP2_V3_CU", GetParam().declared);
  writeDecoder(kDead);
  EXPECT_FALSE(loadDecp2());
  const std::string reason = " (ALL 898560 outputs are ZERO)";
  Lines want{"[vivra] dec_p2_v3_all loaded on " + GetParam().declared.value_or("all") +
             " and COMPUTES NOTHING" + reason +
             " — a render on this unit would be a blank picture behind a green healthz. Retrying "
             "the liveness ladder cpuAndNE,cpuOnly"};
  for (const auto& unit : GetParam().tried) {
    want.push_back("[vivra] dec_p2_v3_all on " + unit + " is ALSO dead" + reason);
  }
  want.push_back(
      "[vivra] dec_p2_v3_all computes nothing on ANY unit in the ladder — REFUSING rather than "
      "rendering a blank picture");
  EXPECT_EQ(log, want);
}

INSTANTIATE_TEST_SUITE_P(Units, Ladder,
                         ::testing::Values(LadderCase{std::nullopt, {"cpuAndNE", "cpuOnly"}},
                                           LadderCase{"cpuAndNE", {"cpuOnly"}}),
                         [](const auto& param) {
                           return "declared_" + param.param.declared.value_or("unset");
                         });

}  // namespace
}  // namespace lumora2
