// unpack on real directories: streaming and progress, duplicate and equivalent names, files and
// directories competing for one path, and destinations that already hold symbolic links, which
// must never lead a write outside the destination.
#include <gtest/gtest.h>

#include "container/imx.h"
#include "support/imx_builder.h"
#include "support/scratch_dir.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;
using test::ImxBuilder;
using test::imxError;
using test::ScratchTest;
namespace C = Lumora2Container;
using Listing = std::vector<std::string>;

TEST_F(ScratchTest, StreamsMembersInPiecesAndReportsProgress) {
  std::string big(2 * C::copyChunk + 12345, '\0');
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7919 >> 3);
  const fs::path file =
      ImxBuilder().add("a", "hello").add("p/model.pt", big).add("e", "").writeTo(scratch_ / "c");
  std::vector<std::pair<std::uint64_t, std::uint64_t>> calls;
  EXPECT_EQ(
      C::unpack(file, scratch_ / "out/nested",
                [&](std::uint64_t done, std::uint64_t all) { calls.emplace_back(done, all); }),
      (Listing{"a", "p/model.pt", "e"}));
  EXPECT_EQ(test::readBytes(scratch_ / "out/nested/p/model.pt"), big);
  EXPECT_EQ(test::readBytes(scratch_ / "out/nested/e"), "");
  ASSERT_GE(calls.size(), 4u);  // "a", then the big member in at least three pieces
  std::uint64_t previous = 0;
  for (const auto& [done, all] : calls) {
    EXPECT_EQ(all, 5 + big.size());
    EXPECT_GT(done, previous);
    EXPECT_LE(done - previous, C::copyChunk);
    previous = done;
  }
  EXPECT_EQ(previous, 5 + big.size());
}

TEST_F(ScratchTest, LaterEntriesReplaceWhateverStandsAtTheirPlace) {
  scratch_.write("out/other/file", "mine");
  const std::string decomposed = "d/cafe\xCC\x81";
  const fs::path file = ImxBuilder()
                            .add("x", "the first and longer")
                            .add("x", "second")
                            .add("d/caf\xC3\xA9", "composed")
                            .add(decomposed, "decomposed")
                            .add("a/b", "inner")
                            .add("a/c/d", "deeper")
                            .add("a", "file")  // a file where a directory was made
                            .writeTo(scratch_ / "c.imx");
  EXPECT_EQ(C::unpack(file, scratch_ / "out").size(), 7u);
  EXPECT_EQ(test::listTree(scratch_ / "out"),
            (Listing{"a (4 bytes)", "d/", decomposed + " (10 bytes)", "other/",
                     "other/file (4 bytes)", "x (6 bytes)"}));
  EXPECT_EQ(test::readBytes(scratch_ / "out/x"), "second");
}

TEST_F(ScratchTest, NamesDeeperThanPathMax) {
  std::string deep;
  for (int i = 0; i < 2100; ++i) deep += "d/";  // 4,200 bytes: past PATH_MAX
  const fs::path file =
      ImxBuilder().add(deep + "leaf", "deep").add("d", "flat").writeTo(scratch_ / "c");
  EXPECT_EQ(C::unpack(file, scratch_ / "out"), (Listing{deep + "leaf", "d"}));
  EXPECT_EQ(test::listTree(scratch_ / "out"), (Listing{"d (4 bytes)"}));
}

// Links already in the destination ("@x" targets scratch/x). A link standing for a directory on
// the member's way is refused with ENOTDIR at the link; a link (or a tree holding links) at the
// member's own place is removed, never followed, and replaced by the member.
struct LinkCase {
  std::string link;  // below out/
  std::string target;
  std::string member;
  const char* refusedAt;  // below out/; nullptr: replaced
};

class SymlinkTest : public ScratchTest, public ::testing::WithParamInterface<LinkCase> {};

TEST_P(SymlinkTest, NeverWritesThroughALink) {
  // Named references, not a structured binding: clang 14 cannot capture bindings in a lambda.
  const LinkCase& c = GetParam();
  const std::string& link = c.link;
  const std::string& target = c.target;
  const std::string& member = c.member;
  const char* const refusedAt = c.refusedAt;
  scratch_.write("outside/keep", "original");
  scratch_.write("out/real/present", "inside");
  fs::create_directories((scratch_ / "out" / link).parent_path());
  fs::create_symlink(target.starts_with("@") ? scratch_ / target.substr(1) : fs::path(target),
                     scratch_ / "out" / link);
  test::ScratchDir elsewhere;
  const fs::path file = ImxBuilder().add(member, "payload").writeTo(elsewhere / "c.imx");
  Listing expected = test::listTree(scratch_.path());
  if (refusedAt != nullptr) {
    EXPECT_EQ(imxError([&] { C::unpack(file, scratch_ / "out"); }),
              "ENOTDIR " + (scratch_ / "out" / refusedAt).string());
  } else {
    EXPECT_EQ(imxError([&] { C::unpack(file, scratch_ / "out"); }), "returned");
    std::erase_if(expected, [&](const std::string& e) {
      return e.starts_with("out/" + member + " ") || e.starts_with("out/" + member + "/");
    });
    expected.push_back("out/" + member + " (7 bytes)");
    std::sort(expected.begin(), expected.end());
  }
  EXPECT_EQ(test::listTree(scratch_.path()), expected) << "only the member's own place may change";
  EXPECT_EQ(test::readBytes(scratch_ / "outside/keep"), "original");
}

INSTANTIATE_TEST_SUITE_P(
    Links, SymlinkTest,
    ::testing::Values(LinkCase{"link", "@outside", "link/x", "link"},
                      LinkCase{"link", "../outside", "link/keep", "link"},
                      LinkCase{"link", "@outside/new", "link/x", "link"},  // dangling
                      LinkCase{"link", "/", "link/tmp/x", "link"},
                      LinkCase{"link", "@outside/keep", "link/x", "link"},
                      LinkCase{"link", "real", "link/x", "link"},  // inside the destination
                      LinkCase{"real/link", "@outside", "real/link/deep/x", "real/link"},
                      LinkCase{"link", "@outside", "./link//x", "link"},
                      LinkCase{"t", "@outside/keep", "t", nullptr},
                      LinkCase{"t", "@outside/new", "t", nullptr},
                      LinkCase{"t", "@outside", "t", nullptr}, LinkCase{"t", "t", "t", nullptr},
                      LinkCase{"real/t", "@outside/keep", "real/t", nullptr},
                      LinkCase{"t/sub/to-outside", "@outside", "t", nullptr}));

}  // namespace
}  // namespace lumora2
