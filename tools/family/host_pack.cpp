#include "family/host_pack.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace lumora2::family {

ProcessResult runProcess(const std::vector<std::string>& argv) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error(std::string("pipe: ") + strerror(errno));
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDERR_FILENO);
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = 0;
  const int rc = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(fds[1]);
  if (rc != 0) {
    close(fds[0]);
    throw std::runtime_error("cannot run " + argv[0] + ": " + strerror(rc));
  }
  ProcessResult result;
  char buffer[4096];
  while (true) {
    const ssize_t n = read(fds[0], buffer, sizeof buffer);
    if (n > 0) {
      result.output.append(buffer, static_cast<size_t>(n));
    } else if (n == 0 || errno != EINTR) {
      break;
    }
  }
  close(fds[0]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

namespace {

void runPack(const std::vector<std::string>& argv) {
  const ProcessResult r = runProcess(argv);
  if (r.status != 0) {
    throw std::runtime_error(argv[1] + " failed (exit status " + std::to_string(r.status) +
                             "): " + r.output);
  }
}

}  // namespace

void packEngine(const std::filesystem::path& host, const std::filesystem::path& stagingDir,
                const std::filesystem::path& out, int abi) {
  runPack({host.string(), "pack-engine", stagingDir.string(), "-o", out.string(), "--abi",
           std::to_string(abi)});
}

void packAvatar(const std::filesystem::path& host, const std::filesystem::path& stagingDir,
                const Identity& id, const std::filesystem::path& out, int abi) {
  runPack({host.string(), "pack-avatar", stagingDir.string(), "--code", id.code, "--name", id.name,
           "--gender", id.gender, "--persona", id.persona, "-o", out.string(), "--abi",
           std::to_string(abi)});
}

}  // namespace lumora2::family
