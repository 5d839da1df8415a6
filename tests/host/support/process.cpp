#include "host/support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <system_error>

namespace lumora2::test {

std::string modelBinary() {
#ifdef LUMORA2_MODEL_BIN
  return LUMORA2_MODEL_BIN;
#else
  return "lumora2-model";
#endif
}

ProcessResult runProcess(const std::string& executable, const std::vector<std::string>& arguments,
                         const std::filesystem::path& cwd,
                         const std::map<std::string, std::string>& environment) {
  int outPipe[2];
  int errPipe[2];
  if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe");
  }
  // Everything the child needs is built before fork: only async-signal-safe calls after it.
  std::vector<std::string> envStrings;
  for (const auto& [name, value] : environment) envStrings.push_back(name + "=" + value);
  std::vector<char*> envp;
  for (std::string& s : envStrings) envp.push_back(s.data());
  envp.push_back(nullptr);
  std::vector<std::string> argStrings{executable};
  argStrings.insert(argStrings.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& s : argStrings) argv.push_back(s.data());
  argv.push_back(nullptr);
  std::string dir = cwd.string();

  auto start = std::chrono::steady_clock::now();
  pid_t pid = fork();
  if (pid < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (pid == 0) {
    int devNull = open("/dev/null", O_RDONLY);
    if (devNull < 0 || dup2(devNull, 0) < 0 || dup2(outPipe[1], 1) < 0 || dup2(errPipe[1], 2) < 0 ||
        chdir(dir.c_str()) != 0) {
      _exit(126);
    }
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  close(outPipe[1]);
  close(errPipe[1]);

  ProcessResult result;
  pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int openStreams = 2;
  char buf[65536];
  while (openStreams > 0) {
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      ssize_t n = read(fds[i].fd, buf, sizeof buf);
      if (n > 0) {
        sinks[i]->append(buf, static_cast<std::size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        close(fds[i].fd);
        fds[i].fd = -1;
        --openStreams;
      }
    }
  }
  int status = 0;
  rusage usage{};
  while (wait4(pid, &status, 0, &usage) < 0 && errno == EINTR) {
  }
  result.wallSeconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  result.maxRssKiB = usage.ru_maxrss;
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

}  // namespace lumora2::test
