// unpack on real directories: streaming and progress, duplicate and equivalent names, files and
// directories competing for one path, and destinations that already hold symbolic links, which
// must never lead a write outside the destination.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>

#include "container/imx.h"
#include "support/imx_builder.h"
#include "support/scratch_dir.h"
#include "support/thrown.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;
using test::ImxBuilder;
using test::ScratchTest;

std::string pattern(std::size_t n, unsigned seed) {
  std::string out(n, '\0');
  std::uint32_t x = seed * 2654435761u + 1;
  for (char& c : out) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    c = static_cast<char>(x);
  }
  return out;
}

TEST_F(ScratchTest, StreamsMembersInPiecesAndReportsProgress) {
  const std::string big = pattern(2 * Lumora2Container::copyChunk + 12345, 1);
  const fs::path file = ImxBuilder()
                            .add("small.txt", "hello")
                            .add("pkg.mlpackage/model.pt", big)
                            .add("empty", "")
                            .add("manifest.json", "{}")
                            .writeTo(scratch_ / "c.imx");
  const std::uint64_t total = 5 + big.size() + 2;
  std::vector<std::pair<std::uint64_t, std::uint64_t>> calls;
  const auto names = Lumora2Container::unpack(
      file, scratch_ / "out/nested",
      [&](std::uint64_t done, std::uint64_t all) { calls.emplace_back(done, all); });
  EXPECT_EQ(names, (std::vector<std::string>{"small.txt", "pkg.mlpackage/model.pt", "empty",
                                             "manifest.json"}));
  const fs::path out = scratch_ / "out/nested";
  EXPECT_EQ(test::readBytes(out / "pkg.mlpackage/model.pt"), big);
  EXPECT_EQ(
      test::listTree(out),
      (std::vector<std::string>{"empty (0 bytes)", "manifest.json (2 bytes)", "pkg.mlpackage/",
                                "pkg.mlpackage/model.pt (" + std::to_string(big.size()) + " bytes)",
                                "small.txt (5 bytes)"}));

  ASSERT_GE(calls.size(), 5u);  // 1 + at least 3 pieces + 1; the empty member copies nothing
  std::uint64_t previous = 0;
  for (const auto& [done, all] : calls) {
    EXPECT_EQ(all, total);
    EXPECT_GT(done, previous);
    EXPECT_LE(done - previous, Lumora2Container::copyChunk);
    previous = done;
  }
  EXPECT_EQ(previous, total);
}

TEST_F(ScratchTest, LaterEntriesReplaceWhateverStandsAtTheirPlace) {
  scratch_.write("out/other/file", "mine");
  const std::string composed = "d/caf\xC3\xA9";
  const std::string decomposed = "d/cafe\xCC\x81";
  const fs::path file = ImxBuilder()
                            .add("x", "the first and longer")
                            .add("x", "second")
                            .add(composed, "composed")
                            .add(decomposed, "decomposed")
                            .add("a/b", "inner")
                            .add("a/c/d", "deeper")
                            .add("a", "file")
                            .writeTo(scratch_ / "c.imx");
  EXPECT_EQ(Lumora2Container::unpack(file, scratch_ / "out").size(), 7u);
  EXPECT_EQ(test::listTree(scratch_ / "out"),
            (std::vector<std::string>{"a (4 bytes)", "d/", decomposed + " (10 bytes)", "other/",
                                      "other/file (4 bytes)", "x (6 bytes)"}));
  EXPECT_EQ(test::readBytes(scratch_ / "out/x"), "second");
}

TEST_F(ScratchTest, FileThenDirectoryOnTheSamePathFails) {
  const fs::path file =
      ImxBuilder().add("a", "file").add("a/b", "inner").writeTo(scratch_ / "c.imx");
  auto e =
      test::thrown<fs::filesystem_error>([&] { Lumora2Container::unpack(file, scratch_ / "out"); });
  ASSERT_TRUE(e);
  EXPECT_EQ(e->code().value(), ENOTDIR) << e->what();
  EXPECT_EQ(e->path1(), scratch_ / "out/a");
  EXPECT_EQ(test::readBytes(scratch_ / "out/a"), "file");
}

TEST_F(ScratchTest, NamesWithoutACreatableFileCannotBeWritten) {
  // A name that ends in a directory, and a file name longer than the file system allows.
  for (const std::string& name : {std::string("dir/"), "d/" + std::string(300, 'n')}) {
    const fs::path file = ImxBuilder().add("first", "1").add(name, "x").writeTo(scratch_ / "c.imx");
    const fs::path dest = scratch_ / "out";
    EXPECT_EQ(test::imxError([&] { Lumora2Container::unpack(file, dest); }),
              "cannotWrite \"" + name + "\" to " + (dest / name).string());
    EXPECT_EQ(test::readBytes(dest / "first"), "1");
  }
}

TEST_F(ScratchTest, TruncatedLargeMemberLeavesWhatWasCopied) {
  const std::string present = pattern(Lumora2Container::copyChunk * 5 / 2, 2);
  const std::uint64_t dataAt = ImxBuilder().addSpan("big", 0, 0).layout().dataAt;
  const fs::path file = ImxBuilder()
                            .addSpan("big", dataAt, 3 * Lumora2Container::copyChunk)
                            .trailer(present)
                            .writeTo(scratch_ / "c.imx");
  EXPECT_EQ(test::imxError([&] { Lumora2Container::unpack(file, scratch_ / "out"); }),
            "truncated \"big\" @" + std::to_string(dataAt + present.size()));
  EXPECT_EQ(test::readBytes(scratch_ / "out/big"), present);
}

