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
using E = Lumora2ContainerError;
constexpr std::uint64_t kMax64 = std::numeric_limits<std::uint64_t>::max();
const std::string kPath = "/models/vivra.model";

using TextCase = std::pair<E, const char*>;
class ErrorTextTest : public ::testing::TestWithParam<TextCase> {};

TEST_P(ErrorTextTest, DescriptionIsExact) {
  EXPECT_EQ(std::string(GetParam().first.what()), std::string(GetParam().second));
}

INSTANTIATE_TEST_SUITE_P(
    AllCases, ErrorTextTest,
    ::testing::Values(
        TextCase{E::notAContainer(kPath, {0x00, 0x0A, 0xFF, 0x7F}),
                 "/models/vivra.model: not an IMX\\0 container — first bytes are [00 0a ff 7f]. "
                 "The container GET /v1/agent/{code}/model/download vends begins \"IMX\\0\"."},
        TextCase{E::wrongContainerFamily(kPath, "KIMX"),
                 "/models/vivra.model: this is a KIMX container (sorvel-1, family A′) — "
                 "byte-identical framing, a DIFFERENT engine. lumora-2 reads IMX\\0 only. Open it "
                 "with the product its unified `engine` header names."},
        TextCase{E::legacyZipContainer(kPath),
                 "/models/vivra.model: legacy ZIP container (packed with UNIFIED_CONTAINER=0). "
                 "This Foundation-only reader is zip-free so it can run inside an iOS app. Unpack "
                 "it on a host with `lumora2-model unpack /models/vivra.model <dir>` (or `unzip`) "
                 "and pass the resulting directory as `sharedEngineDir:`."},
        TextCase{E::unsupportedVersion(kPath, 65535),
                 "/models/vivra.model: IMX container version 65535 — this reader implements "
                 "version 2 (models/_core/container/IMX_CONTRACT.md §1). A second version number "
                 "is a second container; do not widen this reader without changing the contract."},
        TextCase{E::truncated(kPath, "manifest.json", kMax64),
                 "/models/vivra.model: truncated container — ran off the end at offset "
                 "18446744073709551615 reading member \"manifest.json\". The file is incomplete "
                 "(a partial download writes exactly this)."},
        TextCase{E::truncated(kPath, std::nullopt, 0),
                 "/models/vivra.model: truncated container — ran off the end at offset 0 reading "
                 "the table of contents. The file is incomplete (a partial download writes "
                 "exactly this)."},
        TextCase{E::unsafeMemberName(kPath, "../x"),
                 "/models/vivra.model: refusing member name \"../x\" — it would write outside the "
                 "destination directory. The canonical writer (tools/imx_unified) never emits "
                 "one; a container that does is hostile or corrupt."},
        TextCase{E::memberNotFound(kPath, "manifest.json"),
                 "/models/vivra.model: no member named \"manifest.json\" in the container's "
                 "table of contents."},
        TextCase{E::cannotWrite(kPath, "a/b", "/out/a/b"),
                 "/models/vivra.model: could not write member \"a/b\" to /out/a/b — read-only "
                 "volume, no space, or a name in this container collides with a directory "
                 "another of its members created."}));

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

TEST_F(ScratchTest, TablesOfZeroAndOfTheMostMembers) {
  const fs::path empty = ImxBuilder().writeTo(scratch_ / "empty.imx");
  EXPECT_TRUE(C::members(empty).empty());
  EXPECT_EQ(imxError([&] { C::readManifest(empty); }), "memberNotFound \"manifest.json\"");
  EXPECT_TRUE(C::unpack(empty, scratch_ / "out/deeper").empty());
  EXPECT_TRUE(fs::is_empty(scratch_ / "out/deeper"));
  ImxBuilder b;
  for (int i = 0; i < 65535; ++i) b.add("m" + std::to_string(i), i == 65534 ? "last" : "");
  const fs::path full = b.writeTo(scratch_ / "full.imx");
  EXPECT_EQ(C::members(full).size(), C::maxMembers);
  EXPECT_EQ(C::read("m65534", full), "last");
}

TEST_F(ScratchTest, NamesRunningPastTheEnd) {
  // More entries counted than written: the next length field is read from the data area, here
  // "12" (12,849 bytes) or 4,000, and the name it announces runs past the end.
  for (ImxBuilder b : {ImxBuilder().count(65535).add("one", "1").add("two", "22"),
                       ImxBuilder().count(2).add("ok", "").trailer(test::le16(4000) + "abc")}) {
    EXPECT_EQ(imxError([&] { C::members(b.writeTo(scratch_ / "c")); }),
              "truncated table @" + std::to_string(b.layout().dataAt + 2));
  }
}

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

TEST_F(ScratchTest, LaterOfEqualNamesWins) {
  const std::string composed = "caf\xC3\xA9";     // é as one code point
  const std::string decomposed = "cafe\xCC\x81";  // e + combining acute
  const fs::path file = ImxBuilder()
                            .add("x", "first")
                            .add("x", "second")
                            .add(composed, "composed")
                            .add(decomposed, "decomposed")
                            .addSpan("void", kMax64, 0)
                            .writeTo(scratch_ / "c.imx");
  EXPECT_EQ(C::read("x", file), "second");
  EXPECT_EQ(C::read(composed, file), "decomposed");
  EXPECT_EQ(C::read("void", file), "");  // size 0: the offset is never used
  EXPECT_EQ(imxError([&] { C::read("X", file); }), "memberNotFound \"X\"");
}

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
