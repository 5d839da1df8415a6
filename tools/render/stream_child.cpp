#include "stream_child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>

#include <nlohmann/json.hpp>

#include "client_error.h"
#include "signal_cleanup.h"

extern char** environ;

namespace lumora2::render {
namespace {

constexpr std::uint32_t kFlush = 0xFFFFFFFF;
constexpr std::uint32_t kMarker = 0xFFFFFFFF;
constexpr std::size_t kPieceSamples = 16000;  // one second of audio per message
constexpr std::size_t kTailLines = 8;
constexpr std::size_t kMaxHeader = 4096;
constexpr auto kTermGrace = std::chrono::seconds(10);  // before SIGTERM
constexpr auto kKillGrace = std::chrono::seconds(5);   // after SIGTERM, before SIGKILL

using Clock = std::chrono::steady_clock;

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

enum class ReadResult { complete, ended, late };

// Reads exactly `size` bytes by `deadline`: `ended` at the end of the stream (or an error) before
// that, `late` when the deadline passes first.
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

// Whether `pid` exits by `deadline`; its raw status in `raw` when it does.
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

// Closes both ends of a pipe on every path until release().
struct Pipe {
  int fd[2] = {-1, -1};
  Pipe() {
    if (::pipe2(fd, O_CLOEXEC) != 0) {
      throw ClientError(std::string("cannot create a pipe: ") + std::strerror(errno));
    }
  }
  ~Pipe() {
    for (int f : fd)
      if (f >= 0) ::close(f);
  }
  int release(int end) { return std::exchange(fd[end], -1); }
};

}  // namespace

StreamGeometry parseHeader(const std::string& line) {
  const std::string prefix = "READY ";
  auto refuse = [&](const std::string& why) {
    return ClientError("render-stream's header \"" + line + "\" " + why);
  };
  if (line.rfind(prefix, 0) != 0) throw refuse("does not begin with \"READY \"");
  StreamGeometry g;
  try {
    const nlohmann::json j = nlohmann::json::parse(line.substr(prefix.size()));
    g.fps = j.at("fps").get<int>();
    g.width = j.at("width").get<int>();
    g.height = j.at("height").get<int>();
    g.sampleRate = j.at("sample_rate").get<int>();
    g.decoder = j.value("decoder", "");
  } catch (const nlohmann::json::exception&) {
    throw refuse("is not a JSON object with fps, width, height and sample_rate");
  }
  if (g.fps != 20 || g.sampleRate != 16000) {
    throw refuse("promises " + std::to_string(g.fps) + " fps from " + std::to_string(g.sampleRate) +
                 " Hz audio; lumora2-render needs 20 fps from 16000 Hz");
  }
  if (g.width <= 0 || g.height <= 0 || g.width % 2 != 0 || g.height % 2 != 0 || g.width > 8192 ||
      g.height > 8192) {
    throw refuse("promises frames of " + std::to_string(g.width) + " x " +
                 std::to_string(g.height) + "; a video needs even dimensions up to 8192");
  }
  return g;
}

std::unique_ptr<StreamChild> StreamChild::start(const Command& command) {
  Pipe in, out, err;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in.fd[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out.fd[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err.fd[1], 2);
  std::vector<std::string> args = {command.host.string(), "render-stream", command.avatar.string(),
                                   "--engine", command.engine.string()};
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  // The child's working directory goes into a temporary directory of its own, removed with this
  // object: nothing stays behind whichever way the child ends (exit status 3 leaves its directory
  // by design, a killed child cannot remove it).
  auto tmp = std::make_unique<ScratchDir>("lumora2-render-child-");
  std::vector<std::string> env = {"TMPDIR=" + tmp->path().string()};
  for (char** e = environ; *e != nullptr; ++e) {
    if (std::strncmp(*e, "TMPDIR=", 7) != 0) env.emplace_back(*e);
  }
  if (command.siblings > 1 && std::getenv("OMP_NUM_THREADS") == nullptr) {
    const int cores = std::max(1, int(std::thread::hardware_concurrency()));
    env.push_back("OMP_NUM_THREADS=" + std::to_string(std::max(1, cores / command.siblings)));
  }
  std::vector<char*> envp;
  for (std::string& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    throw ClientError("cannot start " + command.host.string() + ": " + std::strerror(rc));
  }

  // The child's ends belong to the child alone: the stderr reader sees the end of the stream when
  // the child exits, even while start() still waits for the header.
  for (int* end : {&in.fd[0], &out.fd[1], &err.fd[1]}) ::close(std::exchange(*end, -1));

  std::unique_ptr<StreamChild> child(new StreamChild());
  child->pid_ = pid;
  child->tmp_ = std::move(tmp);
  signal_cleanup::setChild(pid, child->tmp_->path());
  child->input_ = in.release(1);
  child->output_ = out.release(0);
  // Larger pipes let a whole frame record pass in one piece.
  ::fcntl(child->output_, F_SETPIPE_SZ, 1 << 20);
  ::fcntl(child->input_, F_SETPIPE_SZ, 1 << 20);
  const int errRead = err.release(0);
  child->stderrReader_ = std::thread([c = child.get(), errRead] {
    std::string pending;
    char buf[4096];
    for (;;) {
      const ssize_t n = ::read(errRead, buf, sizeof buf);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      pending.append(buf, std::size_t(n));
      for (std::size_t nl; (nl = pending.find('\n')) != std::string::npos;) {
        std::lock_guard<std::mutex> hold(c->tailLock_);
        c->tail_.push_back(pending.substr(0, nl));
        if (c->tail_.size() > kTailLines) c->tail_.pop_front();
        pending.erase(0, nl + 1);
      }
    }
    std::lock_guard<std::mutex> hold(c->tailLock_);
    if (!pending.empty()) c->tail_.push_back(pending);
    if (c->tail_.size() > kTailLines) c->tail_.pop_front();
    ::close(errRead);
  });

  std::string line;
  char c = 0;
  ReadResult got = ReadResult::ended;
  const auto deadline = Clock::now() + kWarmUpLimit;
  while (line.size() < kMaxHeader &&
         (got = readAll(child->output_, &c, 1, deadline)) == ReadResult::complete && c != '\n') {
    line += c;
  }
  if (got == ReadResult::late) {
    child->kill();
    throw ClientError("render-stream stopped answering: not ready within " +
                      std::to_string(kWarmUpLimit.count()) +
                      " s (it was ended); its last lines:\n" + child->stderrTail());
  }
  if (c != '\n') {
    const int status = child->exitStatus();
    throw ClientError("render-stream ended before it was ready (exit status " +
                      std::to_string(status) + "); its last lines:\n" + child->stderrTail());
  }
  child->geometry_ = parseHeader(line);
  child->record_.resize(std::size_t(child->geometry_.width) * std::size_t(child->geometry_.height) *
                        3);
  return child;
}

StreamChild::~StreamChild() {
  // Output first: a child blocked writing a frame record nobody will read ends at once.
  if (output_ >= 0) ::close(std::exchange(output_, -1));
  waitForExit();
}

void StreamChild::closeInput() {
  if (input_ >= 0) ::close(std::exchange(input_, -1));
}

void StreamChild::waitForExit() {
  closeInput();
  reap(kTermGrace);
}

void StreamChild::reap(std::chrono::milliseconds grace) {
  if (pid_ > 0) {
    // SIGTERM stays pending in a stopped child; SIGKILL ends it all the same.
    int raw = 0;
    if (!exitsBy(pid_, raw, Clock::now() + grace)) {
      ::kill(pid_, SIGTERM);
      if (!exitsBy(pid_, raw, Clock::now() + kKillGrace)) {
        ::kill(pid_, SIGKILL);
        while (::waitpid(pid_, &raw, 0) < 0 && errno == EINTR) {
        }
      }
    }
    status_ = decodeStatus(raw);
    pid_ = -1;
    signal_cleanup::setChild(-1, {});
  }
  if (stderrReader_.joinable()) stderrReader_.join();
}

void StreamChild::kill() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    int raw = 0;
    while (::waitpid(pid_, &raw, 0) < 0 && errno == EINTR) {
    }
    status_ = decodeStatus(raw);
    pid_ = -1;
    signal_cleanup::setChild(-1, {});
  }
  if (stderrReader_.joinable()) stderrReader_.join();
  if (output_ >= 0) ::close(std::exchange(output_, -1));
  tmp_.reset();
}

