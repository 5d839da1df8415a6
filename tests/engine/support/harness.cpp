#include "support/harness.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "container/platform.h"

extern char** environ;

namespace lumora2::testing {

namespace fs = std::filesystem;

EnvOverride::EnvOverride(
    std::initializer_list<std::pair<const char*, std::optional<std::string>>> values) {
  for (const auto& [name, value] : values) set(name, value);
}

void EnvOverride::set(const std::string& name, const std::optional<std::string>& value) {
  if (saved_.count(name) == 0) {
    const char* old = std::getenv(name.c_str());
    saved_[name] = old == nullptr ? std::nullopt : std::optional<std::string>(old);
  }
  if (value) {
    ::setenv(name.c_str(), value->c_str(), 1);
  } else {
    ::unsetenv(name.c_str());
  }
}

EnvOverride::~EnvOverride() {
  for (const auto& [name, value] : saved_) {
    if (value) {
      ::setenv(name.c_str(), value->c_str(), 1);
    } else {
      ::unsetenv(name.c_str());
    }
  }
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

StderrCapture::StderrCapture() {
  std::string pattern = (fs::temp_directory_path() / "lumora2-stderr-XXXXXX").string();
  int fd = ::mkstemp(pattern.data());
  if (fd < 0) throw std::runtime_error("mkstemp failed");
  file_ = pattern;
  saved_ = ::dup(STDERR_FILENO);
  ::dup2(fd, STDERR_FILENO);
  ::close(fd);
}

std::string StderrCapture::finish() {
  if (saved_ >= 0) {
    ::dup2(saved_, STDERR_FILENO);
    ::close(saved_);
    saved_ = -1;
  }
  std::ifstream in(file_, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

StderrCapture::~StderrCapture() {
  finish();
  std::error_code ec;
  fs::remove(file_, ec);
}

std::vector<std::string> logTexts(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    // "<time> lumora2-model[<pid>] <text>"
    std::size_t mark = line.find(" lumora2-model[");
    if (mark == std::string::npos) continue;
    std::size_t close = line.find("] ", mark);
    if (close == std::string::npos) continue;
    lines.push_back(line.substr(close + 2));
  }
  return lines;
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv,
                           const std::map<std::string, std::optional<std::string>>& env) {
  std::map<std::string, std::string> merged;
  for (char** e = environ; *e != nullptr; ++e) {
    std::string entry(*e);
    std::size_t eq = entry.find('=');
    if (eq != std::string::npos) merged[entry.substr(0, eq)] = entry.substr(eq + 1);
  }
  for (const auto& [name, value] : env) {
    if (value) {
      merged[name] = *value;
    } else {
      merged.erase(name);
    }
  }
  std::vector<std::string> envText;
  for (const auto& [name, value] : merged) envText.push_back(name + "=" + value);
  std::vector<char*> envp, args;
  for (auto& s : envText) envp.push_back(s.data());
  envp.push_back(nullptr);
  std::vector<std::string> argvCopy = argv;
  for (auto& s : argvCopy) args.push_back(s.data());
  args.push_back(nullptr);

  int outPipe[2], errPipe[2];
  if (::pipe2(outPipe, O_CLOEXEC) != 0 || ::pipe2(errPipe, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe failed");
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, outPipe[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, errPipe[1], STDERR_FILENO);
  int rc = posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(outPipe[1]);
  ::close(errPipe[1]);
  outFd_ = outPipe[0];
  errFd_ = errPipe[0];
  if (rc != 0) throw std::runtime_error("posix_spawn failed: " + std::string(std::strerror(rc)));
}

ProcessResult ChildProcess::finish() {
  ProcessResult result;
  pollfd fds[2] = {{outFd_, POLLIN, 0}, {errFd_, POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open = 2;
  char buf[65536];
  while (open > 0) {
    if (::poll(fds, 2, -1) < 0) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      ssize_t n = ::read(fds[i].fd, buf, sizeof buf);
      if (n > 0) {
        sinks[i]->append(buf, static_cast<std::size_t>(n));
      } else {
        ::close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
  outFd_ = errFd_ = -1;
  int status = 0;
  if (::waitpid(pid_, &status, 0) == pid_ && WIFEXITED(status)) result.status = WEXITSTATUS(status);
  pid_ = -1;
  return result;
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) finish();
}

ProcessResult runProcess(const std::vector<std::string>& argv,
                         const std::map<std::string, std::optional<std::string>>& env) {
  return ChildProcess(argv, env).finish();
}

}  // namespace lumora2::testing
