// The IMX reader on real files: header refusals, truncation at every field, table edge cases,
// member lookup and hostile spans, and the exact texts of every error.
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
constexpr std::uint64_t kMax64 = std::numeric_limits<std::uint64_t>::max();
const std::string kImxHeader = std::string("IMX\0\x02\x00\x00\x00", 8);

// ---- Error descriptions, byte for byte -----------------------------------------------------

struct TextCase {
  const char* label;
  Lumora2ContainerError error;
  const char* text;
};

class ErrorTextTest : public ::testing::TestWithParam<TextCase> {};

TEST_P(ErrorTextTest, DescriptionIsExact) {
  EXPECT_EQ(std::string(GetParam().error.what()), GetParam().text);
}

const std::string kPath = "/models/vivra.model";

INSTANTIATE_TEST_SUITE_P(
    AllCases, ErrorTextTest,
    ::testing::Values(
        TextCase{"notAContainer",
                 Lumora2ContainerError::notAContainer(kPath, {0x89, 0x50, 0x4E, 0x47}),
                 "/models/vivra.model: not an IMX\\0 container — first bytes are [89 50 4e 47]. "
                 "The container GET /v1/agent/{code}/model/download vends begins \"IMX\\0\"."},
        TextCase{"notAContainerLowBytes",
                 Lumora2ContainerError::notAContainer(kPath, {0x00, 0x0A, 0xFF, 0x7F}),
                 "/models/vivra.model: not an IMX\\0 container — first bytes are [00 0a ff 7f]. "
                 "The container GET /v1/agent/{code}/model/download vends begins \"IMX\\0\"."},
        TextCase{"wrongContainerFamily", Lumora2ContainerError::wrongContainerFamily(kPath, "KIMX"),
                 "/models/vivra.model: this is a KIMX container (sorvel-1, family A′) — "
                 "byte-identical framing, a DIFFERENT engine. lumora-2 reads IMX\\0 only. Open it "
                 "with the product its unified `engine` header names."},
        TextCase{"legacyZipContainer", Lumora2ContainerError::legacyZipContainer(kPath),
                 "/models/vivra.model: legacy ZIP container (packed with UNIFIED_CONTAINER=0). "
                 "This Foundation-only reader is zip-free so it can run inside an iOS app. Unpack "
                 "it on a host with `lumora2-model unpack /models/vivra.model <dir>` (or `unzip`) "
                 "and pass the resulting directory as `sharedEngineDir:`."},
        TextCase{"unsupportedVersion", Lumora2ContainerError::unsupportedVersion(kPath, 65535),
                 "/models/vivra.model: IMX container version 65535 — this reader implements "
                 "version 2 (models/_core/container/IMX_CONTRACT.md §1). A second version number "
                 "is a second container; do not widen this reader without changing the contract."},
        TextCase{"truncatedMember",
                 Lumora2ContainerError::truncated(kPath, "manifest.json", 18446744073709551615u),
                 "/models/vivra.model: truncated container — ran off the end at offset "
                 "18446744073709551615 reading member \"manifest.json\". The file is incomplete "
                 "(a partial download writes exactly this)."},
        TextCase{"truncatedTable", Lumora2ContainerError::truncated(kPath, std::nullopt, 0),
                 "/models/vivra.model: truncated container — ran off the end at offset 0 reading "
                 "the table of contents. The file is incomplete (a partial download writes "
                 "exactly this)."},
        TextCase{"unsafeMemberName", Lumora2ContainerError::unsafeMemberName(kPath, "../x"),
                 "/models/vivra.model: refusing member name \"../x\" — it would write outside the "
                 "destination directory. The canonical writer (tools/imx_unified) never emits "
                 "one; a container that does is hostile or corrupt."},
        TextCase{"memberNotFound", Lumora2ContainerError::memberNotFound(kPath, "manifest.json"),
                 "/models/vivra.model: no member named \"manifest.json\" in the container's "
                 "table of contents."},
        TextCase{"cannotWrite", Lumora2ContainerError::cannotWrite(kPath, "a/b", "/out/a/b"),
                 "/models/vivra.model: could not write member \"a/b\" to /out/a/b — read-only "
                 "volume, no space, or a name in this container collides with a directory "
                 "another of its members created."}),
    [](const auto& tp) { return std::string(tp.param.label); });

// ---- Header: length, magic and version -----------------------------------------------------

struct HeaderCase {
  const char* label;
  std::string bytes;
  const char* refusal;
};

class HeaderTest : public ScratchTest, public ::testing::WithParamInterface<HeaderCase> {};

