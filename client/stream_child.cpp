#include "stream_child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "child_process.h"
#include "client_error.h"
#include "signal_cleanup.h"

namespace lumora2::render {
namespace {

// Sets the nice value of every thread of process `pid` (Linux keeps one per thread, and the
// child's threads started with the value it was spawned with). Lowering a nice value needs root
// or CAP_SYS_NICE; without them the threads keep theirs.
void giveBackPriority(pid_t pid, int niceness) {
  std::error_code error;
  for (const auto& task :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", error)) {
    const std::string tid = task.path().filename().string();
    if (::setpriority(PRIO_PROCESS, id_t(std::strtol(tid.c_str(), nullptr, 10)), niceness) != 0 &&
        (errno == EACCES || errno == EPERM)) {
      return;
    }
  }
}

constexpr auto kTermGrace = std::chrono::seconds(10);  // before SIGTERM
constexpr auto kKillGrace = std::chrono::seconds(5);   // after SIGTERM, before SIGKILL

using Clock = std::chrono::steady_clock;

// The child's environment: the parent's, with TMPDIR pointing at the child's own scratch folder
// and, for one of several siblings, its share of the cores.
std::vector<std::string> childEnvironment(const StreamChild::Command& command,
                                          const std::filesystem::path& tmp) {
  std::vector<std::string> env = child::environment(tmp);
  if (command.siblings > 1 && std::getenv("OMP_NUM_THREADS") == nullptr) {
    const int cores = std::max(1, int(std::thread::hardware_concurrency()));
    env.push_back("OMP_NUM_THREADS=" + std::to_string(std::max(1, cores / command.siblings)));
  }
  return env;
}

}  // namespace

std::unique_ptr<StreamChild> StreamChild::start(const Command& command) {
  child::Pipe in, out, err;
  // The child's working directory goes into a temporary directory of its own, removed with this
  // object: nothing stays behind whichever way the child ends (exit status 3 leaves its directory
  // by design, a killed child cannot remove it).
  auto tmp = std::make_unique<ScratchDir>("lumora2-render-child-");
  const pid_t pid = child::spawn({command.host.string(), "render-stream", command.avatar.string(),
                                  "--engine", command.engine.string()},
                                 childEnvironment(command, tmp->path()), in, out, err);
  // Before the child has loaded its graphs and started its threads, which inherit the value.
  // A failure leaves the child at its parent's priority, which only costs the parent time.
  errno = 0;
  const int own = ::getpriority(PRIO_PROCESS, 0);
  const bool known = errno == 0;
  const int startNiceness = std::max(command.niceness, command.warmUpNiceness);
  if (known && startNiceness > 0) {
    ::setpriority(PRIO_PROCESS, id_t(pid), std::min(19, own + startNiceness));
  }

  // The child's ends belong to the child alone: the stderr reader sees the end of the stream when
  // the child exits, even while start() still waits for the header.
  for (int* end : {&in.fd[0], &out.fd[1], &err.fd[1]}) ::close(std::exchange(*end, -1));

  std::unique_ptr<StreamChild> child(new StreamChild());
  child->pid_ = pid;
  child->tmp_ = std::move(tmp);
  signal_cleanup::setChild(pid, child->tmp_->path());
  child->input_ = in.release(1);  // the writer thread's from here on
  child->output_ = out.release(0);
  // Larger pipes let a whole frame record pass in one piece.
  ::fcntl(child->output_, F_SETPIPE_SZ, 1 << 20);
  ::fcntl(child->input_, F_SETPIPE_SZ, 1 << 20);
  child->tail_.start(err.release(0));
  child->readHeader();
  child->writer_ = std::thread([c = child.get()] { c->writeLoop(); });
  if (known && startNiceness > command.niceness) {
    giveBackPriority(pid, std::min(19, own + command.niceness));
  }
  return child;
}

void StreamChild::readHeader() {
  std::string line;
  const child::ReadResult got =
      child::readLine(output_, line, wire::kMaxHeaderBytes, Clock::now() + kWarmUpLimit);
  if (got == child::ReadResult::late) {
    end();
    throw ClientError("render-stream stopped answering: not ready within " +
                      std::to_string(kWarmUpLimit.count()) +
                      " s (it was ended); its last lines:\n" + stderrTail());
  }
  if (got != child::ReadResult::complete) {
    const int status = exitStatus();
    throw ClientError("render-stream ended before it was ready (exit status " +
                      std::to_string(status) + "); its last lines:\n" + stderrTail());
  }
  try {
    geometry_ = wire::parseHeader(line);
  } catch (const wire::WireError& e) {
    throw ClientError(e.what());
  }
  records_ = std::make_unique<wire::RecordReader>(geometry_.width, geometry_.height);
}

StreamChild::~StreamChild() {
  // Output first: a child blocked writing a frame record nobody will read ends at once.
  if (output_ >= 0) ::close(std::exchange(output_, -1));
  waitForExit();
}

void StreamChild::queue(std::string bytes) {
  {
    MutexLock hold(inputLock_);
    if (inputClosing_ || inputFailed_) return;
    inputBytes_ += bytes.size();
    inputQueue_.push_back(std::move(bytes));
  }
  inputReady_.notify_one();
}

void StreamChild::sendAudio(const float* samples, std::size_t count) {
  std::string bytes;
  wire::appendAudio(bytes, samples, count);
  queue(std::move(bytes));
}

void StreamChild::sendFlush() {
  std::string bytes;
  wire::appendControl(bytes, wire::kFlush);
  queue(std::move(bytes));
}

void StreamChild::sendReset() {
  std::string bytes;
  wire::appendControl(bytes, wire::kReset);
  queue(std::move(bytes));
}

std::size_t StreamChild::pendingInput() const {
  MutexLock hold(inputLock_);
  return inputBytes_;
}

// Writes the queue in order. A failed write means the child is gone: the rest is dropped. Closes
// standard input when asked to and everything queued is written (the end of the stream).
void StreamChild::writeLoop() {
  for (;;) {
    std::string bytes;
    {
      MutexLock hold(inputLock_);
      inputReady_.wait(inputLock_, [&]() LUMORA2_REQUIRES(inputLock_) {
        return !inputQueue_.empty() || inputClosing_;
      });
      if (inputQueue_.empty()) break;
      bytes = std::move(inputQueue_.front());
      inputQueue_.pop_front();
    }
    const bool written =
        inputFailedNow() ? false : child::writeAll(input_, bytes.data(), bytes.size());
    MutexLock hold(inputLock_);
    inputBytes_ -= bytes.size();
    if (!written) {
      inputFailed_ = true;
      inputBytes_ = 0;
      inputQueue_.clear();
    }
  }
  ::close(std::exchange(input_, -1));
}

bool StreamChild::inputFailedNow() const {
  MutexLock hold(inputLock_);
  return inputFailed_;
}

void StreamChild::stopWriter() {
  {
    MutexLock hold(inputLock_);
    inputClosing_ = true;
  }
  inputReady_.notify_one();
}

void StreamChild::waitForExit() {
  stopWriter();
  reap(kTermGrace);
}

void StreamChild::reap(std::chrono::milliseconds grace) {
  if (pid_ > 0) {
    // SIGTERM stays pending in a stopped child; SIGKILL ends it all the same.
    int raw = 0;
    if (!child::exitsBy(pid_, raw, Clock::now() + grace)) {
      ::kill(pid_, SIGTERM);
      if (!child::exitsBy(pid_, raw, Clock::now() + kKillGrace)) {
        ::kill(pid_, SIGKILL);
        while (::waitpid(pid_, &raw, 0) < 0 && errno == EINTR) {
        }
      }
    }
    status_ = child::decodeStatus(raw);
    forgetPid();
  }
  // A writer blocked on a full pipe gets its error once the child has gone.
  if (writer_.joinable()) {
    stopWriter();
    writer_.join();
  }
  tail_.join();
}

void StreamChild::forgetPid() {
  MutexLock hold(killLock_);
  pid_ = -1;
  signal_cleanup::setChild(-1, {});
}

void StreamChild::kill() {
  MutexLock hold(killLock_);
  if (pid_ > 0) ::kill(pid_, SIGKILL);
}

void StreamChild::end() {
  kill();
  if (pid_ > 0) {
    int raw = 0;
    while (::waitpid(pid_, &raw, 0) < 0 && errno == EINTR) {
    }
    status_ = child::decodeStatus(raw);
    forgetPid();
  }
  reap(kTermGrace);
  if (output_ >= 0) ::close(std::exchange(output_, -1));
  tmp_.reset();
}

std::filesystem::path StreamChild::defaultHost() {
  std::error_code ec;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
  return ec ? std::filesystem::path("lumora2-model") : self.parent_path() / "lumora2-model";
}

std::chrono::milliseconds StreamChild::segmentLimit(std::size_t count) {
  const double seconds = 8.0 + 5.0 * double(count) / 25600.0 + 2.0;
  return std::chrono::milliseconds(std::int64_t(seconds * 1000.0));
}

bool StreamChild::exitsWithin(std::chrono::milliseconds wait) {
  if (pid_ > 0) {
    int raw = 0;
    if (!child::exitsBy(pid_, raw, Clock::now() + wait)) return false;
    status_ = child::decodeStatus(raw);
    forgetPid();
  }
  reap(kTermGrace);  // joins the writer and the stderr reader
  return true;
}

int StreamChild::exitStatus() {
  waitForExit();
  return status_;
}

std::string StreamChild::stderrTail() const { return tail_.text(); }

StreamChild::Event StreamChild::next(Clock::time_point deadline) {
  // Each read goes straight into the reader's record, and completes at most one item; a frame's
  // pixels stay there until the next call.
  std::optional<Event> event;
  auto take = [&](const wire::RecordReader::Item& item) {
    if (item.kind == wire::RecordReader::Item::Kind::marker) {
      event = Event{Event::Kind::marker};
    } else {
      event = Event{Event::Kind::frame, item.position, item.rgb};
    }
  };
  while (!event) {
    if (outputEnded_ || output_ < 0) return Event{Event::Kind::ended};
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return Event{Event::Kind::late};
    pollfd readable{output_, POLLIN, 0};
    const int polled = ::poll(&readable, 1, int(std::min<long long>(left, INT_MAX)));
    if (polled < 0 && errno == EINTR) continue;
    if (polled == 0) continue;
    const std::span<std::uint8_t> into = records_->space();
    const ssize_t n = polled < 0 ? -1 : ::read(output_, into.data(), into.size());
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n <= 0) {
      outputEnded_ = true;
      continue;
    }
    records_->commit(std::size_t(n), take);
  }
  return *event;
}

bool StreamChild::renderSegment(const float* samples, std::size_t count, const FrameFn& onFrame) {
  if (outputEnded_ || output_ < 0) return false;
  // One second of audio per message, as a live parent would send it.
  for (std::size_t at = 0; at < count; at += wire::kSampleRate) {
    sendAudio(samples + at, std::min<std::size_t>(wire::kSampleRate, count - at));
  }
  sendFlush();
  const auto limit = segmentLimit(count);
  const auto deadline = Clock::now() + limit;
  for (;;) {
    const Event event = next(deadline);
    switch (event.kind) {
      case Event::Kind::frame:
        try {
          onFrame(event.position, event.rgb);
        } catch (...) {
          end();
          throw;
        }
        break;
      case Event::Kind::marker:
        return true;
      case Event::Kind::late:
        end();
        throw ClientError("render-stream stopped answering: no end of segment within " +
                          std::to_string(limit.count() / 1000) + " s (it was ended)");
      case Event::Kind::ended:
        // The child's output ended: it has exited or is on its way out.
        reap(kTermGrace);
        return false;
    }
  }
}

}  // namespace lumora2::render
