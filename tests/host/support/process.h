// Running the real lumora2-model in a directory with a chosen environment, capturing its two
// output streams separately.
#pragma once

#include <sys/resource.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace lumora2::test {

struct ProcessResult {
  int status = -1;  // exit status, or 128 + signal number
  std::string out;
  std::string err;
  double wallSeconds = 0;
  long maxRssKiB = 0;  // peak resident set of the child
};

// Runs `executable` with `arguments` in `cwd`, with exactly `environment` as its environment and
// standard input from /dev/null. Standard output and error are read concurrently, so a chatty
// child never stalls.
ProcessResult runProcess(const std::string& executable, const std::vector<std::string>& arguments,
                         const std::filesystem::path& cwd,
                         const std::map<std::string, std::string>& environment);

// The lumora2-model binary under test.
std::string modelBinary();

}  // namespace lumora2::test