TEST_P(HeaderTest, RefusedBeforeTheTable) {
  const fs::path file = scratch_.write("c.imx", GetParam().bytes);
  const fs::path dest = scratch_ / "out";
  EXPECT_EQ(imxError([&] { Lumora2Container::members(file); }), GetParam().refusal);
  EXPECT_EQ(imxError([&] { Lumora2Container::readManifest(file); }), GetParam().refusal);
  EXPECT_EQ(imxError([&] { Lumora2Container::unpack(file, dest); }), GetParam().refusal);
  EXPECT_FALSE(fs::exists(dest)) << "the destination is touched only after the table parses";
}

INSTANTIATE_TEST_SUITE_P(
    Refusals, HeaderTest,
    ::testing::Values(
        HeaderCase{"EmptyFile", "", "truncated table @0"},
        HeaderCase{"SevenBytesWithImxMagic", kImxHeader.substr(0, 7), "truncated table @0"},
        HeaderCase{"Zip", std::string("PK\x03\x04\x14\x00\x00\x00\x08\x00", 10),
                   "legacyZipContainer"},
        HeaderCase{"Kimx", std::string("KIMX\x02\x00\x01\x00", 8), "wrongContainerFamily KIMX"},
        HeaderCase{"Png", "\x89PNG\r\n\x1a\n", "notAContainer [89 50 4e 47]"},
        HeaderCase{"Random", "\x13\xf0\x0a\xc7\x5e\x99\x01\x42\xde\xad",
                   "notAContainer [13 f0 0a c7]"},
        HeaderCase{"ImxWithoutZero", std::string("IMX!\x02\x00\x00\x00", 8),
                   "notAContainer [49 4d 58 21]"},
        HeaderCase{"Version1", std::string("IMX\0\x01\x00\x00\x00", 8), "unsupportedVersion 1"},
        HeaderCase{"Version3", std::string("IMX\0\x03\x00\x00\x00", 8), "unsupportedVersion 3"},
        HeaderCase{"VersionBigEndian2", std::string("IMX\0\x00\x02\x00\x00", 8),
                   "unsupportedVersion 512"}),
    [](const auto& tp) { return std::string(tp.param.label); });

// ---- Sniffing ------------------------------------------------------------------------------

TEST_F(ScratchTest, SniffsOnlyFourFullBytes) {
  const fs::path imx = scratch_.write("a.imx", kImxHeader);
  const fs::path zip = scratch_.write("a.zip", "PK\x03\x04rest");
  const fs::path shortImx = scratch_.write("short", std::string("IMX", 3));
  EXPECT_TRUE(Lumora2Container::isContainer(imx) && !Lumora2Container::isLegacyZip(imx));
  EXPECT_TRUE(Lumora2Container::isLegacyZip(zip) && !Lumora2Container::isContainer(zip));
  EXPECT_EQ(Lumora2Container::magic4(shortImx), std::nullopt);
  EXPECT_EQ(Lumora2Container::magic4(scratch_ / "missing"), std::nullopt);
  EXPECT_EQ(Lumora2Container::magic4(scratch_.path()), std::nullopt);  // a directory
  EXPECT_THROW(Lumora2Container::members(scratch_ / "missing"), fs::filesystem_error);
}

// ---- Truncation at every byte --------------------------------------------------------------

// Four members, one with an empty name and one with a non-ASCII name, then their data.
const std::vector<std::string> kSampleNames{"a.txt", "", "dir/\xC3\xA9t\xC3\xA9.bin",
                                            "manifest.json"};
ImxBuilder sampleContainer() {
  return ImxBuilder()
      .add(kSampleNames[0], "alpha")
      .add(kSampleNames[1], "")
      .add(kSampleNames[2], std::string(40, 'e'))
      .add(kSampleNames[3], "{}");
}

// What parsing the sample cut to `length` bytes must report: "returned" once the table is whole.
std::string expectedCut(std::uint64_t length) {
  auto at = [](std::optional<std::string> member, std::uint64_t offset) {
    return test::summary(Lumora2ContainerError::truncated("", std::move(member), offset));
  };
  if (length < 8) return at(std::nullopt, 0);
  const ImxBuilder::Layout layout = sampleContainer().layout();
  for (std::size_t i = 0; i < layout.entries.size(); ++i) {
    const auto& e = layout.entries[i];
    if (length < e.nameAt) return at(std::nullopt, e.nameLengthAt);
    if (length < e.spanAt) return at(std::nullopt, e.nameAt);
    if (length < e.spanAt + 16) return at(kSampleNames[i], e.spanAt);
  }
  return "returned";
}

