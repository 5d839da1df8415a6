#include "host/entry.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>

#include "host/args.h"
#include "host/command.h"
#include "host/commands.h"

namespace lumora2 {
namespace {

struct CommandEntry {
  std::string_view word;
  Handler handler;
};

// Matched exactly (case-sensitive), in this order.
constexpr std::array<CommandEntry, 7> kCommands{{
    {"pack-engine", cmdPackEngine},
    {"pack-avatar", cmdPackAvatar},
    {"info", cmdInfo},
    {"unpack", cmdUnpack},
    {"validate", cmdValidate},
    {"fold", cmdFold},
    {"render-stream", cmdRenderStream},
}};

// Recognised so that they get a clear refusal instead of "unknown command".
constexpr std::array<std::string_view, 2> kHostedPlaneCommands{"render-parity", "render-pool"};

std::vector<std::string>& argumentStore() {
  static std::vector<std::string> arguments;
  return arguments;
}

// One diagnostic line on standard error in one write, so that lines of concurrent writers never
// interleave mid-line. Standard output is flushed first so that the two streams keep their order
// when they share a terminal.
void errorLine(std::string_view message) {
  std::cout.flush();
  std::string line = "error: ";
  line += message;
  line += '\n';
  std::size_t done = 0;
  while (done < line.size()) {
    ssize_t n = ::write(STDERR_FILENO, line.data() + done, line.size() - done);
    if (n <= 0) break;  // standard error has gone away; nothing more can be reported
    done += static_cast<std::size_t>(n);
  }
}

int dispatch(const std::string& word, const std::vector<std::string>& rest) {
  for (const CommandEntry& command : kCommands) {
    if (command.word != word) continue;
    ParsedArgs parsed = parseArgs(rest);
    const int status = command.handler(parsed.positionals, parsed.options);
    std::cout.flush();
    return status;
  }
  for (std::string_view refused : kHostedPlaneCommands) {
    if (refused != word) continue;
    errorLine("'" + word +
              "' is a hosted-plane command and is not served by this customer render host, "
              "which renders through `render-stream` only");
    return kExitFailure;
  }
  errorLine("unknown command '" + word + "'");
  return kExitFailure;
}

}  // namespace

const std::vector<std::string>& processArguments() { return argumentStore(); }

int lumora2_host_main(int argc, char** argv) {
  try {
    std::vector<std::string>& all = argumentStore();
    all.assign(argv, argv + std::max(argc, 0));
    if (all.size() < 2) {
      errorLine(kGeneralUsage);
      return kExitFailure;
    }
    std::vector<std::string> rest(all.begin() + 2, all.end());
    return dispatch(all[1], rest);
  } catch (const std::exception& e) {
    errorLine(e.what());
  } catch (...) {
    errorLine("unexpected failure");
  }
  return kExitFailure;
}

}  // namespace lumora2
