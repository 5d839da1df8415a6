// The process entry of lumora2-model: split off the command word, parse the rest with parseArgs,
// call one command, and turn its outcome into the exit status.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace lumora2 {

// The general usage text, printed after "error: " when no command word is given.
inline constexpr std::string_view kGeneralUsage =
    "usage: lumora2-model "
    "<pack-engine|pack-avatar|info|unpack|validate|fold|render-parity|render-stream|render-pool> "
    "\u2026  (see docs/MODEL_FORMAT.md)\n"
    "  pack via UNIFIED_CONTAINER=1 to emit the unified .imx form (default OFF = zip);\n"
    "  or `fold <in.model|in.avatar> -o out.imx` to re-home an existing zip artifact.";

// The full argument vector of the process, program path included; set once by
// lumora2_host_main before any command runs.
const std::vector<std::string>& processArguments();

// Runs the command named by argv[1] and returns kExitOk when it returned normally. Every failure
// is one "error: …" line on standard error and kExitFailure; commands that end the process with
// other statuses (unpack's checksum problems, render-stream) do so by themselves. Never lets an
// exception escape.
int lumora2_host_main(int argc, char** argv);

}  // namespace lumora2