std::vector<std::uint64_t> everyCut() {
  std::vector<std::uint64_t> cuts;
  for (std::uint64_t n = 0; n < sampleContainer().layout().end; ++n) cuts.push_back(n);
  return cuts;
}

class TruncationTest : public ScratchTest, public ::testing::WithParamInterface<std::uint64_t> {};

TEST_P(TruncationTest, ReportsWhereTheBytesRanOut) {
  const std::uint64_t cut = GetParam();
  const ImxBuilder::Layout at = sampleContainer().layout();
  const fs::path file = scratch_.write("cut.imx", sampleContainer().bytes().substr(0, cut));
  const fs::path dest = scratch_ / "out";
  const std::string parse = expectedCut(cut);
  EXPECT_EQ(imxError([&] { Lumora2Container::members(file); }), parse);
  if (parse != "returned") {
    EXPECT_EQ(imxError([&] { Lumora2Container::unpack(file, dest); }), parse);
    EXPECT_FALSE(fs::exists(dest));
    return;
  }
  // The table is whole; spans are checked only when data is read.
  const std::uint64_t etcAt = at.entries[2].dataAt;
  EXPECT_EQ(imxError([&] { Lumora2Container::read(kSampleNames[2], file); }),
            cut >= etcAt + 40 ? "returned"
                              : "truncated \"" + kSampleNames[2] + "\" @" + std::to_string(etcAt));
  // unpack copies "a.txt" as far as it goes, then refuses the empty name.
  EXPECT_EQ(imxError([&] { Lumora2Container::unpack(file, dest); }),
            cut < at.dataAt + 5 ? "truncated \"a.txt\" @" + std::to_string(cut)
                                : "unsafeMemberName \"\"");
  EXPECT_EQ(test::readBytes(dest / "a.txt"), std::string("alpha").substr(0, cut - at.dataAt));
}

INSTANTIATE_TEST_SUITE_P(EveryCut, TruncationTest, ::testing::ValuesIn(everyCut()));

// ---- The table ------------------------------------------------------------------------------

TEST_F(ScratchTest, EmptyContainer) {
  const fs::path file = scratch_.write("empty.imx", kImxHeader);
  EXPECT_TRUE(Lumora2Container::members(file).empty());
  EXPECT_EQ(imxError([&] { Lumora2Container::readManifest(file); }),
            "memberNotFound \"manifest.json\"");
  EXPECT_TRUE(Lumora2Container::unpack(file, scratch_ / "out/deeper").empty());
  EXPECT_TRUE(fs::is_directory(scratch_ / "out/deeper") && fs::is_empty(scratch_ / "out/deeper"));
}

TEST_F(ScratchTest, FullTableOf65535Members) {
  ImxBuilder b;
  for (int i = 0; i < 65535; ++i) b.add("m" + std::to_string(i), i == 65534 ? "last" : "");
  const fs::path file = b.writeTo(scratch_ / "full.imx");
  const std::vector<Member> table = Lumora2Container::members(file);
  ASSERT_EQ(table.size(), Lumora2Container::maxMembers);
  EXPECT_EQ(table.back().name, "m65534");
  EXPECT_EQ(Lumora2Container::read("m65534", file), "last");
}

TEST_F(ScratchTest, NamesRunningPastTheEnd) {
  // A count of 65535 over two entries: the third length field is read from the data "122".
  ImxBuilder many;
  many.count(65535).add("one", "1").add("two", "22");
  EXPECT_EQ(imxError([&] { Lumora2Container::members(many.writeTo(scratch_ / "a.imx")); }),
            "truncated table @" + std::to_string(many.layout().dataAt + 2));
  ImxBuilder longName;
  longName.add("ok", "").addEntry({"abc", {}, 0, 0, std::uint16_t{4000}});
  EXPECT_EQ(imxError([&] { Lumora2Container::members(longName.writeTo(scratch_ / "b.imx")); }),
            "truncated table @" + std::to_string(longName.layout().entries[1].nameAt));
}

TEST_F(ScratchTest, SpansAreNotCheckedByTheTable) {
  ImxBuilder b;
  b.addSpan("past", kMax64, kMax64).addSpan("overlap", 0, 8).add("real", "bytes");
  EXPECT_EQ(Lumora2Container::members(b.writeTo(scratch_ / "c.imx")),
            (std::vector<Member>{
                {"past", kMax64, kMax64}, {"overlap", 0, 8}, {"real", b.layout().dataAt, 5}}));
}

