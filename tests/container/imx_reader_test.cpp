// The IMX reader on real files: the exact texts of every error, header refusals, truncation at
// every field of the table, table edge cases, member lookup and hostile spans.
#include <gtest/gtest.h>

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
        HeaderCase{std::string("IMX\0\x03\x00\x00\x00", 8), "unsupportedVersion 3"},
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

}  // namespace
}  // namespace lumora2
