// Graph packages compile, load and predict with named inputs and outputs; LibTorch failures come
// back as the engine's own errors.
#include <gtest/gtest.h>

#include <fstream>

#include "engine/graph_model.h"
#include "support/harness.h"
#include "support/package_maker.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;
using testing::Scratch;
using testing::writeScriptPackage;

MultiArray floats(std::vector<std::int64_t> shape, std::vector<float> values) {
  MultiArray a(ArrayDataType::float32, std::move(shape));
  std::copy(values.begin(), values.end(), a.floats());
  return a;
}

class GraphRuntime : public ::testing::Test {
 protected:
  // Writes, compiles and loads a package; fails the test when any step does.
  std::shared_ptr<GraphModel> make(const std::string& source, const std::string& io,
                                   const std::vector<testing::Weight>& weights = {}) {
    fs::path package = scratch.dir() / ("p" + std::to_string(count++) + ".mlpackage");
    writeScriptPackage(package, source, io, weights);
    std::string error;
    auto compiled = compileModelPackage(package, &error);
    EXPECT_TRUE(compiled) << error;
    if (!compiled) return nullptr;
    auto model = GraphModel::load(*compiled, ComputeUnits::cpuOnly, &error);
    EXPECT_TRUE(model) << error;
    return model;
  }
  Scratch scratch;
  int count = 0;
};

const std::string kTwoInTwoOut =
    R"({"inputs":[{"name":"a","shape":[3],"dtype":"float32"},{"name":"b","shape":[3],"dtype":"float32"}],)"
    R"("outputs":[{"name":"diff","shape":[3],"dtype":"float32"},{"name":"sum","shape":[3],"dtype":"float32"}]})";

TEST_F(GraphRuntime, InputsGoByDescribedPositionAndOutputsAreNamed) {
  auto model = make("def forward(self, a, b):\n  return (a - b, a + b)\n", kTwoInTwoOut);
  ASSERT_TRUE(model);
  // Given in the opposite order: forward still receives a, then b.
  FeatureSet out =
      model->predict({{"b", floats({3}, {1, 2, 3})}, {"a", floats({3}, {10, 20, 30})}});
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out.at("diff").floats()[2], 27.0f);
  EXPECT_EQ(out.at("sum").floats()[0], 11.0f);
  MultiArray first =
      model->predictFirst({{"a", floats({3}, {5, 5, 5})}, {"b", floats({3}, {1, 1, 1})}});
  EXPECT_EQ(first.floats()[0], 4.0f);  // "diff" is listed first
}

TEST_F(GraphRuntime, HalfAndIntegerArraysCrossTheBoundaryUnchanged) {
  auto model = make("def forward(self, h, i):\n  return (h * 2.0, i + 1)\n",
                    R"({"inputs":[{"name":"h","shape":[2,2],"dtype":"float16"},)"
                    R"({"name":"i","shape":[4],"dtype":"int32"}],)"
                    R"("outputs":[{"name":"h2","shape":[2,2],"dtype":"float16"},)"
                    R"({"name":"i1","shape":[4],"dtype":"int32"}]})");
  ASSERT_TRUE(model);
  MultiArray h(ArrayDataType::float16, {2, 2});
  MultiArray n(ArrayDataType::int32, {4});
  for (int k = 0; k < 4; ++k) {
    h.halves()[k] = floatToHalf(0.25f * static_cast<float>(k));
    n.ints()[k] = -k;
  }
  FeatureSet out = model->predict({{"h", h}, {"i", n}});
  const MultiArray& h2 = out.at("h2");
  ASSERT_EQ(h2.dataType(), ArrayDataType::float16);
  EXPECT_EQ(h2.shape(), (std::vector<std::int64_t>{2, 2}));
  EXPECT_EQ(halfToFloat(h2.halves()[3]), 1.5f);
  EXPECT_EQ(out.at("i1").ints()[3], -2);
}

TEST_F(GraphRuntime, ResultsNeverAliasTheGraphsConstants) {
  auto model = make("def forward(self, x):\n  return self.w\n", testing::simpleIo("[2]"),
                    {{"w", {2}, 7.0f}});
  ASSERT_TRUE(model);
  FeatureSet in{{"x", floats({2}, {0, 0})}};
  model->predictFirst(in).floats()[0] = -1.0f;
  EXPECT_EQ(model->predictFirst(in).floats()[0], 7.0f);
}

struct BadPrediction {
  const char* label;
  FeatureSet inputs;
  const char* expected;  // a fragment of what()
};

TEST_F(GraphRuntime, FailedPredictionsThrowWithTheCause) {
  auto model = make("def forward(self, x):\n  return x.view(7)\n", testing::simpleIo("[-1]"));
  ASSERT_TRUE(model);
  const BadPrediction cases[] = {
      {"missing input", {{"z", floats({6}, {})}}, "missing input \"x\""},
      {"wrong type",
       {{"x", MultiArray(ArrayDataType::int32, {6})}},
       "is int32, the graph takes float32"},
      {"forward fails", {{"x", floats({6}, {})}}, "shape '[7]' is invalid"},
  };
  for (const auto& c : cases) {
    try {
      model->predict(c.inputs);
      ADD_FAILURE() << c.label << ": no error";
    } catch (const PredictionError& e) {
      EXPECT_NE(std::string(e.what()).find(c.expected), std::string::npos)
          << c.label << ": " << e.what();
    }
  }
}

TEST_F(GraphRuntime, LoadRefusesAForwardThatDoesNotTakeTheDescribedInputs) {
  fs::path package = scratch.dir() / "arity.mlpackage";
  writeScriptPackage(package, "def forward(self, a, b):\n  return a\n", testing::simpleIo("[1]"));
  auto compiled = compileModelPackage(package);
  ASSERT_TRUE(compiled);
  std::string error;
  EXPECT_FALSE(GraphModel::load(*compiled, ComputeUnits::all, &error));
  EXPECT_EQ(error, "forward takes 2 inputs, io.json describes 1");
}

TEST_F(GraphRuntime, CompileFailsForPackagesThatDoNotLoadOrDescribeThemselves) {
  fs::path good = scratch.dir() / "good.mlpackage";
  writeScriptPackage(good, "def forward(self, x):\n  return x\n", testing::simpleIo("[1]"));
  fs::path garbage = scratch.dir() / "garbage.mlpackage";
  fs::create_directories(garbage);
  std::ofstream(garbage / "model.pt") << "not a module";
  fs::copy_file(good / "io.json", garbage / "io.json");
  fs::path noIo = scratch.dir() / "noio.mlpackage";
  fs::create_directories(noIo);
  fs::copy_file(good / "model.pt", noIo / "model.pt");
  for (const fs::path& p : {garbage, noIo, scratch.dir() / "absent.mlpackage"}) {
    std::string error;
    EXPECT_FALSE(compileModelPackage(p, &error)) << p;
    EXPECT_FALSE(error.empty()) << p;
  }
  // Nothing of the failed compiles is left in the temporary directory.
  EXPECT_TRUE(fs::is_empty(scratch.tmp()));
  auto compiled = compileModelPackage(good);
  ASSERT_TRUE(compiled);
  EXPECT_EQ(compiled->parent_path(), scratch.tmp());
  EXPECT_TRUE(fs::exists(*compiled / "model.pt") && fs::exists(*compiled / "io.json"));
}

}  // namespace
}  // namespace lumora2
