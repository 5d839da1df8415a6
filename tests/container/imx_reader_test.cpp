// The IMX reader on real files: header refusals, truncation at every field, table edge cases,
// member lookup and hostile spans, and the exact texts of every error.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <random>

#include "container/imx.h"
#include "support/imx_builder.h"
#include "support/scratch_dir.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;
using test::ImxBuilder;
using test::ScratchTest;
using Kind = Lumora2ContainerError::Kind;
constexpr std::uint64_t kMax64 = std::numeric_limits<std::uint64_t>::max();

// Runs `f` and returns the reader error it must throw.
Lumora2ContainerError errorOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const Lumora2ContainerError& e) {
    return e;
  }
  ADD_FAILURE() << "no Lumora2ContainerError was thrown";
  return Lumora2ContainerError::legacyZipContainer("<none>");
}

void expectTruncated(const Lumora2ContainerError& e, std::optional<std::string> member,
                     std::uint64_t atOffset) {
  EXPECT_EQ(e.kind(), Kind::truncated) << e.what();
  EXPECT_EQ(e.member(), member) << e.what();
  EXPECT_EQ(e.atOffset(), atOffset) << e.what();
}

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
  Kind kind;
  std::function<void(const Lumora2ContainerError&)> check;
};

std::string randomBytes(std::size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::string out;
  for (std::size_t i = 0; i < n; ++i) out += static_cast<char>(gen() & 0xFF);
  out[0] = '\x13';  // no known magic starts with this byte
  return out;
}

class HeaderTest : public ScratchTest, public ::testing::WithParamInterface<HeaderCase> {};

TEST_P(HeaderTest, RefusedBeforeTheTable) {
  const fs::path file = scratch_.write("c.imx", GetParam().bytes);
  const fs::path dest = scratch_ / "out";
  for (auto op : std::vector<std::function<void()>>{
           [&] { Lumora2Container::members(file); }, [&] { Lumora2Container::readManifest(file); },
           [&] { Lumora2Container::unpack(file, dest); }}) {
    Lumora2ContainerError e = errorOf(op);
    EXPECT_EQ(e.kind(), GetParam().kind) << e.what();
    EXPECT_EQ(e.path(), file.string());
    GetParam().check(e);
  }
  EXPECT_FALSE(fs::exists(dest)) << "the destination is touched only after the table parses";
}

const std::string kImxHeader = std::string("IMX\0\x02\x00\x00\x00", 8);

INSTANTIATE_TEST_SUITE_P(
    Refusals, HeaderTest,
    ::testing::Values(
        HeaderCase{"EmptyFile", "", Kind::truncated,
                   [](const auto& e) { expectTruncated(e, std::nullopt, 0); }},
        HeaderCase{"SevenBytesWithImxMagic", kImxHeader.substr(0, 7), Kind::truncated,
                   [](const auto& e) { expectTruncated(e, std::nullopt, 0); }},
        HeaderCase{"FourBytesOfZip", "PK\x03\x04", Kind::truncated,
                   [](const auto& e) { expectTruncated(e, std::nullopt, 0); }},
        HeaderCase{"OneByte", "I", Kind::truncated,
                   [](const auto& e) { expectTruncated(e, std::nullopt, 0); }},
        HeaderCase{"Zip", std::string("PK\x03\x04\x14\x00\x00\x00\x08\x00", 10),
                   Kind::legacyZipContainer, [](const auto&) {}},
        HeaderCase{"Kimx", std::string("KIMX\x02\x00\x01\x00", 8), Kind::wrongContainerFamily,
                   [](const auto& e) {
                     EXPECT_EQ(e.name(), "KIMX");
                     EXPECT_THAT(e.what(), ::testing::HasSubstr(": this is a KIMX container"));
                   }},
        HeaderCase{"Png", "\x89PNG\r\n\x1a\n", Kind::notAContainer,
                   [](const auto& e) {
                     EXPECT_EQ(e.magic(), (Magic{0x89, 0x50, 0x4E, 0x47}));
                     EXPECT_THAT(e.what(), ::testing::HasSubstr("[89 50 4e 47]"));
                   }},
        HeaderCase{"Random", randomBytes(64, 7), Kind::notAContainer,
                   [](const auto& e) {
                     const std::string r = randomBytes(64, 7);
                     EXPECT_EQ(
                         e.magic(),
                         (Magic{static_cast<std::uint8_t>(r[0]), static_cast<std::uint8_t>(r[1]),
                                static_cast<std::uint8_t>(r[2]), static_cast<std::uint8_t>(r[3])}));
                   }},
        HeaderCase{
            "ImxWithoutZero", std::string("IMX!\x02\x00\x00\x00", 8), Kind::notAContainer,
            [](const auto& e) { EXPECT_THAT(e.what(), ::testing::HasSubstr("[49 4d 58 21]")); }},
        HeaderCase{"Version1", std::string("IMX\0\x01\x00\x00\x00", 8), Kind::unsupportedVersion,
                   [](const auto& e) {
                     EXPECT_EQ(e.version(), 1);
                     EXPECT_THAT(e.what(), ::testing::HasSubstr("version 1 — this reader "
                                                                "implements version 2 ("));
                   }},
        HeaderCase{"Version3", std::string("IMX\0\x03\x00\x00\x00", 8), Kind::unsupportedVersion,
                   [](const auto& e) { EXPECT_EQ(e.version(), 3); }},
        HeaderCase{"VersionBigEndian2", std::string("IMX\0\x00\x02\x00\x00", 8),
                   Kind::unsupportedVersion, [](const auto& e) { EXPECT_EQ(e.version(), 512); }}),
    [](const auto& tp) { return std::string(tp.param.label); });

