// Where packages and resources are found: identity, developer and engine directories, then the
// two bundles beside the running executable.
#include <gtest/gtest.h>

#include <fstream>

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

class ModelResolution : public ::testing::Test {
 protected:
  void SetUp() override {
    agent = scratch.dir() / "agent";
    dev = scratch.dir() / "dev";
    engine = scratch.dir() / "engine";
    for (const auto& d : {agent, dev, engine}) fs::create_directories(d);
    scratch.env().set("MORVANE_VIVRA_DIR", dev.string());
    Lumora2Engine::setActiveAgentDir(agent);
    Lumora2Engine::setEngineDir(engine);
  }
  void TearDown() override {
    Lumora2Engine::setActiveAgentDir(std::nullopt);
    Lumora2Engine::setEngineDir(std::nullopt);
  }
  Scratch scratch;
  fs::path agent, dev, engine;
};

TEST_F(ModelResolution, ModelsGoOnFromTheIdentityToDeveloperAndEngineDirectories) {
  fs::create_directories(engine / "m.mlpackage");
  EXPECT_EQ(Lumora2Engine::modelURL("m"), engine / "m.mlpackage");
  touch(dev / "m.mlpackage");  // any kind of object counts, a plain file too
  EXPECT_EQ(Lumora2Engine::modelURL("m"), dev / "m.mlpackage");
  fs::create_directories(agent / "m.mlpackage");
  EXPECT_EQ(Lumora2Engine::modelURL("m"), agent / "m.mlpackage");
  EXPECT_EQ(Lumora2Engine::modelURL("absent"), std::nullopt);
}

TEST_F(ModelResolution, ResourcesComeOnlyFromAnActiveIdentity) {
  touch(dev / "canon.f32");
  touch(engine / "idle.mp4");
  EXPECT_EQ(Lumora2Engine::resURL("canon", "f32"), std::nullopt);
  touch(agent / "canon.f32");
  EXPECT_EQ(Lumora2Engine::resURL("canon", "f32"), agent / "canon.f32");

  Lumora2Engine::setActiveAgentDir(std::nullopt);
  fs::remove(agent / "canon.f32");
  EXPECT_EQ(Lumora2Engine::resURL("canon", "f32"), dev / "canon.f32");
  EXPECT_EQ(Lumora2Engine::resURL("idle", "mp4"), std::nullopt);  // never the engine directory
}

struct DevDirCase {
  std::optional<std::string> lumora2;
  std::optional<std::string> vivra;
  std::optional<std::string> expected;  // "~" stands for $HOME
};

class DevDir : public ::testing::TestWithParam<DevDirCase> {};

TEST_P(DevDir, PrefersANonEmptyLumora2DirAndExpandsTilde) {
  Scratch scratch;
  scratch.env().set("HOME", "/home/tester");
  scratch.env().set("MORVANE_LUMORA2_DIR", GetParam().lumora2);
  scratch.env().set("MORVANE_VIVRA_DIR", GetParam().vivra);
  auto dir = Lumora2Engine::devDir();
  EXPECT_EQ(dir ? std::optional<std::string>(dir->string()) : std::nullopt, GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Variables, DevDir,
    ::testing::Values(DevDirCase{"/a", "/b", "/a"}, DevDirCase{"", "/b", "/b"},
                      DevDirCase{std::nullopt, "/b", "/b"}, DevDirCase{"", "", std::nullopt},
                      DevDirCase{std::nullopt, std::nullopt, std::nullopt},
                      DevDirCase{"~/models", std::nullopt, "/home/tester/models"},
                      DevDirCase{"~", std::nullopt, "/home/tester"},
                      DevDirCase{"/x/~/y", std::nullopt, "/x/~/y"}));

// The bundles are found from the running executable, so the driver is copied into a laid-out
// tree: <app>/bin/driver, <app>/share/lumora2-model.
TEST(Bundles, SearchOwnThenMainBundleEachInVivraThenTopLevel) {
  Scratch scratch;
  fs::path app = scratch.dir() / "app";
  fs::path own = app / "share" / "lumora2-model";
  fs::path main = app / "bin";
  fs::create_directories(main);
  fs::copy_file(LUMORA2_ENGINE_DRIVER, main / "driver");
  for (const auto& p : {own / "vivra" / "a.mlpackage", main / "a.mlpackage", own / "b.mlpackage",
                        main / "vivra" / "b.mlpackage", main / "vivra" / "c.mlpackage",
                        main / "c.mlpackage", main / "d.mlpackage", main / "canon.f32"}) {
    touch(p);
  }
  // Two processes: without and with an active identity, which shuts the bundles out for
  // resources but not for models.
  std::string driver = (main / "driver").string();
  auto plain =
      testing::runProcess({driver, "model-url", "a", "+", "model-url", "b", "+", "model-url", "c",
                           "+", "model-url", "d", "+", "res-url", "canon", "f32"});
  EXPECT_EQ(plain.out,
            (own / "vivra" / "a.mlpackage").string() + "\n" + (own / "b.mlpackage").string() +
                "\n" + (main / "vivra" / "c.mlpackage").string() + "\n" +
                (main / "d.mlpackage").string() + "\n" + (main / "canon.f32").string() + "\n")
      << plain.err;
  auto agent = testing::runProcess({driver, "--agent", scratch.dir().string(), "res-url", "canon",
                                    "f32", "+", "model-url", "d"});
  EXPECT_EQ(agent.out, "nothing\n" + (main / "d.mlpackage").string() + "\n") << agent.err;
}

}  // namespace
}  // namespace lumora2
