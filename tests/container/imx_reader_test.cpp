// The IMX reader on real files: header refusals, truncation at every field of the table (empty and
// non-ASCII names among them), names that are not UTF-8 and hostile spans; unpack on real
// directories: streaming and progress, duplicate and equivalent names, files and directories
// competing for one path, and destinations that already hold symbolic links, which must never
// lead a write outside the destination.
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

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
constexpr std::uint64_t kMax64 = std::numeric_limits<std::uint64_t>::max();

using HeaderCase = std::pair<std::string, std::string>;  // bytes, refusal

class HeaderTest : public ScratchTest, public ::testing::WithParamInterface<HeaderCase> {};

TEST_P(HeaderTest, RefusedBeforeTheTableAndTheDestination) {
  const auto& [bytes, refusal] = GetParam();
  const fs::path file = scratch_.write("c.imx", bytes);
  EXPECT_EQ(imxError([&] { C::members(file); }), refusal);
  EXPECT_EQ(imxError([&] { C::unpack(file, scratch_ / "out"); }), refusal);
  EXPECT_FALSE(fs::exists(scratch_ / "out"));
  EXPECT_EQ(C::isLegacyZip(file), bytes.starts_with("PK\x03\x04"));
  EXPECT_EQ(C::isContainer(file), bytes.starts_with(std::string("IMX\0", 4)));
}

INSTANTIATE_TEST_SUITE_P(
    Refusals, HeaderTest,
    ::testing::Values(
        HeaderCase{"", "truncated table @0"},
        HeaderCase{std::string("IMX\0\x02\x00\x00", 7), "truncated table @0"},
        HeaderCase{std::string("PK\x03\x04\x14\x00\x00\x00", 8), "legacyZipContainer"},
        HeaderCase{std::string("KIMX\x02\x00\x01\x00", 8), "wrongContainerFamily KIMX"},
        HeaderCase{"\x89PNG\r\n\x1a\n", "notAContainer [89 50 4e 47]"},
        HeaderCase{std::string("IMX!\x02\x00\x00\x00", 8), "notAContainer [49 4d 58 21]"},
        HeaderCase{std::string("IMX\0\x01\x00\x00\x00", 8), "unsupportedVersion 1"},
        HeaderCase{std::string("IMX\0\x00\x02\x00\x00", 8), "unsupportedVersion 512"}));

// Three members, one with an empty name and one with a non-ASCII name, cut inside the table.
const std::vector<std::string> kSampleNames{"a.txt", "", "d/\xC3\xA9t\xC3\xA9.bin"};
ImxBuilder sample() {
  return ImxBuilder()
      .add(kSampleNames[0], "alpha")
      .add(kSampleNames[1], "")
      .add(kSampleNames[2], "e");
}

class TruncationTest : public ScratchTest, public ::testing::WithParamInterface<std::uint64_t> {};

TEST_P(TruncationTest, ReportsTheFieldWhereTheBytesRanOut) {
  const std::uint64_t cut = GetParam();
  std::string expected = cut < 8 ? "truncated table @0" : "returned";  // whole at the data area
  for (std::size_t i = 0; const auto& e : sample().layout().entries) {
    const std::string name = kSampleNames[i++];
    if (cut >= e.at && cut < e.nameAt) expected = "truncated table @" + std::to_string(e.at);
    if (cut >= e.nameAt && cut < e.spanAt)
      expected = "truncated table @" + std::to_string(e.nameAt);
    if (cut >= e.spanAt && cut < e.spanAt + 16) {
      expected = "truncated \"" + name + "\" @" + std::to_string(e.spanAt);
    }
  }
  const fs::path file = scratch_.write("cut.imx", sample().bytes().substr(0, cut));
  EXPECT_EQ(imxError([&] { C::members(file); }), expected);
  if (expected == "returned") return;
  EXPECT_EQ(imxError([&] { C::unpack(file, scratch_ / "out"); }), expected);
  EXPECT_FALSE(fs::exists(scratch_ / "out"));
}

INSTANTIATE_TEST_SUITE_P(EveryCut, TruncationTest,
                         ::testing::Range<std::uint64_t>(0, sample().layout().dataAt + 1));

class InvalidUtf8Test : public ScratchTest, public ::testing::WithParamInterface<std::string> {};

TEST_P(InvalidUtf8Test, RefusedWhileParsingBeforeAnythingIsWritten) {
  const fs::path file = ImxBuilder().add("fine", "1").add(GetParam(), "2").writeTo(scratch_ / "c");
  EXPECT_EQ(imxError([&] { C::read("fine", file); }), "unsafeMemberName \"<non-UTF8>\"");
  EXPECT_EQ(imxError([&] { C::unpack(file, scratch_ / "out"); }),
            "unsafeMemberName \"<non-UTF8>\"");
  EXPECT_FALSE(fs::exists(scratch_ / "out"));
}

INSTANTIATE_TEST_SUITE_P(Names, InvalidUtf8Test,
                         ::testing::Values("\xFF\xFE", "a\xC3", "\xC0\xAF", "\xED\xA0\x80",
                                           "\xF4\x90\x80\x80", "ok/\x80"));

// Spans that do not fit the file: the table lists them as written; read reports truncated at the
// member's offset without allocating; unpack reports where the data ran out and keeps what it
// copied, across several copy pieces.
struct SpanCase {
  std::uint64_t offset;  // from the start of the data area when `relative`
  std::uint64_t size;
  bool relative;
};

class HostileSpanTest : public ScratchTest, public ::testing::WithParamInterface<SpanCase> {};

TEST_P(HostileSpanTest, ShortReadNeverHugeAllocation) {
  const std::string data(C::copyChunk * 5 / 2, 'd');
  const std::uint64_t base = ImxBuilder().addSpan("m", 0, 0).layout().dataAt;
  const auto [rel, size, relative] = GetParam();
  const std::uint64_t offset = relative ? base + rel : rel;
  const fs::path file =
      ImxBuilder().addSpan("m", offset, size).trailer(data).writeTo(scratch_ / "c");
  EXPECT_EQ(C::members(file), (std::vector<Member>{{"m", offset, size}}));
  EXPECT_EQ(imxError([&] { C::read("m", file); }), "truncated \"m\" @" + std::to_string(offset));
  const std::uint64_t end = base + data.size();
  EXPECT_EQ(imxError([&] { C::unpack(file, scratch_ / "out"); }),
            "truncated \"m\" @" + std::to_string(std::max(offset, end)));
  EXPECT_EQ(test::readBytes(scratch_ / "out/m").size(), offset < end ? end - offset : 0);
}

INSTANTIATE_TEST_SUITE_P(
    Spans, HostileSpanTest,
    ::testing::Values(SpanCase{0, C::copyChunk * 3, true},  // runs past the end
                      SpanCase{C::copyChunk * 3, 1, true}, SpanCase{3, kMax64, true},
                      SpanCase{5, kMax64 - 2, true},  // offset + size wraps
                      SpanCase{kMax64, 1, false}, SpanCase{(1ull << 63) - 2, 16, false}));

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
  const auto& [link, target, member, refusedAt] = GetParam();
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
    const std::string place = "out/" + member;
    std::erase_if(expected, [&place](const std::string& e) {
      return e.starts_with(place + " ") || e.starts_with(place + "/");
    });
    expected.push_back(place + " (7 bytes)");
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
