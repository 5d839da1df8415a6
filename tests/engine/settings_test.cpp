// The runtime's graph-free services: where packages and resources are found (identity, developer
// and engine directories, then the two bundles beside the running executable), which compute units
// a graph runs on, and log lines that concurrent writers never tear.
#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "engine/log.h"
#include "engine/lumora2_engine.h"
#include "support/harness.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;
using testing::Scratch;

void touch(const fs::path& p) {
  fs::create_directories(p.parent_path());
  std::ofstream(p) << "x";
}

TEST(ModelResolution, ModelsSearchEveryDirectoryButResourcesOnlyAnActiveIdentity) {
  Scratch scratch;
  fs::path agent = scratch.dir() / "agent", dev = scratch.dir() / "dev",
           engine = scratch.dir() / "engine";
  fs::create_directories(agent);
  scratch.env().set("MORVANE_VIVRA_DIR", dev.string());
  Lumora2Engine::setActiveAgentDir(agent);
  Lumora2Engine::setEngineDir(engine);
  fs::create_directories(engine / "m.mlpackage");
  EXPECT_EQ(Lumora2Engine::modelURL("m"), engine / "m.mlpackage");
  touch(dev / "m.mlpackage");  // any kind of object counts, a plain file too
  EXPECT_EQ(Lumora2Engine::modelURL("m"), dev / "m.mlpackage");
  fs::create_directories(agent / "m.mlpackage");
  EXPECT_EQ(Lumora2Engine::modelURL("m"), agent / "m.mlpackage");
  EXPECT_EQ(Lumora2Engine::modelURL("absent"), std::nullopt);

  touch(dev / "canon.f32");
  touch(engine / "idle.mp4");
  EXPECT_EQ(Lumora2Engine::resURL("canon", "f32"), std::nullopt);  // the identity hides dev
  touch(agent / "canon.f32");
  EXPECT_EQ(Lumora2Engine::resURL("canon", "f32"), agent / "canon.f32");
  Lumora2Engine::setActiveAgentDir(std::nullopt);
  fs::remove(agent / "canon.f32");
  EXPECT_EQ(Lumora2Engine::resURL("canon", "f32"), dev / "canon.f32");
  EXPECT_EQ(Lumora2Engine::resURL("idle", "mp4"), std::nullopt);  // never the engine directory
  Lumora2Engine::setEngineDir(std::nullopt);
}

TEST(ModelResolution, DevDirPrefersANonEmptyLumora2DirAndExpandsTilde) {
  using Opt = std::optional<std::string>;
  const std::tuple<Opt, Opt, Opt> cases[] = {
      {"/a", "/b", "/a"}, {"", "/b", "/b"}, {"", "", std::nullopt}, {"~/m", "/b", "/home/t/m"}};
  Scratch scratch;
  scratch.env().set("HOME", "/home/t");
  for (const auto& [lumora2, vivra, expected] : cases) {
    scratch.env().set("MORVANE_LUMORA2_DIR", lumora2);
    scratch.env().set("MORVANE_VIVRA_DIR", vivra);
    auto dir = Lumora2Engine::devDir();
    EXPECT_EQ(dir ? Opt(dir->string()) : std::nullopt, expected) << lumora2.value_or("<unset>");
  }
}

// The bundles are found from the running executable, so the driver is copied into a laid-out
// tree: <app>/bin/driver, <app>/share/lumora2-model.
TEST(Bundles, SearchOwnThenMainBundleEachInVivraThenTopLevel) {
  Scratch scratch;
  fs::path app = scratch.dir() / "app", own = app / "share" / "lumora2-model", main = app / "bin";
  const fs::path found[] = {own / "vivra" / "a.mlpackage", own / "b.mlpackage",
                            main / "vivra" / "c.mlpackage", main / "d.mlpackage",
                            main / "canon.f32"};
  std::string want;
  for (const auto& p : found) {
    touch(p);
    want += p.string() + "\n";
  }
  for (const auto& p : {main / "a.mlpackage", main / "vivra" / "b.mlpackage", main / "c.mlpackage"})
    touch(p);
  std::string driver = (main / "driver").string();
  fs::copy_file(LUMORA2_ENGINE_DRIVER, driver);
  EXPECT_EQ(testing::outputOf({driver, "model-url", "a", "model-url", "b", "model-url", "c",
                               "model-url", "d", "res-url", "canon", "f32"}),
            want);
}

TEST(ComputeUnits, OnlyTheFourExactNamesSelectAUnit) {
  const std::pair<std::optional<std::string>, const char*> cases[] = {
      {std::nullopt, "cpuAndNE"}, {"cpuOnly", "cpuOnly"},
      {"cpuAndGPU", "cpuAndGPU"}, {"all", "all"},
      {"ALL", "cpuAndNE"},        {" all", "cpuAndNE"},
      {"", "cpuAndNE"},           {"cpuAndNeuralEngine", "cpuAndNE"}};
  for (const auto& [value, expected] : cases) {
    testing::EnvOverride env;
    env.set("LUMORA2_W2V_CU", value);
    const ComputeUnits units = computeUnitsNamed(expected).value();
    EXPECT_EQ(Lumora2Engine::cuNameFromEnv("LUMORA2_W2V_CU", "cpuAndNE"), expected)
        << value.value_or("<unset>");
    EXPECT_EQ(Lumora2Engine::cuFromEnv("LUMORA2_W2V_CU", ComputeUnits::cpuAndNeuralEngine), units);
    EXPECT_EQ(Lumora2Engine::cuForModel("w2v_frontend_cpuAndNE"), units);
  }
}

TEST(ComputeUnits, PerGraphKnobsApplyInOrderAndDecoderNamesDefaultToNeuralEngine) {
  testing::EnvOverride env;
  env.set("LUMORA2_STUDENT_CU", "cpuOnly");
  env.set("LUMORA2_W2V_CU", "cpuAndGPU");
  env.set("LUMORA2_ATOK_CU", "all");
  env.set("LUMORA2_SOMETHING_CU", "cpuOnly");
  EXPECT_EQ(Lumora2Engine::cuNameFromEnv("LUMORA2_SOMETHING_CU", "all"), "all");  // not a knob
  const std::pair<const char*, ComputeUnits> models[] = {
      {"w2v_student", ComputeUnits::cpuOnly},
      {"audiotokenizer_w2v", ComputeUnits::cpuAndGPU},
      {"audiotokenizer_cpuAndNE", ComputeUnits::all},
      {"AudioTokenizer", ComputeUnits::cpuAndNeuralEngine}};
  for (auto [name, units] : models) EXPECT_EQ(Lumora2Engine::cuForModel(name), units) << name;
  EXPECT_EQ(Lumora2Engine::cuFromName("cpuAndGPU"), ComputeUnits::cpuAndGPU);
  EXPECT_EQ(Lumora2Engine::cuFromName("cpuonly"), ComputeUnits::cpuAndNeuralEngine);
}

TEST(EngineLog, ConcurrentLinesArriveWhole) {
  constexpr std::size_t kThreads = 8, kLines = 200;
  testing::StderrCapture capture;
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      // Long lines: a torn write would show as a line mixing two threads' letters.
      std::string text(3000, static_cast<char>('a' + t));
      for (std::size_t i = 0; i < kLines; ++i) engineLog(text);
    });
  }
  for (auto& thread : threads) thread.join();
  auto lines = testing::logTexts(capture.finish());
  ASSERT_EQ(lines.size(), kThreads * kLines);
  for (const auto& line : lines) ASSERT_EQ(line, std::string(3000, line[0]));
}

}  // namespace
}  // namespace lumora2
