// Child processes as the zip tools are run: combined output, exit statuses in the error text, and
// launch failures as the system's error. The working directory is proven by the zip form's tests.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <system_error>

#include "container/archive.h"
#include "container/error.h"
#include "support/scratch_dir.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;

TEST(RunTest, ReturnsCombinedOutputOfASuccessfulChild) {
  const std::pair<const char*, std::string> table[] = {
      {"true", ""},
      {"echo out; echo err >&2; echo out2", "out\nerr\nout2\n"},  // one pipe keeps the order
      {"cat", ""},  // standard input is not the parent's: cat sees end of input at once
      // Far more than a pipe buffers: the parent must read while the child writes.
      {"head -c 3000000 /dev/zero | tr '\\0' z", std::string(3000000, 'z')},
      {"printf '\\377\\376'", ""}};  // output that is not UTF-8 counts as none
  for (const auto& [script, output] : table) {
    EXPECT_EQ(Archive::run("/bin/sh", {"-c", script}), output) << script;
  }
}

TEST(RunTest, FailuresNameTheCommandLineStatusAndOutput) {
  EXPECT_THAT(
      [] {
        Archive::run("/bin/sh", {"-c", "printf x; exit 9"});
      },
      ::testing::ThrowsMessage<ArtifactError>(
          ::testing::StrEq("`/bin/sh -c printf x; exit 9` exited 9:\nx")));
  test::ScratchDir dir;
  EXPECT_THROW(Archive::run((dir / "no-such-tool").string(), {}), std::system_error);
  EXPECT_THROW(Archive::run("/bin/true", {}, dir / "no-such-dir"), std::system_error);
}

}  // namespace
}  // namespace lumora2
