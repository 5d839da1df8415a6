#include "signal_cleanup.h"

#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace lumora2::render::signal_cleanup {
namespace {

char partialFile[4096];
char idleFile[4096];
char idleDir[4096];
char childTmp[4096];
volatile sig_atomic_t childPid = 0;

void copyPath(char (&into)[4096], const std::filesystem::path& path) {
  const std::string text = path.string();
  if (text.size() >= sizeof into) {
    into[0] = '\0';
    return;
  }
  std::memcpy(into, text.c_str(), text.size() + 1);
}

extern "C" void onSignal(int signal) {
  if (partialFile[0] != '\0') ::unlink(partialFile);
  if (idleFile[0] != '\0') ::unlink(idleFile);
  if (idleDir[0] != '\0') ::rmdir(idleDir);
  const pid_t pid = childPid;
  if (pid > 0) {
    // SIGTERM lets the child remove its working directory; SIGCONT wakes a stopped one so that it
    // can. One that has not gone within 5 s is killed.
    ::kill(pid, SIGTERM);
    ::kill(pid, SIGCONT);
    int raw = 0;
    for (int waited = 0; ::waitpid(pid, &raw, WNOHANG) == 0; ++waited) {
      if (waited == 500) ::kill(pid, SIGKILL);
      const timespec tick{0, 10'000'000};
      ::nanosleep(&tick, nullptr);
    }
    if (childTmp[0] != '\0') ::rmdir(childTmp);
  }
  ::signal(signal, SIG_DFL);
  ::raise(signal);
}

}  // namespace

void install() {
  for (int s : {SIGINT, SIGTERM, SIGHUP}) ::signal(s, onSignal);
}

void setPartialFile(const std::filesystem::path& path) { copyPath(partialFile, path); }

void setIdleClip(const std::filesystem::path& file, const std::filesystem::path& dir) {
  copyPath(idleFile, file);
  copyPath(idleDir, dir);
}

void setChild(pid_t pid, const std::filesystem::path& tmpDir) {
  childPid = 0;
  copyPath(childTmp, pid > 0 ? tmpDir : std::filesystem::path());
  childPid = pid > 0 ? pid : 0;
}

}  // namespace lumora2::render::signal_cleanup
