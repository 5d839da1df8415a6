// What every parent of a render process needs from the system, whatever it says over the pipes:
// the pipes themselves, the start (posix_spawn, nothing else of the parent's inherited), the
// child's environment, its header line, its last lines on standard error, and its exit.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "engine/thread_annotations.h"

namespace lumora2::render::child {

using Clock = std::chrono::steady_clock;

// Both ends of a pipe, closed on every path until release().
struct Pipe {
  int fd[2] = {-1, -1};
  Pipe();
  ~Pipe();
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  int release(int end);
};

// Writes all of `size` bytes; false when the reader is gone.
bool writeAll(int fd, const void* data, std::size_t size);

enum class ReadResult { complete, ended, late };

// Reads exactly `size` bytes by `deadline`: `ended` at the end of the stream (or an error) before
// that, `late` when the deadline passes first.
ReadResult readAll(int fd, void* data, std::size_t size, Clock::time_point deadline);

// Reads one line (its newline left out) of at most `limit` bytes by `deadline`; a longer line is
// `ended`.
ReadResult readLine(int fd, std::string& line, std::size_t limit, Clock::time_point deadline);

// Whether `pid` exits by `deadline`; its raw wait status in `raw` when it does.
bool exitsBy(pid_t pid, int& raw, Clock::time_point deadline);
// The exit status of a raw wait status, or 128 + n for signal n.
int decodeStatus(int raw);

// The parent's environment with TMPDIR pointing at the child's own scratch folder.
std::vector<std::string> environment(const std::filesystem::path& tmp);

// Runs `args` with `env`, its standard input, output and error on the pipes' child ends; throws
// ClientError when it cannot.
pid_t spawn(std::vector<std::string> args, std::vector<std::string> env, const Pipe& in,
            const Pipe& out, const Pipe& err);

// The child's last lines on standard error, read by a thread of its own until the stream ends.
class StderrTail {
 public:
  StderrTail() = default;
  StderrTail(const StderrTail&) = delete;
  StderrTail& operator=(const StderrTail&) = delete;
  ~StderrTail() { join(); }
  // Reads `fd` (and closes it at its end).
  void start(int fd);
  // Waits for the end of the stream.
  void join();
  // The last lines, oldest first, joined by newlines.
  std::string text() const LUMORA2_EXCLUDES(lock_);

 private:
  static constexpr std::size_t kLines = 8;
  void keep(std::string line) LUMORA2_EXCLUDES(lock_);

  mutable Mutex lock_;
  std::deque<std::string> lines_ LUMORA2_GUARDED_BY(lock_);
  std::thread reader_;
};

}  // namespace lumora2::render::child
