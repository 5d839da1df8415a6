// The legacy zip form through the real /usr/bin/zip and /usr/bin/unzip, and the sniffing that
// keeps IMX files away from those tools.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "container/archive.h"
#include "container/error.h"
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
    zipStage(scratch_ / "old.model");
    return scratch_ / "old.model";
  }
  void zipStage(const fs::path& to) {
    Archive::zip(scratch_ / "stage", Archive::stage(scratch_ / "stage"), to);
  }
};

TEST_F(LegacyZipTest, ReadsTheManifestAndUnpacksAZipArtifact) {
  fs::path artifact = zipArtifact("{\"format\": \"vivra-engine/1\"}");
  EXPECT_TRUE(Lumora2Container::isLegacyZip(artifact));
  EXPECT_EQ(Archive::readManifest(artifact), "{\"format\": \"vivra-engine/1\"}");
  Archive::unzip(artifact, scratch_ / "out");
  EXPECT_EQ(test::listTree(scratch_ / "out"), test::listTree(scratch_ / "stage"));
  EXPECT_THAT([&] { Archive::readImxManifest(artifact); },
              ThrowsMessage<ArtifactError>(
                  StartsWith("IMX: " + artifact.string() + ": legacy ZIP container")));
}

// zip's own directory walk follows links; packed content must still be exactly the declared
// members, in both forms, whatever the staging tree links to or however its names are spelt.
TEST_F(LegacyZipTest, BothFormsPackTheSameMembersAndNeverFollowLinks) {
  scratch_.write("outside/secret.bin", "not a member");
  scratch_.write("stage/-dash[1]*.bin", "literal name");
  scratch_.write("stage/pkg.mlpackage/model.pt", "weights");
  fs::create_symlink(scratch_ / "outside/secret.bin", scratch_ / "stage/file-link");
  fs::create_symlink(scratch_ / "outside", scratch_ / "stage/dir-link");
  zipStage(scratch_ / "z.model");
  Archive::writeImxContainer(scratch_ / "stage", scratch_ / "i.model");
  Archive::unzip(scratch_ / "z.model", scratch_ / "from-zip");
  Archive::unzip(scratch_ / "i.model", scratch_ / "from-imx");
  const std::vector<std::string> expected{"-dash[1]*.bin (12 bytes)", "pkg.mlpackage/",
                                          "pkg.mlpackage/model.pt (7 bytes)"};
  EXPECT_EQ(test::listTree(scratch_ / "from-zip"), expected);
  EXPECT_EQ(test::listTree(scratch_ / "from-imx"), expected);
}

}  // namespace
}  // namespace lumora2
