// The IMX writer: exact bytes for known staging trees, what staging leaves out, member order, and
// containers that the reader takes back whole.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "container/archive.h"
#include "container/command.h"
#include "container/imx.h"
#include "support/imx_builder.h"
#include "support/scratch_dir.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;
using test::le16;
using test::le64;
using ::testing::ElementsAre;

std::vector<std::string> names(const std::vector<Archive::StagedMember>& members) {
  std::vector<std::string> out;
  for (const auto& m : members) out.push_back(m.name);
  return out;
}

std::string entry(const std::string& name, std::uint64_t offset, std::uint64_t size) {
  return le16(static_cast<std::uint16_t>(name.size())) + name + le64(offset) + le64(size);
}

class ArchiveWriterTest : public test::ScratchTest {
 protected:
  fs::path stagingDir() const { return scratch_ / "stage"; }
  fs::path output() const { return scratch_ / "out.imx"; }
};

TEST_F(ArchiveWriterTest, WritesTheDocumentedLayoutByteForByte) {
  scratch_.write("stage/b.bin", "BB");
  scratch_.write("stage/a/z.bin", "Z");
  scratch_.write("stage/manifest.json", "{}");
  Archive::writeImxContainer(stagingDir(), output());

  // 8 + (2+7+16) + (2+5+16) + (2+13+16) = 87: data starts right after the table.
  const std::string expected = std::string("IMX\0", 4) + le16(2) + le16(3) +
                               entry("a/z.bin", 87, 1) + entry("b.bin", 88, 2) +
                               entry("manifest.json", 90, 2) + "Z" + "BB" + "{}";
  EXPECT_EQ(test::readBytes(output()), expected);
}

TEST_F(ArchiveWriterTest, EmptyDirectoryGivesTheEightByteContainer) {
  fs::create_directories(stagingDir());
  Archive::writeImxContainer(stagingDir(), output());
  EXPECT_EQ(test::readBytes(output()), std::string("IMX\0\x02\0\0\0", 8));
}

TEST_F(ArchiveWriterTest, StagesRegularFilesOnlyWithHiddenFilesAndNestedManifestsInPlace) {
  scratch_.write("stage/manifest.json", "m");
  scratch_.write("stage/.hidden", "h");
  scratch_.write("stage/pkg.mlpackage/manifest.json", "nested");
  scratch_.write("stage/z.bin", "z");
  fs::create_directories(stagingDir() / "empty/deeper");
  fs::create_symlink("z.bin", stagingDir() / "link-to-file");
  fs::create_directory_symlink("pkg.mlpackage", stagingDir() / "link-to-dir");
  ASSERT_EQ(::mkfifo((stagingDir() / "fifo").c_str(), 0600), 0);

  EXPECT_THAT(names(Archive::stage(stagingDir())),
              ElementsAre(".hidden", "pkg.mlpackage/manifest.json", "z.bin", "manifest.json"));
}

TEST_F(ArchiveWriterTest, OrdersNamesByTheirCanonicalForm) {
  // "e" + U+0301 is canonically "é" (C3 A9), which sorts after "f" although its raw bytes do not.
  scratch_.write("stage/e\xCC\x81.bin", "1");
  scratch_.write("stage/f.bin", "2");
  scratch_.write("stage/d.bin", "3");
  EXPECT_THAT(names(Archive::stage(stagingDir())), ElementsAre("d.bin", "f.bin", "e\xCC\x81.bin"));
}

TEST_F(ArchiveWriterTest, UnlistableStagingDirectoryIsNamed) {
  try {
    Archive::stage(scratch_ / "absent");
    FAIL() << "expected Err";
  } catch (const Err& e) {
    EXPECT_EQ(std::string(e.what()),
              "cannot enumerate staging dir " + (scratch_ / "absent").string());
  }
}

TEST_F(ArchiveWriterTest, RefusesNamesTheReaderCouldNotReadBack) {
  scratch_.write("stage/ok.bin", "a");
  scratch_.write("stage/bad-\xff.bin", "b");
  try {
    Archive::stage(stagingDir());
    FAIL() << "expected Err";
  } catch (const Err& e) {
    EXPECT_THAT(e.what(), ::testing::HasSubstr("its name is not valid UTF-8"));
  }
}

