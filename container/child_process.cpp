#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>
#include <vector>

#include "container/archive.h"
#include "container/error.h"
#include "container/member_names.h"
#include "unique_fd.h"

extern char** environ;

namespace lumora2::Archive {
namespace {

std::system_error launchError(int code, const std::string& executable) {
  return std::system_error(code, std::generic_category(), "cannot launch " + executable);
}

// posix_spawn's attribute and file-action objects, destroyed on every path.
struct SpawnSetup {
  posix_spawn_file_actions_t actions{};
  bool ready = false;
  SpawnSetup() { ready = posix_spawn_file_actions_init(&actions) == 0; }
  ~SpawnSetup() {
    if (ready) posix_spawn_file_actions_destroy(&actions);
  }
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;
};

}  // namespace

std::string run(const std::string& executable, const std::vector<std::string>& arguments,
                const std::optional<std::filesystem::path>& cwd) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) throw launchError(errno, executable);
  UniqueFd readEnd(fds[0]);
  UniqueFd writeEnd(fds[1]);

  SpawnSetup setup;
  if (!setup.ready) throw launchError(ENOMEM, executable);
  posix_spawn_file_actions_t* fa = &setup.actions;
  // Standard input is /dev/null, not the parent's: render-stream's standard input is its
  // protocol channel, and no tool run here may ever consume a byte of it.
  int rc = posix_spawn_file_actions_addopen(fa, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  if (rc == 0) rc = posix_spawn_file_actions_adddup2(fa, writeEnd.get(), STDOUT_FILENO);
  if (rc == 0) rc = posix_spawn_file_actions_adddup2(fa, writeEnd.get(), STDERR_FILENO);
  if (rc == 0 && cwd) rc = posix_spawn_file_actions_addchdir_np(fa, cwd->c_str());
  if (rc != 0) throw launchError(rc, executable);

  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(executable.c_str()));
  for (const std::string& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);

  pid_t pid = -1;
  rc = ::posix_spawn(&pid, executable.c_str(), fa, nullptr, argv.data(), environ);
  if (rc != 0) throw launchError(rc, executable);
  writeEnd.reset();  // the child holds the only write end now; its exit ends the stream

  // Read while the child runs, so a child that writes more than the pipe buffers never stalls.
  std::string output;
  char buffer[64 * 1024];
  int readErrno = 0;
  for (;;) {
    ssize_t n = ::read(readEnd.get(), buffer, sizeof buffer);
    if (n > 0) {
      output.append(buffer, static_cast<std::size_t>(n));
    } else if (n == 0) {
      break;
    } else if (errno != EINTR) {
      readErrno = errno;
      break;
    }
  }
  readEnd.reset();

  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "waitpid");
  }
  if (readErrno != 0) {
    throw std::system_error(readErrno, std::generic_category(), "reading " + executable);
  }
  if (!isValidUtf8(output)) output.clear();  // undecodable output counts as none

  int code = WIFEXITED(status) ? WEXITSTATUS(status) : WIFSIGNALED(status) ? WTERMSIG(status) : -1;
  if (code == 0 && WIFEXITED(status)) return output;
  std::string commandLine = executable + " ";
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    commandLine += (i == 0 ? "" : " ") + arguments[i];
  }
  throw ArtifactError("`" + commandLine + "` exited " + std::to_string(code) + ":\n" + output);
}

}  // namespace lumora2::Archive
