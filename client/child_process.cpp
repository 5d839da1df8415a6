#include "child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include "client_error.h"

extern char** environ;

namespace lumora2::render::child {

Pipe::Pipe() {
  if (::pipe2(fd, O_CLOEXEC) != 0) {
    throw ClientError(std::string("cannot create a pipe: ") + std::strerror(errno));
  }
}

Pipe::~Pipe() {
  for (int f : fd)
    if (f >= 0) ::close(f);
}

int Pipe::release(int end) { return std::exchange(fd[end], -1); }

bool writeAll(int fd, const void* data, std::size_t size) {
  const auto* p = static_cast<const std::uint8_t*>(data);
  while (size > 0) {
    const ssize_t n = ::write(fd, p, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    size -= std::size_t(n);
  }
  return true;
}

ReadResult readAll(int fd, void* data, std::size_t size, Clock::time_point deadline) {
  auto* p = static_cast<std::uint8_t*>(data);
  while (size > 0) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return ReadResult::late;
    pollfd ready{fd, POLLIN, 0};
    const int polled = ::poll(&ready, 1, int(std::min<long long>(left, INT_MAX)));
    if (polled < 0 && errno == EINTR) continue;
    if (polled < 0) return ReadResult::ended;
    if (polled == 0) continue;
    const ssize_t n = ::read(fd, p, size);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n <= 0) return ReadResult::ended;
    p += n;
    size -= std::size_t(n);
  }
  return ReadResult::complete;
}

ReadResult readLine(int fd, std::string& line, std::size_t limit, Clock::time_point deadline) {
  line.clear();
  for (char c = 0; line.size() < limit; line += c) {
    const ReadResult got = readAll(fd, &c, 1, deadline);
    if (got != ReadResult::complete) return got;
    if (c == '\n') return ReadResult::complete;
  }
  return ReadResult::ended;
}

bool exitsBy(pid_t pid, int& raw, Clock::time_point deadline) {
  for (;;) {
    const pid_t r = ::waitpid(pid, &raw, WNOHANG);
    if (r == pid || (r < 0 && errno != EINTR)) return true;
    if (Clock::now() >= deadline) return false;
    ::usleep(10'000);
  }
}

int decodeStatus(int raw) {
  if (WIFEXITED(raw)) return WEXITSTATUS(raw);
  if (WIFSIGNALED(raw)) return 128 + WTERMSIG(raw);
  return 1;
}

std::vector<std::string> environment(const std::filesystem::path& tmp) {
  std::vector<std::string> env = {"TMPDIR=" + tmp.string()};
  for (char** e = environ; *e != nullptr; ++e) {
    if (std::strncmp(*e, "TMPDIR=", 7) != 0) env.emplace_back(*e);
  }
  return env;
}

pid_t spawn(std::vector<std::string> args, std::vector<std::string> env, const Pipe& in,
            const Pipe& out, const Pipe& err) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in.fd[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out.fd[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err.fd[1], 2);
  // Nothing else of the parent's reaches the child: a server's client connections and other
  // children's pipes would otherwise stay open for as long as the child lives (a connection the
  // server closed would still take requests nobody reads).
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  auto pointers = [](std::vector<std::string>& strings) {
    std::vector<char*> p;
    for (std::string& s : strings) p.push_back(s.data());
    p.push_back(nullptr);
    return p;
  };
  std::vector<char*> argv = pointers(args);
  std::vector<char*> envp = pointers(env);
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) throw ClientError("cannot start " + args[0] + ": " + std::strerror(rc));
  return pid;
}

void StderrTail::start(int fd) {
  reader_ = std::thread([this, fd] {
    std::string pending;
    char buf[4096];
    for (;;) {
      const ssize_t n = ::read(fd, buf, sizeof buf);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      pending.append(buf, std::size_t(n));
      for (std::size_t nl; (nl = pending.find('\n')) != std::string::npos;) {
        keep(pending.substr(0, nl));
        pending.erase(0, nl + 1);
      }
    }
    if (!pending.empty()) keep(std::move(pending));
    ::close(fd);
  });
}

void StderrTail::join() {
  if (reader_.joinable()) reader_.join();
}

void StderrTail::keep(std::string line) {
  MutexLock hold(lock_);
  lines_.push_back(std::move(line));
  if (lines_.size() > kLines) lines_.pop_front();
}

std::string StderrTail::text() const {
  MutexLock hold(lock_);
  std::string joined;
  for (const std::string& l : lines_) joined += (joined.empty() ? "" : "\n") + l;
  return joined;
}

}  // namespace lumora2::render::child
