// Child processes as the zip tools are run: combined output, working directory, exit statuses in
// the error text, and launch failures as the system's error.
#include <gtest/gtest.h>

#include <system_error>

#include "container/archive.h"
#include "container/command.h"
#include "support/scratch_dir.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;

struct ShellCase {
  const char* script;
  std::string output;
};

void PrintTo(const ShellCase& c, std::ostream* os) { *os << c.script; }

class RunOutputTest : public ::testing::TestWithParam<ShellCase> {};

TEST_P(RunOutputTest, ReturnsCombinedOutputOfASuccessfulChild) {
  EXPECT_EQ(Archive::run("/bin/sh", {"-c", GetParam().script}), GetParam().output);
}

INSTANTIATE_TEST_SUITE_P(
    Scripts, RunOutputTest,
    ::testing::Values(ShellCase{"true", ""},
                      // Both streams share one pipe, so their order is kept.
                      ShellCase{"echo out; echo err >&2; echo out2", "out\nerr\nout2\n"},
                      // Standard input is not the parent's: cat sees end of input at once.
                      ShellCase{"cat", ""},
                      // Far more than a pipe buffers: the parent must read while the child writes.
                      ShellCase{"head -c 3000000 /dev/zero | tr '\\0' z",
                                std::string(3000000, 'z')},
                      // Output that is not UTF-8 counts as none.
                      ShellCase{"printf '\\377\\376'", ""}));

TEST(RunTest, NonZeroExitNamesTheCommandLineStatusAndOutput) {
  try {
    Archive::run("/bin/sh", {"-c", "printf x; exit 9"});
    FAIL() << "expected Err";
  } catch (const Err& e) {
    EXPECT_STREQ(e.what(), "`/bin/sh -c printf x; exit 9` exited 9:\nx");
  }
}

TEST(RunTest, RunsInTheGivenWorkingDirectory) {
  test::ScratchDir dir;
  EXPECT_EQ(Archive::run("/bin/pwd", {"-P"}, dir.path()),
            fs::canonical(dir.path()).string() + "\n");
}

TEST(RunTest, LaunchFailuresAreSystemErrors) {
  test::ScratchDir dir;
  EXPECT_THROW(Archive::run((dir / "no-such-tool").string(), {}), std::system_error);
  EXPECT_THROW(Archive::run("/bin/true", {}, dir / "no-such-dir"), std::system_error);
}

}  // namespace
}  // namespace lumora2
