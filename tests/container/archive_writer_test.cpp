// The IMX writer: what staging leaves out, member order, the limits it refuses, and containers that
// the reader (held to the layout by imx_reader_test's hand-made images) takes back whole, data
// right after the table; the byte layout of real packs is in the golden cases. The legacy zip form
// through the real /usr/bin/zip and /usr/bin/unzip; member digests, of a file that shrinks while it
// is hashed and of a model package's directory.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "container/archive.h"
#include "container/error.h"
#include "container/imx.h"
#include "support/imx_builder.h"
#include "support/scratch_dir.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using ::testing::ThrowsMessage;

class ArchiveWriterTest : public test::ScratchTest {
 protected:
  std::vector<std::string> stagedNames() const {
    std::vector<std::string> out;
    for (const auto& m : Archive::stage(scratch_ / "stage")) out.push_back(m.name);
    return out;
  }
  const fs::path out_ = scratch_ / "out.imx";
};

TEST_F(ArchiveWriterTest, StagesRegularFilesInCanonicalNameOrderWithTheManifestLast) {
  scratch_.write("stage/manifest.json", "m");
  scratch_.write("stage/.hidden", "h");
  scratch_.write("stage/pkg.mlpackage/manifest.json", "nested");
  // "e" + U+0301 is canonically "é" (C3 A9), which sorts after "f" although its raw bytes do not.
  scratch_.write("stage/e\xCC\x81.bin", "1");
  scratch_.write("stage/f.bin", "2");
  fs::create_directories(scratch_ / "stage/empty/deeper");
  fs::create_symlink("f.bin", scratch_ / "stage/link-to-file");
  fs::create_directory_symlink("pkg.mlpackage", scratch_ / "stage/link-to-dir");
  ASSERT_EQ(::mkfifo((scratch_ / "stage/fifo").c_str(), 0600), 0);
  EXPECT_THAT(stagedNames(), ElementsAre(".hidden", "f.bin", "pkg.mlpackage/manifest.json",
                                         "e\xCC\x81.bin", "manifest.json"));
}

TEST_F(ArchiveWriterTest, RefusesWhatTheReaderCouldNotReadBackBeforeWriting) {
  scratch_.write("stage/bad-\xff.bin", "b");
  EXPECT_THAT([&] { stagedNames(); },
              ThrowsMessage<ArtifactError>(HasSubstr("its name is not valid UTF-8")));

  std::vector<Archive::StagedMember> members(65535, {"x", scratch_.write("empty", ""), 0});
  Archive::writeImxMembers(members, std::nullopt, out_);
  EXPECT_EQ(Lumora2Container::members(out_).size(), 65535u);
  fs::remove(out_);
  EXPECT_THAT(
      [&] { Archive::writeImxMembers(members, std::string("{}"), out_); },
      ThrowsMessage<ArtifactError>(::testing::StrEq("too many members (65536) for IMX u16 count")));
  EXPECT_FALSE(fs::exists(out_));
}

TEST_F(ArchiveWriterTest, RoundTripsLargeMembersAndAnInMemoryManifestThroughTheReader) {
  // Larger than one copy piece and not a multiple of it, so the last partial piece counts.
  std::string big(3 * Lumora2Container::copyChunk + 5, '\0');
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>((i * 131) >> 3);
  scratch_.write("stage/big.bin", big);
  scratch_.write("stage/empty.bin", "");
  scratch_.write("stage/manifest.json", "staged manifest is replaced by order, not content");
  test::writeBytes(out_, std::string(10 << 20, 'x'));  // a longer old file is replaced

  std::vector<Archive::StagedMember> members = Archive::stage(scratch_ / "stage");
  members.pop_back();  // the pack commands drop the staged manifest and supply their own
  std::vector<std::uint64_t> progress;
  Archive::writeImxMembers(members, std::string("{\"k\": 1}"), out_,
                           [&](std::uint64_t done, std::uint64_t total) {
                             EXPECT_EQ(total, big.size() + 8);
                             progress.push_back(done);
                           });
  EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
  EXPECT_EQ(progress.back(), big.size() + 8);

  std::vector<Member> toc = Lumora2Container::members(out_);
  ASSERT_EQ(toc.size(), 3u);
  EXPECT_EQ(toc[0], (Member{"big.bin", 8 + 3 * (2 + 16) + 7 + 9 + 13, big.size()}));
  EXPECT_EQ(Lumora2Container::readManifest(out_), "{\"k\": 1}");
  EXPECT_EQ(fs::file_size(out_), toc[2].offset + toc[2].size);
  Lumora2Container::unpack(out_, scratch_ / "back");
  EXPECT_EQ(test::readBytes(scratch_ / "back/big.bin"), big);
  EXPECT_EQ(test::readBytes(scratch_ / "back/empty.bin"), "");
}