TEST_F(ArchiveWriterTest, RefusesMoreThan65535MembersBeforeWriting) {
  std::vector<Archive::StagedMember> members(65535, {"x", scratch_.write("empty", ""), 0});
  EXPECT_NO_THROW(Archive::writeImxMembers(members, std::nullopt, output()));
  EXPECT_EQ(Lumora2Container::members(output()).size(), 65535u);
  fs::remove(output());
  try {
    Archive::writeImxMembers(members, std::string("{}"), output());
    FAIL() << "expected Err";
  } catch (const Err& e) {
    EXPECT_STREQ(e.what(), "too many members (65536) for IMX u16 count");
  }
  EXPECT_FALSE(fs::exists(output()));
}

TEST_F(ArchiveWriterTest, RoundTripsLargeMembersAndAnInMemoryManifestThroughTheReader) {
  // Larger than one copy piece and not a multiple of it, so the last partial piece counts.
  std::string big(3 * Lumora2Container::copyChunk + 5, '\0');
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>((i * 131) >> 3);
  scratch_.write("stage/big.bin", big);
  scratch_.write("stage/empty.bin", "");
  scratch_.write("stage/manifest.json", "staged manifest is replaced by order, not content");
  test::writeBytes(output(), std::string(10 << 20, 'x'));  // a longer old file is replaced

  std::vector<Archive::StagedMember> members = Archive::stage(stagingDir());
  members.pop_back();  // the pack commands drop the staged manifest and supply their own
  std::uint64_t lastDone = 0, lastTotal = 0;
  bool monotonic = true;
  Archive::writeImxMembers(members, std::string("{\"k\": 1}"), output(),
                           [&](std::uint64_t done, std::uint64_t total) {
                             monotonic = monotonic && done >= lastDone;
                             lastDone = done;
                             lastTotal = total;
                           });
  EXPECT_TRUE(monotonic);
  EXPECT_EQ(lastDone, big.size() + 8);
  EXPECT_EQ(lastTotal, big.size() + 8);

  std::vector<Member> toc = Lumora2Container::members(output());
  ASSERT_EQ(toc.size(), 3u);
  EXPECT_EQ(toc[0], (Member{"big.bin", 8 + 3 * (2 + 16) + 7 + 9 + 13, big.size()}));
  EXPECT_EQ(Lumora2Container::readManifest(output()), "{\"k\": 1}");

  Lumora2Container::unpack(output(), scratch_ / "back");
  EXPECT_EQ(test::readBytes(scratch_ / "back/big.bin"), big);
  EXPECT_EQ(test::readBytes(scratch_ / "back/empty.bin"), "");
  EXPECT_EQ(fs::file_size(output()), toc[2].offset + toc[2].size);
}

struct SwitchCase {
  const char* value;  // nullptr: unset
  bool imx;
};

void PrintTo(const SwitchCase& c, std::ostream* os) {
  *os << (c.value ? "\"" + std::string(c.value) + "\"" : std::string("unset"));
}

class UnifiedContainerSwitchTest : public ::testing::TestWithParam<SwitchCase> {
 protected:
  void TearDown() override { ::unsetenv("UNIFIED_CONTAINER"); }
};

TEST_P(UnifiedContainerSwitchTest, OnlyTheFourOffWordsSelectZip) {
  if (GetParam().value == nullptr) {
    ::unsetenv("UNIFIED_CONTAINER");
  } else {
    ::setenv("UNIFIED_CONTAINER", GetParam().value, 1);
  }
  EXPECT_EQ(Archive::unifiedContainerEnabled(), GetParam().imx);
}

INSTANTIATE_TEST_SUITE_P(Values, UnifiedContainerSwitchTest,
                         ::testing::Values(SwitchCase{nullptr, true}, SwitchCase{"", true},
                                           SwitchCase{"true", true}, SwitchCase{"1", true},
                                           SwitchCase{"yes", true}, SwitchCase{"offf", true},
                                           SwitchCase{"0", false}, SwitchCase{"false", false},
                                           SwitchCase{" Off ", false}, SwitchCase{"NO\n", false},
                                           SwitchCase{"\t\r\nFALSE", false},
                                           SwitchCase{"o ff", true}));

}  // namespace
}  // namespace lumora2
