// The legacy zip form through the real /usr/bin/zip and /usr/bin/unzip, and the sniffing that
// keeps IMX files away from those tools.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "container/archive.h"
#include "container/command.h"
#include "support/imx_builder.h"
#include "support/scratch_dir.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;
using ::testing::StartsWith;

class LegacyZipTest : public test::ScratchTest {
 protected:
  // A zip artifact as an older packer wrote it.
  fs::path zipArtifact(const std::string& manifest) {
    scratch_.write("stage/manifest.json", manifest);
    scratch_.write("stage/pkg.mlpackage/model.pt", "weights");
    fs::path out = scratch_ / "old.model";
    Archive::zip(scratch_ / "stage", out);
    return out;
  }

  std::string errorOf(const std::function<void()>& f) {
    try {
      f();
    } catch (const Err& e) {
      return e.what();
    }
    return "(no error)";
  }
};

TEST_F(LegacyZipTest, ReadsTheManifestAndUnpacksAZipArtifact) {
  fs::path artifact = zipArtifact("{\"format\": \"vivra-engine/1\"}");
  EXPECT_TRUE(Lumora2Container::isLegacyZip(artifact));
  EXPECT_EQ(Archive::readManifest(artifact), "{\"format\": \"vivra-engine/1\"}");
  Archive::unzip(artifact, scratch_ / "out");
  EXPECT_EQ(test::listTree(scratch_ / "out"), test::listTree(scratch_ / "stage"));
}

TEST_F(LegacyZipTest, ZipReplacesTheOutputAndResolvesARelativeOutputPath) {
  fs::path artifact = zipArtifact("first");
  const fs::path previous = fs::current_path();
  fs::current_path(scratch_.path());
  scratch_.write("stage/manifest.json", "second");
  Archive::zip(scratch_ / "stage", "old.model");  // relative to our directory, not the zip's
  fs::current_path(previous);
  EXPECT_EQ(Archive::readManifest(artifact), "second");
}

TEST_F(LegacyZipTest, EmptyManifestIsNoManifest) {
  EXPECT_EQ(errorOf([&] { Archive::readManifest(zipArtifact("")); }),
            "no manifest.json in old.model");
}

TEST_F(LegacyZipTest, ZipWithoutAManifestReportsTheToolsFailure) {
  scratch_.write("stage/only.bin", "x");
  Archive::zip(scratch_ / "stage", scratch_ / "bare.model");
  std::string message = errorOf([&] { Archive::readManifest(scratch_ / "bare.model"); });
  EXPECT_THAT(message, StartsWith("`/usr/bin/unzip -p " + (scratch_ / "bare.model").string() +
                                  " manifest.json` exited 11:\n"));
}

TEST_F(LegacyZipTest, ImxArtifactsNeverReachTheZipTools) {
  // unzip would fail on these bytes; success shows the built-in reader took them.
  fs::path imx = test::ImxBuilder()
                     .add("a/b.bin", "B")
                     .add("manifest.json", "{}")
                     .writeTo(scratch_ / "new.model");
  EXPECT_EQ(Archive::readManifest(imx), "{}");
  Archive::unzip(imx, scratch_ / "out");
  EXPECT_EQ(test::readBytes(scratch_ / "out/a/b.bin"), "B");
}

TEST_F(LegacyZipTest, ReaderErrorsCarryTheImxPrefix) {
  fs::path zip = zipArtifact("{}");
  EXPECT_THAT(errorOf([&] { Archive::readImxManifest(zip); }),
              StartsWith("IMX: " + zip.string() + ": legacy ZIP container"));
  fs::path hostile = test::ImxBuilder().add("../escape", "x").writeTo(scratch_ / "bad.model");
  EXPECT_THAT(errorOf([&] { Archive::unpackImx(hostile, scratch_ / "out"); }),
              StartsWith("IMX: " + hostile.string() + ": refusing member name \"../escape\""));
  EXPECT_THAT(errorOf([&] { Archive::unzip(hostile, scratch_ / "out"); }), StartsWith("IMX: "));
  EXPECT_FALSE(fs::exists(scratch_ / "escape"));
}

}  // namespace
}  // namespace lumora2
