// Test harness of the engine tests: scratch directories with their own cache and temporary
// directory, environment overrides, stderr capture and child processes.
#pragma once

#include <filesystem>
#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace lumora2::testing {

// Sets (or, with nothing, unsets) environment variables and restores them when destroyed.
class EnvOverride {
 public:
  EnvOverride() = default;
  EnvOverride(std::initializer_list<std::pair<const char*, std::optional<std::string>>> values);
  ~EnvOverride();
  EnvOverride(const EnvOverride&) = delete;
  EnvOverride& operator=(const EnvOverride&) = delete;
  void set(const std::string& name, const std::optional<std::string>& value);

 private:
  std::map<std::string, std::optional<std::string>> saved_;
};

// A fresh directory with cache/ as LUMORA2_MLMODELC_CACHE and tmp/ as TMPDIR; the developer and
// engine directory variables unset. Removed with everything in it when destroyed.
class Scratch {
 public:
  Scratch();
  ~Scratch();
  const std::filesystem::path& dir() const { return dir_; }
  std::filesystem::path cache() const { return dir_ / "cache"; }
  std::filesystem::path tmp() const { return dir_ / "tmp"; }
  EnvOverride& env() { return env_; }
  // Names in the cache root, sorted.
  std::vector<std::string> cacheEntries() const;

 private:
  std::filesystem::path dir_;
  EnvOverride env_;
};

// Redirects file descriptor 2 to a file until finish(), which returns what was written.
class StderrCapture {
 public:
  StderrCapture();
  ~StderrCapture();
  std::string finish();

 private:
  int saved_ = -1;
  std::filesystem::path file_;
};

// The engine's log lines in `text` with their time and process prefix removed.
std::vector<std::string> logTexts(const std::string& text);

struct ProcessResult {
  int status = -1;  // exit status, or -1 when the child did not exit normally
  std::string out;
  std::string err;
};

// A child process with its standard output and error on pipes; the environment is this
// process's with `env` applied.
class ChildProcess {
 public:
  ChildProcess(const std::vector<std::string>& argv,
               const std::map<std::string, std::optional<std::string>>& env = {});
  ~ChildProcess();
  ProcessResult finish();

 private:
  int pid_ = -1;
  int outFd_ = -1;
  int errFd_ = -1;
};

ProcessResult runProcess(const std::vector<std::string>& argv,
                         const std::map<std::string, std::optional<std::string>>& env = {});

}  // namespace lumora2::testing