std::chrono::milliseconds StreamChild::segmentLimit(std::size_t count) {
  const double seconds = 8.0 + 5.0 * double(count) / 25600.0 + 2.0;
  return std::chrono::milliseconds(std::int64_t(seconds * 1000.0));
}

bool StreamChild::exitsWithin(std::chrono::milliseconds wait) {
  if (pid_ > 0) {
    int raw = 0;
    if (!exitsBy(pid_, raw, Clock::now() + wait)) return false;
    status_ = decodeStatus(raw);
    pid_ = -1;
    signal_cleanup::setChild(-1, {});
  }
  reap(kTermGrace);  // joins the stderr reader
  return true;
}

int StreamChild::exitStatus() {
  waitForExit();
  return status_;
}

std::string StreamChild::stderrTail() const {
  std::lock_guard<std::mutex> hold(tailLock_);
  std::string joined;
  for (const std::string& line : tail_) joined += (joined.empty() ? "" : "\n") + line;
  return joined;
}

bool StreamChild::renderSegment(const float* samples, std::size_t count, const FrameFn& onFrame) {
  if (input_ < 0) return false;
  // The writer stops at the first failed write: the child is gone, and the reader sees it too.
  std::thread writer([fd = input_, samples, count] {
    for (std::size_t at = 0; at < count; at += kPieceSamples) {
      const auto n = std::uint32_t(std::min(kPieceSamples, count - at));
      if (!writeAll(fd, &n, sizeof n) || !writeAll(fd, samples + at, n * sizeof(float))) return;
    }
    writeAll(fd, &kFlush, sizeof kFlush);
  });
  const auto limit = segmentLimit(count);
  const auto deadline = Clock::now() + limit;
  ReadResult got = ReadResult::ended;
  bool marker = false;
  try {
    for (;;) {
      std::uint32_t word = 0;
      if ((got = readAll(output_, &word, sizeof word, deadline)) != ReadResult::complete) break;
      if (word == kMarker) {
        marker = true;
        break;
      }
      if ((got = readAll(output_, record_.data(), record_.size(), deadline)) !=
          ReadResult::complete) {
        break;
      }
      onFrame(word, record_.data());
    }
  } catch (...) {
    // Ending the child makes a blocked write fail, so the writer can be joined; standard input is
    // closed only after that, so that its descriptor is never reused under the writer.
    kill();
    writer.join();
    closeInput();
    throw;
  }
  if (got == ReadResult::late) {
    kill();
    writer.join();
    closeInput();
    throw ClientError("render-stream stopped answering: no end of segment within " +
                      std::to_string(limit.count() / 1000) + " s (it was ended)");
  }
  if (!marker) {
    // The child's output ended. Once it has exited, a writer blocked on the full pipe gets its
    // error; only then is the pipe closed.
    reap(kTermGrace);
  }
  writer.join();
  if (!marker) closeInput();
  return marker;
}

}  // namespace lumora2::render