// ---- Sniffing ------------------------------------------------------------------------------

TEST_F(ScratchTest, SniffsOnlyFourFullBytes) {
  const fs::path imx = scratch_.write("a.imx", kImxHeader);
  const fs::path zip = scratch_.write("a.zip", "PK\x03\x04rest");
  const fs::path shortImx = scratch_.write("short", std::string("IMX", 3));
  EXPECT_TRUE(Lumora2Container::isContainer(imx));
  EXPECT_FALSE(Lumora2Container::isLegacyZip(imx));
  EXPECT_TRUE(Lumora2Container::isLegacyZip(zip));
  EXPECT_FALSE(Lumora2Container::isContainer(zip));
  EXPECT_EQ(Lumora2Container::magic4(shortImx), std::nullopt);
  EXPECT_FALSE(Lumora2Container::isContainer(shortImx));
  EXPECT_EQ(Lumora2Container::magic4(scratch_ / "missing"), std::nullopt);
  EXPECT_EQ(Lumora2Container::magic4(scratch_.path()), std::nullopt);  // a directory
}

TEST_F(ScratchTest, MissingContainerIsTheFileSystemsError) {
  EXPECT_THROW(Lumora2Container::members(scratch_ / "missing"), fs::filesystem_error);
  EXPECT_THROW(Lumora2Container::unpack(scratch_ / "missing", scratch_ / "out"),
               fs::filesystem_error);
  EXPECT_FALSE(fs::exists(scratch_ / "out"));
}

// ---- Truncation at every byte --------------------------------------------------------------

// Three members, one with an empty name and one with a non-ASCII name, then data.
ImxBuilder sampleContainer() {
  return ImxBuilder()
      .add("a.txt", "alpha")
      .add("", "")
      .add("dir/\xC3\xA9t\xC3\xA9.bin", std::string(40, 'e'))
      .add("manifest.json", "{}");
}

// What `members` must say about the sample cut to `length` bytes; nothing when it parses.
std::optional<std::pair<std::optional<std::string>, std::uint64_t>> expectedCut(
    std::uint64_t length) {
  const ImxBuilder sample = sampleContainer();
  const ImxBuilder::Layout at = sample.layout();
  if (length < 8) return std::pair{std::nullopt, 0};
  const std::vector<std::string> names{"a.txt", "", "dir/\xC3\xA9t\xC3\xA9.bin", "manifest.json"};
  for (std::size_t i = 0; i < at.entries.size(); ++i) {
    const auto& e = at.entries[i];
    if (length < e.nameAt) return std::pair{std::nullopt, e.nameLengthAt};
    if (length < e.spanAt) return std::pair{std::nullopt, e.nameAt};
    if (length < e.spanAt + 16) return std::pair{names[i], e.spanAt};
  }
  return std::nullopt;
}

std::vector<std::uint64_t> everyCut() {
  std::vector<std::uint64_t> cuts;
  for (std::uint64_t n = 0; n < sampleContainer().layout().end; ++n) cuts.push_back(n);
  return cuts;
}

class TruncationTest : public ScratchTest, public ::testing::WithParamInterface<std::uint64_t> {};

