#include "container/progress.h"

#include <unistd.h>

#include <cstdio>
#include <string>

namespace lumora2 {
namespace {

std::string humanBytes(std::uint64_t n) {
  static const char* const units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  double v = static_cast<double>(n);
  int u = 0;
  while (v >= 1024.0 && u < 4) {
    v /= 1024.0;
    ++u;
  }
  char buf[32];
  std::snprintf(buf, sizeof buf, u == 0 ? "%.0f %s" : "%.1f %s", v, units[u]);
  return buf;
}

}  // namespace

TerminalProgress::TerminalProgress(std::string label, std::uint64_t minBytes)
    : label_(std::move(label)), minBytes_(minBytes), enabled_(isatty(STDERR_FILENO) == 1) {}

TerminalProgress::~TerminalProgress() { finish(); }

ProgressFn TerminalProgress::callback() {
  if (!enabled_) return {};
  return [this](std::uint64_t done, std::uint64_t total) { update(done, total); };
}

void TerminalProgress::update(std::uint64_t done, std::uint64_t total) {
  if (!enabled_ || total < minBytes_) return;
  auto now = std::chrono::steady_clock::now();
  if (drawn_ && done < total && now - lastDraw_ < std::chrono::milliseconds(100)) return;
  lastDraw_ = now;
  drawn_ = true;
  int pct = total == 0 ? 100 : static_cast<int>(100.0 * static_cast<double>(done) /
                                                static_cast<double>(total));
  std::string line = "\r\x1b[2K" + label_ + "  " + std::to_string(pct) + "%  " + humanBytes(done) +
                     " / " + humanBytes(total);
  // One write per redraw: the meter never interleaves with other stderr lines mid-line.
  ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
  (void)ignored;
}

void TerminalProgress::finish() {
  if (!drawn_) return;
  drawn_ = false;
  static const char clear[] = "\r\x1b[2K";
  ssize_t ignored = ::write(STDERR_FILENO, clear, sizeof clear - 1);
  (void)ignored;
}

}  // namespace lumora2
