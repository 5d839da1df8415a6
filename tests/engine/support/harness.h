// Test harness of the engine tests: scratch directories with their own cache and temporary
// directory, environment overrides, stderr capture and child processes. No LibTorch here.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace lumora2::testing {

// Sets (or, with nothing, unsets) environment variables and restores them when destroyed.
class EnvOverride {
 public:
  EnvOverride() = default;
  EnvOverride(const EnvOverride&) = delete;
  EnvOverride& operator=(const EnvOverride&) = delete;
  ~EnvOverride();
  void set(const std::string& name, const std::optional<std::string>& value);

 private:
  std::map<std::string, std::optional<std::string>> saved_;
};

// A fresh directory with cache/ as LUMORA2_MLMODELC_CACHE and tmp/ as TMPDIR; the developer
// directory and unit variables unset. Removed with everything in it when destroyed.
class Scratch {
 public:
  Scratch();
  ~Scratch();
  const std::filesystem::path& dir() const { return dir_; }
  std::filesystem::path cache() const { return dir_ / "cache"; }
  std::filesystem::path tmp() const { return dir_ / "tmp"; }
  EnvOverride& env() { return env_; }
  std::vector<std::string> cacheEntries() const;  // names in the cache root, sorted

 private:
  std::filesystem::path dir_;
  EnvOverride env_;
};

// Redirects file descriptor 2 until finish(), which returns what was written.
class StderrCapture {
 public:
  StderrCapture();
  ~StderrCapture();
  std::string finish();

 private:
  int fd_, saved_;
};

// The engine's log lines in `text` with their time and process prefix removed.
std::vector<std::string> logTexts(const std::string& text);

// A child process running argv (looked up on PATH), started at construction; finish() waits for
// it and returns its standard output and error.
class Child {
 public:
  explicit Child(const std::vector<std::string>& argv);
  ~Child();
  std::pair<std::string, std::string> finish();

 private:
  int pid_ = -1, outFd_, errFd_;
};

}  // namespace lumora2::testing
