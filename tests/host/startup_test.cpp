// The artifact commands must start in milliseconds, so the executable links no render library
// (LibTorch alone costs 0.4 s and 160 MiB to load). The time and memory of `info` on a 1 GiB
// container are measured by bench/artifacts.sh against a baseline, not here.
#include <gtest/gtest.h>

#include <string>

#include "host/support/process.h"

namespace lumora2 {
namespace {

TEST(StartupTest, ExecutableLinksNoRenderLibraries) {
  test::ProcessResult r = test::runProcess("/usr/bin/ldd", {test::modelBinary()}, "/", {});
  ASSERT_EQ(r.status, 0) << r.err;
  for (const char* heavy :
       {"torch", "c10", "opencv", "avcodec", "avformat", "swscale", "sndfile"}) {
    EXPECT_EQ(r.out.find(heavy), std::string::npos) << heavy << " in:\n" << r.out;
  }
}

}  // namespace
}  // namespace lumora2
