// Graph packages describe themselves, compile, load and predict with named inputs and outputs;
// the liveness probe judges what a graph computes on a synthetic input.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "engine/lumora2_engine.h"
#include "support/harness.h"
#include "support/package_maker.h"

namespace lumora2 {
namespace {

using testing::feature;
using testing::io;
using testing::makeGraph;

TEST(GraphRuntime, PredictsByNameWithHalfAndIntegerArrays) {
  testing::Scratch scratch;
  auto model = makeGraph(
      scratch.dir() / "g.mlpackage", "def forward(self, i, h):\n  return (h * 2.0, i - 1)\n",
      io(feature("i", "[4]", "int32") + "," + feature("h", "[2,2]", "float16"),
         feature("h2", "[2,2]", "float16") + "," + feature("i1", "[4]", "int32")));
  ASSERT_TRUE(model);
  MultiArray h(ArrayDataType::float16, {2, 2});
  MultiArray n(ArrayDataType::int32, {4});
  for (int k = 0; k < 4; ++k) {
    h.halves()[k] = floatToHalf(0.25f * static_cast<float>(k));
    n.ints()[k] = -k;
  }
  // Given in the opposite order: forward still receives i, then h.
  FeatureSet out = model->predict({{"h", h}, {"i", n}});
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out.at("h2").shape(), (std::vector<std::int64_t>{2, 2}));
  EXPECT_EQ(halfToFloat(out.at("h2").halves()[3]), 1.5f);
  EXPECT_EQ(out.at("i1").ints()[3], -4);
  EXPECT_EQ(halfToFloat(model->predictFirst({{"h", h}, {"i", n}}).halves()[1]), 0.5f);

  const std::pair<FeatureSet, const char*> failures[] = {
      {{{"h", h}}, "missing input \"i\""},
      {{{"h", h}, {"i", MultiArray(ArrayDataType::float32, {4})}},
       "is float32, the graph takes int32"},
      {{{"h", MultiArray(ArrayDataType::float16, {3})}, {"i", n}}, "has shape [3]"}};
  for (const auto& [inputs, expected] : failures) {
    EXPECT_THAT([&] { model->predict(inputs); },
                ::testing::ThrowsMessage<PredictionError>(::testing::HasSubstr(expected)));
  }
}

TEST(ModelDescription, AcceptsTheFormatAndNamesWhatIsWrong) {
  const std::pair<const char*, const char*> cases[] = {
      {R"({"inputs":[{"name":"x","shape":[1,-1],"dtype":"int32"}],"outputs":[{"name":"y"}]})", ""},
      {R"([1])", "io.json is not a JSON object"},
      {R"({"inputs":[{"shape":[1],"dtype":"int32"}],"outputs":[]})", "inputs entry 0 has no name"},
      {R"({"inputs":[{"name":"x","shape":[1]}],"outputs":[]})",
       "feature \"x\" needs both \"shape\" and \"dtype\""},
      {R"({"inputs":[{"name":"x","shape":[1.5],"dtype":"int32"}],"outputs":[]})",
       "feature \"x\" has a non-integer dimension"},
      {R"({"inputs":[],"outputs":[{"name":"y","shape":[1],"dtype":"float64"}]})",
       "feature \"y\" has an unknown dtype \"float64\""},
      {R"({"inputs":[{"name":"x"},{"name":"x"}],"outputs":[]})",
       "feature \"x\" is listed twice in \"inputs\""}};
  for (auto [json, expected] : cases) {
    std::string error;
    EXPECT_EQ(ModelDescription::parse(json, &error).has_value(), *expected == '\0') << json;
    EXPECT_EQ(error, expected);
  }
}

struct ProbeCase {
  const char* label;
  std::string source, io;
  std::optional<std::string> reason;
};

class DeadGraphReason : public ::testing::TestWithParam<ProbeCase> {};

TEST_P(DeadGraphReason, JudgesTheSyntheticPrediction) {
  testing::Scratch scratch;
  std::vector<float> oneNaN(1000, 1.0f);
  oneNaN[500] = std::numeric_limits<float>::quiet_NaN();
  auto model = makeGraph(scratch.dir() / "g.mlpackage", GetParam().source, GetParam().io,
                         {{"n", {1000}, 0.0f, oneNaN}}, ComputeUnits::cpuAndNeuralEngine);
  ASSERT_TRUE(model);
  EXPECT_EQ(Lumora2Engine::deadGraphReason(*model), GetParam().reason);
}

const std::string kX = feature("x", "[1000]"), kY = feature("y", "[1000]");

INSTANTIATE_TEST_SUITE_P(
    Graphs, DeadGraphReason,
    ::testing::Values(
        ProbeCase{"alive", "def forward(self, x):\n  return x * 2.0\n", io(kX, kY), std::nullopt},
        ProbeCase{"zeros", "def forward(self, x):\n  return x * 0.0\n", io(kX, kY),
                  "ALL 1000 outputs are ZERO"},
        ProbeCase{"one_nan", "def forward(self, x):\n  return (x, x + self.n)\n",
                  io(kX, kY + "," + feature("z", "[1000]")), "1 of 2000 outputs are NaN/Inf"},
        ProbeCase{"integer_output_unjudged", "def forward(self, x):\n  return (x * 0.0, x.int())\n",
                  io(kX, kY + "," + feature("i", "[1000]", "int32")), std::nullopt},
        ProbeCase{"flexible_input_unjudged", "def forward(self, x):\n  return x * 0.0\n",
                  io(feature("x", "[1,-1]"), kY), std::nullopt},
        ProbeCase{"failing_prediction", "def forward(self, x):\n  return x.view(7)\n",
                  io(feature("x", "[2,3]"), kY), "prediction FAILED"}),
    [](const auto& param) { return std::string(param.param.label); });

}  // namespace
}  // namespace lumora2
