// Graph packages compile, load and predict with named inputs and outputs; a result unlike its
// description fails the prediction; one graph serves many threads at once. The liveness probe is
// the decoder tests' concern.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <thread>
#include <vector>

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
  for (const auto& failure : failures) {
    EXPECT_THAT([&] { model->predict(failure.first); },
                ::testing::ThrowsMessage<PredictionError>(::testing::HasSubstr(failure.second)));
  }
}

// A result that breaks its description fails the prediction where it enters, like any other
// failed prediction, instead of reaching the frame path with the wrong size or type.
struct ResultCase {
  const char* label;
  std::string source;
  const char* expected;
};

class ResultCheck : public ::testing::TestWithParam<ResultCase> {};

TEST_P(ResultCheck, AResultUnlikeItsDescriptionFailsThePrediction) {
  testing::Scratch scratch;
  auto model = makeGraph(scratch.dir() / "g.mlpackage", GetParam().source,
                         io(feature("x", "[1,4]"), feature("rgb", "[1,3,4,2]", "float16")));
  ASSERT_TRUE(model);
  MultiArray x(ArrayDataType::float32, {1, 4});
  EXPECT_THAT(
      [&] {
        model->predict({{"x", x}});
      },
      ::testing::ThrowsMessage<PredictionError>(::testing::HasSubstr(GetParam().expected)));
}

INSTANTIATE_TEST_SUITE_P(
    Results, ResultCheck,
    ::testing::Values(
        ResultCase{"float32_for_float16",
                   "def forward(self, x):\n  return x.mean().expand(1, 3, 4, 2)\n",
                   "output \"rgb\" is float32, io.json describes float16"},
        ResultCase{"smaller_picture",
                   "def forward(self, x):\n  return x.mean().expand(1, 3, 4, 1).half()\n",
                   "output \"rgb\" has shape [1,3,4,1], io.json describes [1,3,4,2]"},
        ResultCase{"other_rank",
                   "def forward(self, x):\n  return x.mean().expand(3, 4, 2).half()\n",
                   "has shape [3,4,2]"}),
    [](const auto& param) { return std::string(param.param.label); });

// One graph serves every engine of a process: predictions from many threads run on it side by
// side, and each caller gets the result of its own input.
TEST(GraphRuntime, ConcurrentPredictionsOnOneGraphEachGetTheirOwnResult) {
  testing::Scratch scratch;
  auto model = makeGraph(scratch.dir() / "g.mlpackage",
                         "def forward(self, x):\n  return torch.tanh(x) * 2.0 + x\n",
                         io(feature("x", "[256]"), feature("y", "[256]")));
  ASSERT_TRUE(model);
  constexpr int kThreads = 8, kRounds = 50;
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int r = 0; r < kRounds; ++r) {
        MultiArray x(ArrayDataType::float32, {256});
        const float v = static_cast<float>(t) + 0.01f * static_cast<float>(r);
        std::fill_n(x.floats(), 256, v);
        const MultiArray y = model->predictFirst({{"x", x}});
        const float want = std::tanh(v) * 2.0f + v;
        for (int k = 0; k < 256; ++k) {
          if (std::fabs(y.floats()[k] - want) > 1e-5f * (1.0f + std::fabs(want))) {
            ++wrong;
            break;
          }
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
}  // namespace lumora2