TEST_P(TruncationTest, ReportsWhereTheBytesRanOut) {
  const std::uint64_t cut = GetParam();
  const ImxBuilder sample = sampleContainer();
  const ImxBuilder::Layout at = sample.layout();
  const fs::path file = scratch_.write("cut.imx", sample.bytes().substr(0, cut));
  const fs::path dest = scratch_ / "out";

  if (auto expected = expectedCut(cut)) {
    expectTruncated(errorOf([&] { Lumora2Container::members(file); }), expected->first,
                    expected->second);
    expectTruncated(errorOf([&] { Lumora2Container::unpack(file, dest); }), expected->first,
                    expected->second);
    EXPECT_FALSE(fs::exists(dest));
    return;
  }

  // The table is whole; spans are only checked when data is read.
  ASSERT_EQ(Lumora2Container::members(file).size(), 4u);
  const Member etc = Lumora2Container::members(file)[2];
  if (cut >= etc.offset + etc.size) {
    EXPECT_EQ(Lumora2Container::read(etc.name, file), std::string(40, 'e'));
  } else {
    expectTruncated(errorOf([&] { Lumora2Container::read(etc.name, file); }), etc.name, etc.offset);
  }

  // unpack writes "a.txt" (if whole), then refuses the empty name before reading its data.
  if (cut < at.entries[0].dataAt + 5) {
    expectTruncated(errorOf([&] { Lumora2Container::unpack(file, dest); }), "a.txt", cut);
    EXPECT_EQ(test::readBytes(dest / "a.txt"), std::string("alpha").substr(0, cut - at.dataAt))
        << "the partial file stays";
  } else {
    Lumora2ContainerError e = errorOf([&] { Lumora2Container::unpack(file, dest); });
    EXPECT_EQ(e.kind(), Kind::unsafeMemberName);
    EXPECT_EQ(e.name(), "");
    EXPECT_EQ(test::readBytes(dest / "a.txt"), "alpha");
  }
}

INSTANTIATE_TEST_SUITE_P(EveryCut, TruncationTest, ::testing::ValuesIn(everyCut()));

// ---- The table ------------------------------------------------------------------------------

TEST_F(ScratchTest, EmptyContainer) {
  const fs::path file = scratch_.write("empty.imx", kImxHeader);
  EXPECT_TRUE(Lumora2Container::members(file).empty());
  Lumora2ContainerError e = errorOf([&] { Lumora2Container::readManifest(file); });
  EXPECT_EQ(e.kind(), Kind::memberNotFound);
  EXPECT_EQ(e.name(), "manifest.json");
  EXPECT_TRUE(Lumora2Container::unpack(file, scratch_ / "out/deeper").empty());
  EXPECT_TRUE(fs::is_directory(scratch_ / "out/deeper"));
  EXPECT_TRUE(fs::is_empty(scratch_ / "out/deeper"));
}

TEST_F(ScratchTest, FullTableOf65535Members) {
  ImxBuilder b;
  for (int i = 0; i < 65535; ++i) b.add("m" + std::to_string(i), i == 65534 ? "last" : "");
  const fs::path file = b.writeTo(scratch_ / "full.imx");
  const std::vector<Member> table = Lumora2Container::members(file);
  ASSERT_EQ(table.size(), Lumora2Container::maxMembers);
  EXPECT_EQ(table.front().name, "m0");
  EXPECT_EQ(table.back().name, "m65534");
  EXPECT_EQ(Lumora2Container::read("m65534", file), "last");
}

TEST_F(ScratchTest, CountOf65535WithTooFewEntries) {
  ImxBuilder b;
  b.count(65535).add("one", "1").add("two", "22");
  const ImxBuilder::Layout at = b.layout();
  // The third entry's length field is read from the first data bytes, "12" = 0x3231, which runs
  // far past the end.
  expectTruncated(errorOf([&] { Lumora2Container::members(b.writeTo(scratch_ / "c.imx")); }),
                  std::nullopt, at.dataAt + 2);
}

TEST_F(ScratchTest, NameLengthRunsPastTheEnd) {
  ImxBuilder b;
  b.add("ok", "").addEntry({"abc", {}, 0, 0, std::uint16_t{4000}});
  const ImxBuilder::Layout at = b.layout();
  expectTruncated(errorOf([&] { Lumora2Container::members(b.writeTo(scratch_ / "c.imx")); }),
                  std::nullopt, at.entries[1].nameAt);
}

TEST_F(ScratchTest, SpansAreNotCheckedByTheTable) {
  ImxBuilder b;
  b.addSpan("past", kMax64, kMax64).addSpan("overlap", 0, 8).add("real", "bytes");
  const std::vector<Member> table = Lumora2Container::members(b.writeTo(scratch_ / "c.imx"));
  ASSERT_EQ(table.size(), 3u);
  EXPECT_EQ(table[0], (Member{"past", kMax64, kMax64}));
  EXPECT_EQ(table[1], (Member{"overlap", 0, 8}));
  EXPECT_EQ(table[2], (Member{"real", b.layout().dataAt, 5}));
}

class InvalidUtf8Test : public ScratchTest, public ::testing::WithParamInterface<std::string> {};

