// The two member-name refusal rules, side by side on one table, and how unpack applies them: a
// refused name stops the unpack, members before it stay written, and accepted spellings land at
// their lexical place.
#include <gtest/gtest.h>

#include "container/imx.h"
#include "support/imx_builder.h"
#include "support/scratch_dir.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;
using test::ImxBuilder;
using test::ScratchTest;

struct NameCase {
  std::string name;
  bool firstRuleAccepts;  // checkMemberName
  bool landsInside;       // landsInsideDestination
  const char* landsAt;    // where unpack writes it when both accept
};

std::ostream& operator<<(std::ostream& os, const NameCase& c) { return os << '"' << c.name << '"'; }

const NameCase kNames[] = {
    {"", false, false, nullptr},
    {"/etc/x", false, false, nullptr},
    {"//x", false, false, nullptr},
    {"~/x", false, false, nullptr},
    {"~", false, false, nullptr},
    {"~user", false, false, nullptr},
    {"..", false, false, nullptr},
    {"../x", false, false, nullptr},
    {"a/../../x", false, false, nullptr},
    {"a/..", false, false, nullptr},
    {"./..", false, false, nullptr},
    {"a/../b", false, true, nullptr},  // lands inside, but "/../" is refused outright
    {"a/b/..", false, true, nullptr},
    {".", true, false, nullptr},  // the destination itself
    {"./.", true, false, nullptr},
    {"a//b", true, true, "a/b"},
    {"./a", true, true, "a"},
    {"a/./b", true, true, "a/b"},
    {"a/.", true, true, nullptr},  // names a directory: accepted, but there is no file to write
    {"...", true, true, "..."},
    {"..a", true, true, "..a"},
    {"a/..b", true, true, "a/..b"},
    {"a..", true, true, "a.."},
    {"a\\..\\..\\b", true, true, "a\\..\\..\\b"},  // backslashes are ordinary characters
    {"C:/x", true, true, "C:/x"},
    {"a~", true, true, "a~"},
    {"d/~", true, true, "d/~"},
    {"manifest.json", true, true, "manifest.json"},
    {"pkg.mlpackage/model.pt", true, true, "pkg.mlpackage/model.pt"},
};

class MemberNameTest : public ScratchTest, public ::testing::WithParamInterface<NameCase> {};

TEST_P(MemberNameTest, RulesAgreeWithTheTable) {
  const NameCase& c = GetParam();
  EXPECT_EQ(test::imxError([&] { Lumora2Container::checkMemberName(c.name, "/c.imx"); }),
            c.firstRuleAccepts ? "returned" : "unsafeMemberName \"" + c.name + "\"");
  EXPECT_EQ(Lumora2Container::landsInsideDestination(c.name), c.landsInside);
}

TEST_P(MemberNameTest, UnpackWritesOnlyAcceptedNames) {
  const NameCase& c = GetParam();
  const fs::path file =
      ImxBuilder().add("before", "kept").add(c.name, "payload").writeTo(scratch_ / "c.imx");
  const fs::path dest = scratch_ / "out";
  const auto rootBefore = test::listTree(scratch_.path());
  const std::string refusal = c.firstRuleAccepts && c.landsInside
                                  ? "cannotWrite \"" + c.name + "\" to " + (dest / c.name).string()
                                  : "unsafeMemberName \"" + c.name + "\"";
  EXPECT_EQ(test::imxError([&] { Lumora2Container::unpack(file, dest); }),
            c.landsAt != nullptr ? "returned" : refusal);
  EXPECT_EQ(test::readBytes(dest / "before"), "kept") << "members before a refused one stay";
  if (c.landsAt != nullptr) {
    EXPECT_EQ(test::readBytes(dest / c.landsAt), "payload");
    return;
  }
  auto after = test::listTree(scratch_.path());
  std::erase_if(after, [](const std::string& e) { return e.starts_with("out/"); });
  EXPECT_EQ(after, rootBefore) << "nothing else appeared anywhere";
}

INSTANTIATE_TEST_SUITE_P(Names, MemberNameTest, ::testing::ValuesIn(kNames));

TEST_F(ScratchTest, NulByteInANameIsRefusedByUnpack) {
  // "..\0x" passes both lexical rules, but a system call would see only "..".
  const std::string name("..\0x/evil", 9);
  const fs::path file = ImxBuilder().add(name, "payload").writeTo(scratch_ / "c.imx");
  EXPECT_EQ(test::imxError([&] { Lumora2Container::unpack(file, scratch_ / "out/inner"); }),
            "unsafeMemberName \"" + name + "\"");
  EXPECT_EQ(test::listTree(scratch_ / "out"), (std::vector<std::string>{"inner/"}));
}

}  // namespace
}  // namespace lumora2
