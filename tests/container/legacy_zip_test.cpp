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
using ::testing::ThrowsMessage;

class LegacyZipTest : public test::ScratchTest {
 protected:
  // A zip artifact as an older packer wrote it.
  fs::path zipArtifact(const std::string& manifest) {
    scratch_.write("stage/manifest.json", manifest);
    scratch_.write("stage/pkg.mlpackage/model.pt", "weights");
    Archive::zip(scratch_ / "stage", scratch_ / "old.model");
    return scratch_ / "old.model";
  }
};

TEST_F(LegacyZipTest, ReadsTheManifestAndUnpacksAZipArtifact) {
  fs::path artifact = zipArtifact("{\"format\": \"vivra-engine/1\"}");
  EXPECT_TRUE(Lumora2Container::isLegacyZip(artifact));
  EXPECT_EQ(Archive::readManifest(artifact), "{\"format\": \"vivra-engine/1\"}");
  Archive::unzip(artifact, scratch_ / "out");
  EXPECT_EQ(test::listTree(scratch_ / "out"), test::listTree(scratch_ / "stage"));
  EXPECT_THAT(
      [&] { Archive::readImxManifest(artifact); },
      ThrowsMessage<Err>(StartsWith("IMX: " + artifact.string() + ": legacy ZIP container")));
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

TEST_F(LegacyZipTest, AbsentOrEmptyManifestIsRefused) {
  EXPECT_THAT([&] { Archive::readManifest(zipArtifact("")); },
              ThrowsMessage<Err>(::testing::StrEq("no manifest.json in old.model")));
  fs::remove(scratch_ / "stage/manifest.json");
  Archive::zip(scratch_ / "stage", scratch_ / "bare.model");
  EXPECT_THAT(
      [&] { Archive::readManifest(scratch_ / "bare.model"); },
      ThrowsMessage<Err>(StartsWith("`/usr/bin/unzip -p " + (scratch_ / "bare.model").string() +
                                    " manifest.json` exited 11:\n")));
}

TEST_F(LegacyZipTest, ImxArtifactsNeverReachTheZipTools) {
  // unzip would fail on these bytes; success shows the built-in reader took them.
  fs::path imx = test::ImxBuilder()
                     .add("a/b.bin", "B")
                     .add("manifest.json", "{}")
                     .writeTo(scratch_ / "n.model");
  EXPECT_EQ(Archive::readManifest(imx), "{}");
  Archive::unzip(imx, scratch_ / "out");
  EXPECT_EQ(test::readBytes(scratch_ / "out/a/b.bin"), "B");
}

}  // namespace
}  // namespace lumora2