TEST_F(ScratchTest, NamesDeeperThanPathMax) {
  std::string deep;
  for (int i = 0; i < 2100; ++i) deep += "d/";  // 4,200 bytes: past PATH_MAX
  deep += "leaf";
  const fs::path file = ImxBuilder().add(deep, "deep").add("d", "flat").writeTo(scratch_ / "c.imx");
  EXPECT_EQ(Lumora2Container::unpack(file, scratch_ / "out"),
            (std::vector<std::string>{deep, "d"}));
  EXPECT_EQ(test::listTree(scratch_ / "out"), (std::vector<std::string>{"d (4 bytes)"}));
}

// ---- Symbolic links already in the destination ---------------------------------------------

struct LinkCase {
  const char* label;
  std::vector<std::pair<std::string, std::string>> links;  // link below out/ -> target
  std::string member;
  const char* refusedAt;  // the path (below out/) the ENOTDIR error names; nullptr: replaced
};

class SymlinkTest : public ScratchTest, public ::testing::WithParamInterface<LinkCase> {
 protected:
  void SetUp() override {
    scratch_.write("outside/keep", "original");
    scratch_.write("out/real/present", "inside");
    for (const auto& [link, target] : GetParam().links) {
      const fs::path at = scratch_ / "out" / link;
      fs::create_directories(at.parent_path());
      const std::string resolved =
          target.starts_with("@") ? (scratch_ / target.substr(1)).string() : target;
      fs::create_symlink(resolved, at);
    }
  }
  test::ScratchDir elsewhere_;  // holds the container, so that the scratch root lists only links
};

TEST_P(SymlinkTest, NeverWritesThroughALink) {
  const LinkCase& c = GetParam();
  const fs::path file = ImxBuilder().add(c.member, "payload").writeTo(elsewhere_ / "c.imx");
  auto expected = test::listTree(scratch_.path());
  if (c.refusedAt != nullptr) {
    auto e = test::thrown<fs::filesystem_error>(
        [&] { Lumora2Container::unpack(file, scratch_ / "out"); });
    ASSERT_TRUE(e);
    EXPECT_EQ(e->code().value(), ENOTDIR) << e->what();
    EXPECT_EQ(e->path1(), scratch_ / "out" / c.refusedAt);
  } else {
    EXPECT_NO_THROW(Lumora2Container::unpack(file, scratch_ / "out"));
    // The link itself is gone and a regular file stands in its place.
    const std::string link = "out/" + c.member + " -> ";
    auto it = std::find_if(expected.begin(), expected.end(),
                           [&](const std::string& e) { return e.starts_with(link); });
    ASSERT_NE(it, expected.end());
    *it = "out/" + c.member + " (7 bytes)";
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(test::readBytes(scratch_ / "out" / c.member), "payload");
  }
  EXPECT_EQ(test::listTree(scratch_.path()), expected) << "only the member's own place may change";
  EXPECT_EQ(test::readBytes(scratch_ / "outside/keep"), "original");
}

INSTANTIATE_TEST_SUITE_P(
    Links, SymlinkTest,
    ::testing::Values(
        LinkCase{"IntermediateToOutsideDirectory", {{"link", "@outside"}}, "link/x", "link"},
        LinkCase{"IntermediateRelativeToOutside", {{"link", "../outside"}}, "link/keep", "link"},
        LinkCase{"IntermediateDangling", {{"link", "@outside/new"}}, "link/x", "link"},
        LinkCase{"IntermediateToRoot", {{"link", "/"}}, "link/tmp/x", "link"},
        LinkCase{"IntermediateToOutsideFile", {{"link", "@outside/keep"}}, "link/x", "link"},
        LinkCase{"IntermediateInsideTheDestination", {{"link", "real"}}, "link/x", "link"},
        LinkCase{
            "NestedIntermediate", {{"real/link", "@outside"}}, "real/link/deep/x", "real/link"},
        LinkCase{"IntermediateAfterDoubleSlash", {{"link", "@outside"}}, "./link//x", "link"},
        LinkCase{"TargetToOutsideFile", {{"t", "@outside/keep"}}, "t", nullptr},
        LinkCase{"TargetDangling", {{"t", "@outside/new"}}, "t", nullptr},
        LinkCase{"TargetToOutsideDirectory", {{"t", "@outside"}}, "t", nullptr},
        LinkCase{"TargetToItself", {{"t", "t"}}, "t", nullptr},
        LinkCase{"NestedTarget", {{"real/t", "@outside/keep"}}, "real/t", nullptr}),
    [](const auto& tp) { return std::string(tp.param.label); });

TEST_F(ScratchTest, ReplacedDirectoryIsRemovedWithoutFollowingLinksInside) {
  scratch_.write("outside/keep", "original");
  scratch_.write("out/t/sub/file", "old");
  fs::create_symlink(scratch_ / "outside", scratch_ / "out/t/sub/to-outside");
  fs::create_symlink(scratch_ / "outside/keep", scratch_ / "out/t/to-file");
  const fs::path file = ImxBuilder().add("t", "new").writeTo(scratch_ / "c.imx");
  Lumora2Container::unpack(file, scratch_ / "out");
  EXPECT_EQ(test::listTree(scratch_ / "out"), (std::vector<std::string>{"t (3 bytes)"}));
  EXPECT_EQ(test::listTree(scratch_ / "outside"), (std::vector<std::string>{"keep (8 bytes)"}));
}

}  // namespace
}  // namespace lumora2
