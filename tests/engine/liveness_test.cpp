// The dead-graph probe over real graphs: what it fills in, what it judges dead, what it leaves
// unjudged, and warm-up's front-end warning.
#include <gtest/gtest.h>

#include <cctype>
#include <cmath>
#include <limits>

#include "engine/lumora2_engine.h"
#include "support/harness.h"
#include "support/package_maker.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;
using testing::Scratch;
using testing::Weight;

std::shared_ptr<GraphModel> makeGraph(const fs::path& dir, const std::string& source,
                                      const std::string& io, const std::vector<Weight>& weights) {
  testing::writeScriptPackage(dir, source, io, weights);
  auto compiled = compileModelPackage(dir);
  if (!compiled) return nullptr;
  return GraphModel::load(*compiled, ComputeUnits::cpuAndNeuralEngine);
}

std::vector<float> probeFloats(int n) {  // what the probe feeds a float32 input
  std::vector<float> v(static_cast<std::size_t>(n));
  for (int i = 0; i < n; ++i)
    v[static_cast<std::size_t>(i)] = static_cast<float>(i % 17) / 17.0f + 0.1f;
  return v;
}

std::vector<float> oneNaN(int n) {
  std::vector<float> v(static_cast<std::size_t>(n), 1.0f);
  v[static_cast<std::size_t>(n / 2)] = std::numeric_limits<float>::quiet_NaN();
  return v;
}

std::vector<float> modSeven(int n) {
  std::vector<float> v(static_cast<std::size_t>(n));
  for (int i = 0; i < n; ++i) v[static_cast<std::size_t>(i)] = static_cast<float>(i % 7);
  return v;
}

std::string io(const std::string& inputs, const std::string& outputs) {
  return R"({"inputs":[)" + inputs + R"(],"outputs":[)" + outputs + "]}";
}
std::string f(const std::string& name, const std::string& shape, const char* dtype = "float32") {
  return R"({"name":")" + name + R"(","shape":)" + shape + R"(,"dtype":")" + dtype + R"("})";
}

struct ProbeCase {
  const char* label;
  std::string source;
  std::string io;
  std::vector<Weight> weights;
  std::optional<std::string> reason;
};

class DeadGraphReason : public ::testing::TestWithParam<ProbeCase> {};

TEST_P(DeadGraphReason, JudgesTheSyntheticPrediction) {
  Scratch scratch;
  const ProbeCase& c = GetParam();
  auto model = makeGraph(scratch.dir() / "g.mlpackage", c.source, c.io, c.weights);
  ASSERT_TRUE(model);
  EXPECT_EQ(Lumora2Engine::deadGraphReason(*model), c.reason);
}

const std::string kX1000 = f("x", "[1000]");

INSTANTIATE_TEST_SUITE_P(
    Graphs, DeadGraphReason,
    ::testing::Values(
        ProbeCase{"alive",
                  "def forward(self, x):\n  return x * 2.0\n",
                  io(kX1000, f("y", "[1000]")),
                  {},
                  std::nullopt},
        ProbeCase{"zeros",
                  "def forward(self, x):\n  return x * 0.0\n",
                  io(kX1000, f("y", "[1000]")),
                  {},
                  "ALL 1000 outputs are ZERO"},
        ProbeCase{"one NaN",
                  "def forward(self, x):\n  return x + self.n\n",
                  io(kX1000, f("y", "[1000]")),
                  {{"n", {1000}, 0.0f, oneNaN(1000)}},
                  "1 of 1000 outputs are NaN/Inf"},
        ProbeCase{"NaN beside a healthy output",
                  "def forward(self, x):\n  return (x, x + self.n)\n",
                  io(kX1000, f("a", "[1000]") + "," + f("b", "[1000]")),
                  {{"n", {1000}, 0.0f, oneNaN(1000)}},
                  "1 of 2000 outputs are NaN/Inf"},
        ProbeCase{"half overflow is infinite",
                  "def forward(self, x):\n  return (x * 1.0e6).half()\n",
                  io(f("x", "[3]"), f("y", "[3]", "float16")),
                  {},
                  "3 of 3 outputs are NaN/Inf"},
        ProbeCase{"integer output leaves it unjudged",
                  "def forward(self, x):\n  return (x * 0.0, x.int())\n",
                  io(kX1000, f("y", "[1000]") + "," + f("i", "[1000]", "int32")),
                  {},
                  std::nullopt},
        ProbeCase{"flexible input is not judged",
                  "def forward(self, x):\n  return x * 0.0\n",
                  io(f("x", "[1,-1]"), f("y", "[]")),
                  {},
                  std::nullopt},
        ProbeCase{"input without a constraint",
                  "def forward(self, x):\n  return x * 0.0\n",
                  io(R"({"name":"x"})", f("y", "[]")),
                  {},
                  std::nullopt},
        ProbeCase{"failing prediction",
                  "def forward(self, x):\n  return x.view(7)\n",
                  io(f("x", "[2,3]"), f("y", "[]")),
                  {},
                  "prediction FAILED"},
        // The fills themselves: each graph subtracts exactly what the probe must have fed it.
        ProbeCase{"float16 fill is 0.5",
                  "def forward(self, x):\n  return x.float() - 0.5\n",
                  io(f("x", "[4,5]", "float16"), f("y", "[4,5]")),
                  {},
                  "ALL 20 outputs are ZERO"},
        ProbeCase{"float32 fill is (i mod 17)/17 + 0.1",
                  "def forward(self, x):\n  return x - self.e\n",
                  io(f("x", "[2,50]"), f("y", "[2,50]")),
                  {{"e", {2, 50}, 0.0f, probeFloats(100)}},
                  "ALL 100 outputs are ZERO"},
        ProbeCase{"int32 fill is i mod 7",
                  "def forward(self, x):\n  return x.float() - self.e\n",
                  io(f("x", "[30]", "int32"), f("y", "[30]")),
                  {{"e", {30}, 0.0f, modSeven(30)}},
                  "ALL 30 outputs are ZERO"}),
    [](const auto& param) {
      std::string name = param.param.label;
      for (char& ch : name) {
        if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
      }
      return name;
    });

TEST(FrontEndLiveness, WarnsOncePerDeadGraphWithItsDeclaredUnit) {
  Scratch scratch;
  scratch.env().set("LUMORA2_ATOK_CU", "cpuOnly");
  auto alive = makeGraph(scratch.dir() / "w.mlpackage", "def forward(self, x):\n  return x\n",
                         testing::simpleIo("[6]"), {});
  auto dead = makeGraph(scratch.dir() / "a.mlpackage", "def forward(self, x):\n  return x * 0.0\n",
                        testing::simpleIo("[6]"), {});
  ASSERT_TRUE(alive && dead);
  testing::StderrCapture capture;
  Lumora2Engine::warnDeadFrontEnd(alive.get(), dead.get(), dead.get());
  EXPECT_EQ(testing::logTexts(capture.finish()),
            (std::vector<std::string>{
                "[vivra] WARN audiotokenizer loaded on cpuOnly (LUMORA2_ATOK_CU) and COMPUTES "
                "NOTHING (ALL 6 outputs are ZERO) — every frame downstream of it is garbage",
                "[vivra] WARN student_v4_forward_frame loaded on cpuAndNE (LUMORA2_STUDENT_CU) and "
                "COMPUTES NOTHING (ALL 6 outputs are ZERO) — every frame downstream of it is "
                "garbage"}));
}

}  // namespace
}  // namespace lumora2
