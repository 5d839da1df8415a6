#include "process_io.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace lumora2 {

void stderrLine(const std::string& text) {
  const std::string line = text + "\n";
  [[maybe_unused]] ssize_t n = ::write(STDERR_FILENO, line.data(), line.size());
}

bool readExactly(void* into, std::size_t size) {
  auto* p = static_cast<std::uint8_t*>(into);
  while (size > 0) {
    const ssize_t n = ::read(STDIN_FILENO, p, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

bool writeAll(const void* from, std::size_t size) {
  const auto* p = static_cast<const std::uint8_t*>(from);
  while (size > 0) {
    const ssize_t n = ::write(STDOUT_FILENO, p, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

sigset_t terminatingSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGHUP);
  return set;
}

}  // namespace lumora2