class InvalidUtf8Test : public ScratchTest, public ::testing::WithParamInterface<std::string> {};

TEST_P(InvalidUtf8Test, RefusedWhileParsing) {
  const fs::path file =
      ImxBuilder().add("fine", "1").add(GetParam(), "2").writeTo(scratch_ / "c.imx");
  EXPECT_EQ(imxError([&] { Lumora2Container::read("fine", file); }),
            "unsafeMemberName \"<non-UTF8>\"");
  EXPECT_EQ(imxError([&] { Lumora2Container::unpack(file, scratch_ / "out"); }),
            "unsafeMemberName \"<non-UTF8>\"");
  EXPECT_FALSE(fs::exists(scratch_ / "out")) << "refused before anything is unpacked";
}

INSTANTIATE_TEST_SUITE_P(Names, InvalidUtf8Test,
                         ::testing::Values("\xFF\xFE", "a\xC3", "\xC0\xAF", "\xED\xA0\x80",
                                           "\xF4\x90\x80\x80", "ok/\x80"));

// ---- read -----------------------------------------------------------------------------------

TEST_F(ScratchTest, LaterOfEqualNamesWins) {
  const std::string composed = "caf\xC3\xA9";     // é as one code point
  const std::string decomposed = "cafe\xCC\x81";  // e + combining acute
  const fs::path file = ImxBuilder()
                            .add("x", "first")
                            .add("x", "second")
                            .add(composed, "composed")
                            .add(decomposed, "decomposed")
                            .add("only-" + composed, "here")
                            .addSpan("void", kMax64, 0)
                            .writeTo(scratch_ / "c.imx");
  EXPECT_EQ(Lumora2Container::read("x", file), "second");
  EXPECT_EQ(Lumora2Container::read(composed, file), "decomposed");
  EXPECT_EQ(Lumora2Container::read(decomposed, file), "decomposed");
  EXPECT_EQ(Lumora2Container::read("only-" + decomposed, file), "here");
  EXPECT_EQ(Lumora2Container::read("void", file), "");  // size 0: the offset is never used
  EXPECT_EQ(imxError([&] { Lumora2Container::read("X", file); }), "memberNotFound \"X\"");
}

// Spans that do not fit the file: read reports truncated at the member's offset without
// allocating; unpack reports where the data ran out and leaves what it copied.
struct SpanCase {
  const char* label;
  std::uint64_t offset;  // relative to the data "0123456789" when `relative`
  std::uint64_t size;
  bool relative;
};

class HostileSpanTest : public ScratchTest, public ::testing::WithParamInterface<SpanCase> {};

TEST_P(HostileSpanTest, ShortReadNeverHugeAllocation) {
  const std::string data = "0123456789";
  const std::uint64_t base = ImxBuilder().addSpan("m", 0, 0).layout().dataAt;
  const std::uint64_t offset = GetParam().relative ? base + GetParam().offset : GetParam().offset;
  const fs::path file =
      ImxBuilder().addSpan("m", offset, GetParam().size).trailer(data).writeTo(scratch_ / "c.imx");
  const std::uint64_t end = base + data.size();
  EXPECT_EQ(imxError([&] { Lumora2Container::read("m", file); }),
            "truncated \"m\" @" + std::to_string(offset));
  EXPECT_EQ(imxError([&] { Lumora2Container::unpack(file, scratch_ / "out"); }),
            "truncated \"m\" @" + std::to_string(std::max(offset, end)));
  EXPECT_EQ(test::readBytes(scratch_ / "out/m"), offset < end ? data.substr(offset - base) : "");
}

INSTANTIATE_TEST_SUITE_P(Spans, HostileSpanTest,
                         ::testing::Values(SpanCase{"OneBytePastTheEnd", 0, 11, true},
                                           SpanCase{"StartsPastTheEnd", 1000, 1, true},
                                           SpanCase{"SizeAllOnes", 3, kMax64, true},
                                           SpanCase{"SizeJustPastInt64", 3, (1ull << 63), true},
                                           SpanCase{"SumWrapsTo2", 5, kMax64 - 2, true},
                                           SpanCase{"OffsetAllOnes", kMax64, 1, false},
                                           SpanCase{"OffsetPastInt64", (1ull << 63) + 5, 7, false},
                                           SpanCase{"OffsetJustBelowInt64Max", (1ull << 63) - 2, 16,
                                                    false}),
                         [](const auto& tp) { return std::string(tp.param.label); });

}  // namespace
}  // namespace lumora2