TEST_P(InvalidUtf8Test, RefusedWhileParsing) {
  const fs::path file =
      ImxBuilder().add("fine", "1").add(GetParam(), "2").writeTo(scratch_ / "c.imx");
  for (auto op : std::vector<std::function<void()>>{
           [&] { Lumora2Container::members(file); }, [&] { Lumora2Container::read("fine", file); },
           [&] { Lumora2Container::unpack(file, scratch_ / "out"); }}) {
    Lumora2ContainerError e = errorOf(op);
    EXPECT_EQ(e.kind(), Kind::unsafeMemberName);
    EXPECT_EQ(e.name(), "<non-UTF8>");
  }
  EXPECT_FALSE(fs::exists(scratch_ / "out")) << "refused before anything is unpacked";
}

INSTANTIATE_TEST_SUITE_P(Names, InvalidUtf8Test,
                         ::testing::Values("\xFF\xFE", "a\xC3", "\xC0\xAF", "\xED\xA0\x80",
                                           "\xF4\x90\x80\x80", "ok/\x80"));

// ---- read -----------------------------------------------------------------------------------

TEST_F(ScratchTest, LaterDuplicateWins) {
  const fs::path file = ImxBuilder()
                            .add("x", "first")
                            .add("y", "other")
                            .add("x", "second")
                            .writeTo(scratch_ / "c.imx");
  EXPECT_EQ(Lumora2Container::read("x", file), "second");
  EXPECT_EQ(Lumora2Container::read("y", file), "other");
  EXPECT_EQ(errorOf([&] { Lumora2Container::read("X", file); }).kind(), Kind::memberNotFound);
}

TEST_F(ScratchTest, CanonicallyEquivalentNamesAreOneName) {
  const std::string composed = "caf\xC3\xA9.txt";     // é as one code point
  const std::string decomposed = "cafe\xCC\x81.txt";  // e + combining acute
  const fs::path file = ImxBuilder()
                            .add(composed, "composed")
                            .add(decomposed, "decomposed")
                            .add("only-" + composed, "here")
                            .writeTo(scratch_ / "c.imx");
  EXPECT_EQ(Lumora2Container::read(composed, file), "decomposed");
  EXPECT_EQ(Lumora2Container::read(decomposed, file), "decomposed");
  EXPECT_EQ(Lumora2Container::read("only-" + decomposed, file), "here");
}

TEST_F(ScratchTest, EmptyMemberIsReadWithoutTouchingItsOffset) {
  const fs::path file = ImxBuilder().addSpan("void", kMax64, 0).writeTo(scratch_ / "c.imx");
  EXPECT_EQ(Lumora2Container::read("void", file), "");
}

TEST_F(ScratchTest, ManifestIsReadWherever) {
  const fs::path file =
      ImxBuilder().add("manifest.json", "{\"a\":1}").add("b", "x").writeTo(scratch_ / "c.imx");
  EXPECT_EQ(Lumora2Container::readManifest(file), "{\"a\":1}");
}

// Spans that do not fit the file: read reports truncated at the member's offset without
// allocating; unpack reports where the data ran out and leaves what it copied.
struct SpanCase {
  const char* label;
  std::uint64_t offset;  // relative to the data area when `relative`
  std::uint64_t size;
  bool relative;
};

class HostileSpanTest : public ScratchTest, public ::testing::WithParamInterface<SpanCase> {};

TEST_P(HostileSpanTest, ShortReadNeverHugeAllocation) {
  const std::string data = "0123456789";
  ImxBuilder b;
  b.addSpan("m", 0, 0).trailer(data);
  const std::uint64_t base = b.layout().dataAt;
  const std::uint64_t offset = GetParam().relative ? base + GetParam().offset : GetParam().offset;
  b = ImxBuilder().addSpan("m", offset, GetParam().size).trailer(data);
  const fs::path file = b.writeTo(scratch_ / "c.imx");
  const std::uint64_t end = base + data.size();

  expectTruncated(errorOf([&] { Lumora2Container::read("m", file); }), "m", offset);

  const std::uint64_t ranOut = offset < end ? end : offset;
  expectTruncated(errorOf([&] { Lumora2Container::unpack(file, scratch_ / "out"); }), "m", ranOut);
  const std::string partial = offset < end ? data.substr(offset - base) : "";
  EXPECT_EQ(test::readBytes(scratch_ / "out/m"), partial);
}

INSTANTIATE_TEST_SUITE_P(Spans, HostileSpanTest,
                         ::testing::Values(SpanCase{"OneBytePastTheEnd", 0, 11, true},
                                           SpanCase{"StartsAtTheEnd", 10, 1, true},
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