TEST_F(ArchiveWriterTest, ReadsTheManifestAndUnpacksALegacyZipArtifact) {
  scratch_.write("stage/manifest.json", "{\"format\": \"vivra-engine/1\"}");
  scratch_.write("stage/pkg.mlpackage/model.pt", "weights");
  const fs::path artifact = scratch_ / "old.model";  // as an older packer wrote it
  Archive::zip(scratch_ / "stage", Archive::stage(scratch_ / "stage"), artifact);
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
TEST_F(ArchiveWriterTest, BothFormsPackTheSameMembersAndNeverFollowLinks) {
  scratch_.write("outside/secret.bin", "not a member");
  scratch_.write("stage/-dash[1]*.bin", "literal name");
  scratch_.write("stage/pkg.mlpackage/model.pt", "weights");
  fs::create_symlink(scratch_ / "outside/secret.bin", scratch_ / "stage/file-link");
  fs::create_symlink(scratch_ / "outside", scratch_ / "stage/dir-link");
  Archive::zip(scratch_ / "stage", Archive::stage(scratch_ / "stage"), scratch_ / "z.model");
  Archive::writeImxContainer(scratch_ / "stage", scratch_ / "i.model");
  Archive::unzip(scratch_ / "z.model", scratch_ / "from-zip");
  Archive::unzip(scratch_ / "i.model", scratch_ / "from-imx");
  const std::vector<std::string> expected{"-dash[1]*.bin (12 bytes)", "pkg.mlpackage/",
                                          "pkg.mlpackage/model.pt (7 bytes)"};
  EXPECT_EQ(test::listTree(scratch_ / "from-zip"), expected);
  EXPECT_EQ(test::listTree(scratch_ / "from-imx"), expected);
}

// Another process truncating a member mid-digest (a re-pack into the same path, say) must end in an
// error naming the file; a reader that maps the file is killed by SIGBUS instead.
TEST_F(ArchiveWriterTest, AFileTruncatedWhileHashedIsAnErrorNotASignal) {
  const fs::path file = scratch_.write("shrinking", std::string(16u << 20, 'x'));
  bool truncated = false;
  auto truncateOnce = [&](std::uint64_t, std::uint64_t) {
    if (!truncated) {
      truncated = true;
      ASSERT_EQ(::truncate(file.c_str(), 4096), 0);
    }
  };
  EXPECT_THAT([&] { Archive::digest(file, truncateOnce); },
              ThrowsMessage<ArtifactError>(
                  HasSubstr(file.string() + " changed while it was being hashed")));
}

TEST_F(ArchiveWriterTest, DirectoryHashesSortedNamesThenBytesWithoutSeparators) {
  fs::create_directories(scratch_ / "pkg/empty");
  EXPECT_EQ(Archive::digest(scratch_ / "pkg").sha256,  // nothing at all
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  // SHA-256("a/x" "1" "b" "2"): names relative to the package, in member-name order; links and
  // directories add nothing.
  scratch_.write("pkg/b", "2");
  scratch_.write("pkg/a/x", "1");
  fs::create_symlink("b", scratch_ / "pkg/link");
  Archive::Digest d = Archive::digest(scratch_ / "pkg");
  EXPECT_EQ(d.sha256, "711fb573544f692e39b88976a743a35cecf4fb573099093180ac40490889b4c3");
  EXPECT_EQ(d.bytes, 2u);
}

}  // namespace
}  // namespace lumora2
