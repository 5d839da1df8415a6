// The IMX writer: exact bytes for known staging trees, what staging leaves out, member order, the
// limits it refuses, and containers that the reader takes back whole.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>

#include "container/archive.h"
#include "container/error.h"
#include "container/imx.h"
#include "support/imx_builder.h"
#include "support/scratch_dir.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;
using test::le16;
using test::le64;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
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

TEST_F(ArchiveWriterTest, WritesTheDocumentedLayoutByteForByte) {
  scratch_.write("stage/b.bin", "BB");
  scratch_.write("stage/a/z.bin", "Z");
  scratch_.write("stage/manifest.json", "{}");
  Archive::writeImxContainer(scratch_ / "stage", out_);
  auto entry = [](const std::string& name, std::uint64_t offset, std::uint64_t size) {
    return le16(static_cast<std::uint16_t>(name.size())) + name + le64(offset) + le64(size);
  };
  // 8 + (2+7+16) + (2+5+16) + (2+13+16) = 87: data starts right after the table.
  EXPECT_EQ(test::readBytes(out_), std::string("IMX\0", 4) + le16(2) + le16(3) +
                                       entry("a/z.bin", 87, 1) + entry("b.bin", 88, 2) +
                                       entry("manifest.json", 90, 2) + "Z" + "BB" + "{}");

  fs::remove_all(scratch_ / "stage");
  fs::create_directories(scratch_ / "stage");
  Archive::writeImxContainer(scratch_ / "stage", out_);
  EXPECT_EQ(test::readBytes(out_), std::string("IMX\0\x02\0\0\0", 8));
}

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

}  // namespace
}  // namespace lumora2
