// Types every command of lumora2-model shares: the host's plain error, the exit statuses, and the
// parsed argument pair that each `cmd…` function receives.
#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace lumora2 {

// The host's plain error: one message string that is also its printed description. Commands throw
// it with their usage and requirement texts; the entry point prints "error: " + what() and exits 1,
// as it does for the artifact layer's ArtifactError and any other std::exception.
class Err : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Every exit status the process can end with, in one place.
enum ExitStatus : int {
  kExitOk = 0,
  kExitFailure = 1,           // a command threw; "error: …" was printed
  kExitChecksumProblems = 2,  // unpack found missing or mismatching members
  kExitRespawn = 3,           // render-stream: two failed segments in a row
  kExitSignalBase = 128,      // render-stream: 128 + the signal number
};

// Positional arguments in order, and options by name without their leading dashes. An option given
// without a value holds "true".
using Positionals = std::vector<std::string>;
using Options = std::map<std::string, std::string>;

// A command: the positional arguments and options that parseArgs produced in, the process's exit
// status out (ExitStatus); failures it cannot report by status are thrown.
using Handler = int (*)(const Positionals&, const Options&);

// The value of option `name`, or nullptr when it was not given.
inline const std::string* option(const Options& options, const std::string& name) {
  auto it = options.find(name);
  return it == options.end() ? nullptr : &it->second;
}

}  // namespace lumora2
