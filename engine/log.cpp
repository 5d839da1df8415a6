#include "engine/log.h"

#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <mutex>

namespace lumora2 {
namespace {

std::string& programName() {
  static std::string name = "lumora2-model";
  return name;
}
std::atomic<int> destination{STDERR_FILENO};

}  // namespace

void setEngineLogProgram(std::string_view name) { programName() = std::string(name); }
void setEngineLogDestination(int fd) { destination.store(fd, std::memory_order_relaxed); }

std::string formatLogLine(std::string_view text) {
  timeval now{};
  gettimeofday(&now, nullptr);
  std::tm local{};
  localtime_r(&now.tv_sec, &local);
  char stamp[64];
  std::size_t n = std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &local);
  long offsetMin = local.tm_gmtoff / 60;
  char sign = offsetMin < 0 ? '-' : '+';
  if (offsetMin < 0) offsetMin = -offsetMin;
  std::snprintf(stamp + n, sizeof stamp - n, ".%03ld%c%02ld:%02ld",
                static_cast<long>(now.tv_usec / 1000), sign, offsetMin / 60, offsetMin % 60);
  std::string line;
  line.reserve(text.size() + 64);
  line.append(stamp);
  line.append(" ").append(programName()).append("[");
  line.append(std::to_string(getpid()));
  line.append("] ");
  line.append(text);
  line.push_back('\n');
  return line;
}

void engineLog(std::string_view text) noexcept {
  const int fd = destination.load(std::memory_order_relaxed);
  if (fd < 0) return;
  try {
    std::string line = formatLogLine(text);
    // The mutex keeps this process's lines whole even where one write(2) could be split (a
    // regular file or terminal accepts it whole; a pipe does up to PIPE_BUF bytes atomically).
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    const char* p = line.data();
    std::size_t left = line.size();
    while (left > 0) {
      ssize_t written = ::write(fd, p, left);
      if (written < 0) {
        if (errno == EINTR) continue;
        return;
      }
      p += written;
      left -= static_cast<std::size_t>(written);
    }
  } catch (...) {
    // Out of memory while formatting: the line is lost, the engine goes on.
  }
}

}  // namespace lumora2
