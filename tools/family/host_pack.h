// Packs staging directories with the project's own host commands (lumora2-model pack-engine and
// pack-avatar), run as child processes.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "family/identity.h"

namespace lumora2::family {

struct ProcessResult {
  int status = -1;     // exit status; 128 + signal when the child was killed
  std::string output;  // standard output and standard error, interleaved
};

// Runs argv[0] (a path, not searched in PATH) with standard output and error on one pipe.
// Throws std::runtime_error when the program cannot be started.
ProcessResult runProcess(const std::vector<std::string>& argv);

// Each throws std::runtime_error carrying the host's output when the command fails.
void packEngine(const std::filesystem::path& host, const std::filesystem::path& stagingDir,
                const std::filesystem::path& out, int abi);
void packAvatar(const std::filesystem::path& host, const std::filesystem::path& stagingDir,
                const Identity& id, const std::filesystem::path& out, int abi);

}  // namespace lumora2::family
