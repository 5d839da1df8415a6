#include "support/harness.h"

#include <spawn.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>

#include "container/platform.h"

extern char** environ;

namespace lumora2::testing {

namespace fs = std::filesystem;

namespace {
// Captured output goes to anonymous in-memory files, so that it leaves nothing in any directory.
int memoryFile() { return ::memfd_create("lumora2-test-output", MFD_CLOEXEC); }
std::string readAll(int fd) {
  std::string text(static_cast<std::size_t>(std::max<off_t>(::lseek(fd, 0, SEEK_END), 0)), '\0');
  return ::pread(fd, text.data(), text.size(), 0) < 0 ? std::string() : text;
}
void putEnv(const std::string& name, const std::optional<std::string>& value) {
  value ? ::setenv(name.c_str(), value->c_str(), 1) : ::unsetenv(name.c_str());
}
}  // namespace

void EnvOverride::set(const std::string& name, const std::optional<std::string>& value) {
  if (saved_.count(name) == 0) {
    const char* old = std::getenv(name.c_str());
    saved_[name] = old == nullptr ? std::nullopt : std::optional<std::string>(old);
  }
  putEnv(name, value);
}

EnvOverride::~EnvOverride() {
  for (const auto& [name, value] : saved_) putEnv(name, value);
}

Scratch::Scratch() {
  std::string pattern = (systemTempDir() / "lumora2-engine-test-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  dir_ = pattern;
  fs::create_directories(tmp());
  env_.set("LUMORA2_MLMODELC_CACHE", cache().string());
  env_.set("TMPDIR", tmp().string());
  for (const char* name :
       {"MORVANE_LUMORA2_DIR", "MORVANE_VIVRA_DIR", "LUMORA2_MLMODELC_CACHE_KEEP",
        "LUMORA2_DECP2_V3_CU", "LUMORA2_W2V_CU", "LUMORA2_ATOK_CU", "LUMORA2_STUDENT_CU"}) {
    env_.set(name, std::nullopt);
  }
}

Scratch::~Scratch() { removeTreeQuietly(dir_); }

std::vector<std::string> Scratch::cacheEntries() const {
  std::vector<std::string> names;
  std::error_code ec;
  for (fs::directory_iterator it(cache(), ec), end; !ec && it != end; it.increment(ec)) {
    names.push_back(it->path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

StderrCapture::StderrCapture() : fd_(memoryFile()), saved_(::dup(STDERR_FILENO)) {
  ::dup2(fd_, STDERR_FILENO);
}

std::string StderrCapture::finish() {
  if (saved_ >= 0) {
    ::dup2(saved_, STDERR_FILENO);
    ::close(saved_);
    saved_ = -1;
  }
  return readAll(fd_);
}

StderrCapture::~StderrCapture() {
  finish();
  ::close(fd_);
}

std::vector<std::string> logTexts(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    // "<time> lumora2-model[<pid>] <text>"
    std::size_t mark = line.find(" lumora2-model[");
    std::size_t close = mark == std::string::npos ? mark : line.find("] ", mark);
    if (close != std::string::npos) lines.push_back(line.substr(close + 2));
  }
  return lines;
}

Child::Child(const std::vector<std::string>& argv) : outFd_(memoryFile()), errFd_(memoryFile()) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, outFd_, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, errFd_, STDERR_FILENO);
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  int rc = ::posix_spawnp(&pid_, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) throw std::runtime_error("posix_spawnp failed");
}

std::pair<std::string, std::string> Child::finish() {
  if (pid_ > 0) ::waitpid(pid_, nullptr, 0);
  pid_ = -1;
  return {readAll(outFd_), readAll(errFd_)};
}

Child::~Child() {
  finish();
  ::close(outFd_);
  ::close(errFd_);
}

}  // namespace lumora2::testing
