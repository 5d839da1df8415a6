// Member names: the two refusal rules side by side on one table, and what unpack does with each
// name: a refused name stops the unpack, members before it stay written, nothing appears
// anywhere else, and accepted spellings land at their lexical place.
#include <gtest/gtest.h>

#include "container/imx.h"
#include "support/imx_builder.h"
#include "support/scratch_dir.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;
namespace C = Lumora2Container;

struct NameCase {
  std::string name;
  bool checkAccepts;   // checkMemberName
  bool landsInside;    // landsInsideDestination
  std::string unpack;  // "unsafe", "cannotWrite", or where the member lands below the destination
};

std::ostream& operator<<(std::ostream& os, const NameCase& c) { return os << '"' << c.name << '"'; }

std::vector<NameCase> allNames() {
  std::vector<NameCase> out{
      {"a//b", true, true, "a/b"}, {"./a", true, true, "a"}, {"a/./b", true, true, "a/b"}};
  auto group = [&](bool check, bool inside, const char* unpack, std::vector<std::string> names) {
    for (std::string& n : names) out.push_back({n, check, inside, unpack ? unpack : n});
  };
  group(false, false, "unsafe",
        {"", "/etc/x", "//x", "~/x", "~", "~user", "..", "../x", "a/../../x", "a/..", "./.."});
  group(false, true, "unsafe", {"a/../b", "a/b/.."});  // inside, but "/../" is refused outright
  group(true, false, "unsafe", {".", "./."});          // the destination itself
  group(true, true, "unsafe", {std::string("..\0x/evil", 9)});  // a system call sees only ".."
  // A directory's name, and a file name longer than the file system allows: no file to write.
  group(true, true, "cannotWrite", {"a/.", "dir/", "d/" + std::string(300, 'n')});
  // Land as spelled: dots inside names and backslashes are ordinary characters.
  group(true, true, nullptr,
        {"...", "..a", "a/..b", "a..", "a\\..\\..\\b", "C:/x", "a~", "d/~",
         "pkg.mlpackage/model.pt"});
  return out;
}

class MemberNameTest : public test::ScratchTest, public ::testing::WithParamInterface<NameCase> {};

TEST_P(MemberNameTest, RulesAndUnpackAgreeWithTheTable) {
  const NameCase& c = GetParam();
  const std::string refusal = "unsafeMemberName \"" + c.name + "\"";
  EXPECT_EQ(test::imxError([&] { C::checkMemberName(c.name, "/c.imx"); }),
            c.checkAccepts ? "returned" : refusal);
  EXPECT_EQ(C::landsInsideDestination(c.name), c.landsInside);

  const fs::path file =
      test::ImxBuilder().add("before", "kept").add(c.name, "payload").writeTo(scratch_ / "c.imx");
  const fs::path dest = scratch_ / "out";
  const auto rootBefore = test::listTree(scratch_.path());
  const std::string outcome = test::imxError([&] { C::unpack(file, dest); });
  EXPECT_EQ(test::readBytes(dest / "before"), "kept");
  if (c.unpack == "unsafe" || c.unpack == "cannotWrite") {
    EXPECT_EQ(outcome, c.unpack == "unsafe"
                           ? refusal
                           : "cannotWrite \"" + c.name + "\" to " + (dest / c.name).string());
    auto after = test::listTree(scratch_.path());
    std::erase_if(after, [](const std::string& e) { return e.starts_with("out/"); });
    EXPECT_EQ(after, rootBefore) << "nothing appeared outside the destination";
  } else {
    EXPECT_EQ(outcome, "returned");
    EXPECT_EQ(test::readBytes(dest / c.unpack), "payload");
  }
}

INSTANTIATE_TEST_SUITE_P(Names, MemberNameTest, ::testing::ValuesIn(allNames()));

}  // namespace
}  // namespace lumora2
