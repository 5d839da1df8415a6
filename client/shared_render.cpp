#include "shared_render.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <span>
#include <utility>

#include "child_process.h"
#include "client_error.h"
#include "frame_buffers.h"

namespace lumora2::render {

namespace sw = wire::sessions;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::size_t kResetMark = std::numeric_limits<std::size_t>::max();

}  // namespace

// One session's side of the process: what the reader hands it, and its audio held back.
struct SharedRenderProcess::Inbox {
  enum class State { opening, open, ended };
  Mutex lock;
  std::condition_variable_any changed;
  State state LUMORA2_GUARDED_BY(lock) = State::opening;
  bool replace LUMORA2_GUARDED_BY(lock) = false;
  std::string why LUMORA2_GUARDED_BY(lock);
  std::deque<std::pair<RenderChannel::Event, std::vector<std::uint8_t>>> items
      LUMORA2_GUARDED_BY(lock);
  // Messages not yet let through, with their samples (kResetMark: a reset), and the samples let
  // through that no frame has accounted for yet.
  std::deque<std::pair<std::string, std::size_t>> held LUMORA2_GUARDED_BY(lock);
  std::size_t ahead LUMORA2_GUARDED_BY(lock) = 0;
  std::uint32_t flags LUMORA2_GUARDED_BY(lock) = 0;  // as the opened record said

  void end(bool replaceIt, std::string reason) LUMORA2_REQUIRES(lock) {
    if (state == State::ended) return;
    state = State::ended;
    replace = replaceIt;
    why = std::move(reason);
    held.clear();
  }
  // Lets held messages through while the session is not too far ahead of its frames.
  void pump(SharedRenderProcess& process) LUMORA2_REQUIRES(lock) {
    while (!held.empty() && state != State::ended) {
      auto& [bytes, samples] = held.front();
      const bool audio = samples != kResetMark && samples > 0;
      if (audio && ahead > 0 && ahead + samples > kAheadSamples) return;
      if (samples == kResetMark) {
        ahead = 0;
      } else {
        ahead += samples;
      }
      process.queue(std::move(bytes));
      held.pop_front();
    }
  }
};

std::shared_ptr<SharedRenderProcess> SharedRenderProcess::start(const Command& command) {
  auto tmp = std::make_unique<ScratchDir>("lumora2-render-shared-");
  std::vector<std::string> env = child::environment(tmp->path());
  // What lumora2-model sets before it hands over to the render host (host/render_host.cpp).
  if (std::getenv("OMP_WAIT_POLICY") == nullptr) env.emplace_back("OMP_WAIT_POLICY=PASSIVE");
  if (std::getenv("OMP_NUM_THREADS") == nullptr) {
    env.push_back("OMP_NUM_THREADS=" + std::to_string(std::max(1, command.threads)));
  }
  child::Pipe in, out, err;
  std::shared_ptr<SharedRenderProcess> p(new SharedRenderProcess());
  p->pid_ = child::spawn(
      {command.renderHost.string(), "render-sessions", "--engine", command.engine.string()},
      std::move(env), in, out, err);
  for (int* end : {&in.fd[0], &out.fd[1], &err.fd[1]}) ::close(std::exchange(*end, -1));
  errno = 0;
  const int own = ::getpriority(PRIO_PROCESS, 0);
  if (errno == 0 && command.niceness > 0) {
    ::setpriority(PRIO_PROCESS, id_t(p->pid_.load()), std::min(19, own + command.niceness));
  }
  p->tmp_ = std::move(tmp);
  p->input_ = in.release(1);
  p->output_ = out.release(0);
  ::fcntl(p->output_, F_SETPIPE_SZ, 1 << 20);
  ::fcntl(p->input_, F_SETPIPE_SZ, 1 << 20);
  p->tail_.start(err.release(0));

  // The header, once the child's graphs are loaded.
  std::string line;
  if (child::readLine(p->output_, line, wire::kMaxHeaderBytes,
                      Clock::now() + StreamChild::kWarmUpLimit) == child::ReadResult::complete) {
    try {
      p->geometry_ = wire::parseHeader(line);
      p->writer_ = std::thread([raw = p.get()] { raw->writeLoop(); });
      p->reader_ = std::thread([raw = p.get()] { raw->readLoop(); });
      return p;
    } catch (const wire::WireError&) {
    }
  }
  p->ended_ = true;
  ::kill(p->pid_, SIGKILL);
  int raw = 0;
  child::exitsBy(p->pid_, raw, Clock::now() + std::chrono::seconds(5));
  p->pid_ = -1;
  p->tail_.join();
  throw ClientError("the shared render process did not become ready (header \"" + line +
                    "\"); its last lines:\n" + p->stderrTail());
}

SharedRenderProcess::~SharedRenderProcess() {
  {
    MutexLock hold(inputLock_);
    inputClosing_ = true;
  }
  inputReady_.notify_one();
  // The end of its input ends the child; its output then ends and the reader reaps it.
  auto endedBy = [this](Clock::time_point deadline) {
    while (!ended_ && Clock::now() < deadline) ::usleep(10'000);
    return ended_.load();
  };
  if (!endedBy(Clock::now() + std::chrono::seconds(10))) {
    kill(SIGTERM);
    if (!endedBy(Clock::now() + std::chrono::seconds(5))) kill(SIGKILL);
  }
  if (reader_.joinable()) reader_.join();
  if (const pid_t left = pid_.exchange(-1); left > 0) {
    ::kill(left, SIGKILL);
    int status = 0;
    child::exitsBy(left, status, Clock::now() + std::chrono::hours(1));
  }
  if (writer_.joinable()) writer_.join();
  tail_.join();
  if (output_ >= 0) ::close(output_);
  if (input_ >= 0) ::close(input_);
}

void SharedRenderProcess::kill(int signal) {
  if (const pid_t pid = pid_.load(); pid > 0 && !ended_) ::kill(pid, signal);
}

std::string SharedRenderProcess::stderrTail() const { return tail_.text(); }

void SharedRenderProcess::queue(std::string bytes) {
  {
    MutexLock hold(inputLock_);
    if (inputClosing_ || inputFailed_) return;
    inputQueue_.push_back(std::move(bytes));
  }
  inputReady_.notify_one();
}

void SharedRenderProcess::writeLoop() {
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
    if (!child::writeAll(input_, bytes.data(), bytes.size())) {
      MutexLock hold(inputLock_);
      inputFailed_ = true;
      inputQueue_.clear();
    }
  }
  ::close(std::exchange(input_, -1));
}

// Hands one record of the child's output to the session it is for.
void SharedRenderProcess::deliver(const sw::RecordReader::Item& item) {
  std::shared_ptr<Inbox> inbox;
  {
    MutexLock hold(inboxLock_);
    const auto it = inboxes_.find(item.session);
    if (it == inboxes_.end()) return;  // a session closed by its parent
    inbox = it->second;
    if (item.kind == sw::RecordReader::Item::Kind::closed) inboxes_.erase(it);
  }
  {
    MutexLock hold(inbox->lock);
    using Kind = sw::RecordReader::Item::Kind;
    switch (item.kind) {
      case Kind::opened:
        if (inbox->state == Inbox::State::opening) inbox->state = Inbox::State::open;
        inbox->flags = item.flags;
        break;
      case Kind::closed:
        inbox->end(item.text == sw::kClosedForRespawn,
                   item.text == sw::kClosedForRespawn
                       ? "the render process asked for a fresh engine"
                       : "the render process closed the session: " + item.text);
        break;
      case Kind::marker:
        inbox->ahead = 0;
        inbox->items.emplace_back(RenderChannel::Event{RenderChannel::Event::Kind::marker},
                                  std::vector<std::uint8_t>());
        inbox->pump(*this);
        break;
      case Kind::frame: {
        inbox->ahead -= std::min(inbox->ahead, wire::kSamplesPerFrame);
        const std::size_t bytes =
            sw::framePixelBytes(geometry_.width, geometry_.height, inbox->flags);
        // The reader's buffer itself becomes the frame; a kept one, already of a frame's size,
        // takes its place there.
        std::vector<std::uint8_t> pixels = takeFrameBuffer(bytes);
        std::swap(pixels, *item.buffer);
        pixels.resize(bytes);
        RenderChannel::Event event{RenderChannel::Event::Kind::frame, item.position};
        inbox->items.emplace_back(event, std::move(pixels));
        inbox->pump(*this);
        break;
      }
    }
  }
  inbox->changed.notify_all();
}

void SharedRenderProcess::readLoop() {
  sw::RecordReader records(geometry_.width, geometry_.height);
  auto deliverTo = [this](const sw::RecordReader::Item& item) { deliver(item); };
  std::string why;
  try {
    for (;;) {
      // Straight into the reader's record: a frame's pixels are read once and handed on.
      const std::span<std::uint8_t> into = records.space();
      const ssize_t n = ::read(output_, into.data(), into.size());
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      records.commit(std::size_t(n), deliverTo);
    }
  } catch (const wire::WireError& e) {
    why = std::string(": ") + e.what();
    ::kill(pid_.load(), SIGKILL);
  }
  const pid_t pid = pid_.load();
  int raw = 0;
  const bool exited = child::exitsBy(pid, raw, Clock::now() + std::chrono::seconds(2));
  const int status = child::decodeStatus(raw);
  died_ = "the shared render process " + std::to_string(pid) + " ended" +
          (exited ? " with exit status " + std::to_string(status) : "") + why;
  if (exited) pid_ = -1;
  ended_ = true;
  std::map<std::uint32_t, std::shared_ptr<Inbox>> orphans;
  {
    MutexLock hold(inboxLock_);
    orphans.swap(inboxes_);
  }
  for (auto& [number, inbox] : orphans) {
    {
      MutexLock hold(inbox->lock);
      inbox->end(true, died_);
    }
    inbox->changed.notify_all();
  }
}

std::unique_ptr<SharedSession> SharedRenderProcess::open(const std::filesystem::path& avatar,
                                                         bool i420) {
  const std::uint32_t number = nextSession_++;
  auto inbox = std::make_shared<Inbox>();
  {
    MutexLock hold(inboxLock_);
    if (ended_) throw ClientError(died_);
    inboxes_.emplace(number, inbox);
  }
  ++sessions_;
  std::unique_ptr<SharedSession> session(new SharedSession(shared_from_this(), number, inbox));
  std::string bytes;
  sw::appendOpen(bytes, number, i420 ? sw::kFlagI420 : 0, avatar.string());
  queue(std::move(bytes));
  MutexLock hold(inbox->lock);
  const bool answered = inbox->changed.wait_until(
      inbox->lock, Clock::now() + StreamChild::kWarmUpLimit,
      [&]() LUMORA2_REQUIRES(inbox->lock) { return inbox->state != Inbox::State::opening; });
  if (!answered) throw ClientError("the shared render process did not open the session in time");
  if (inbox->state == Inbox::State::ended) throw ClientError(inbox->why);
  session->i420_ = (inbox->flags & sw::kFlagI420) != 0;
  return session;
}

void SharedRenderProcess::closeSession(std::uint32_t number) {
  bool open = false;
  {
    MutexLock hold(inboxLock_);
    open = inboxes_.erase(number) > 0;
  }
  if (open) {
    std::string bytes;
    sw::appendControl(bytes, number, wire::kEndOfStream);
    queue(std::move(bytes));
  }
  --sessions_;
}

SharedSession::SharedSession(std::shared_ptr<SharedRenderProcess> process, std::uint32_t number,
                             std::shared_ptr<SharedRenderProcess::Inbox> inbox)
    : process_(std::move(process)), number_(number), inbox_(std::move(inbox)) {}

SharedSession::~SharedSession() { process_->closeSession(number_); }

void SharedSession::send(std::string bytes, std::size_t samples, bool reset) {
  MutexLock hold(inbox_->lock);
  if (inbox_->state == SharedRenderProcess::Inbox::State::ended) return;
  inbox_->held.emplace_back(std::move(bytes), reset ? kResetMark : samples);
  inbox_->pump(*process_);
}

void SharedSession::sendAudio(const float* samples, std::size_t count) {
  // A second a message, each held back or let through on its own.
  for (std::size_t at = 0; at < count; at += wire::kSampleRate) {
    const std::size_t n = std::min<std::size_t>(wire::kSampleRate, count - at);
    std::string bytes;
    sw::appendAudio(bytes, number_, samples + at, n);
    send(std::move(bytes), n, false);
  }
}

void SharedSession::sendFlush() {
  std::string bytes;
  sw::appendControl(bytes, number_, wire::kFlush);
  send(std::move(bytes), 0, false);
}

void SharedSession::sendReset() {
  std::string bytes;
  sw::appendControl(bytes, number_, wire::kReset);
  send(std::move(bytes), 0, true);
}

RenderChannel::Event SharedSession::next(Clock::time_point deadline) {
  using State = SharedRenderProcess::Inbox::State;
  MutexLock hold(inbox_->lock);
  inbox_->changed.wait_until(inbox_->lock, deadline, [&]() LUMORA2_REQUIRES(inbox_->lock) {
    return !inbox_->items.empty() || inbox_->state == State::ended;
  });
  if (inbox_->items.empty()) {
    return Event{inbox_->state == State::ended ? Event::Kind::ended : Event::Kind::late};
  }
  auto [event, pixels] = std::move(inbox_->items.front());
  inbox_->items.pop_front();
  // A frame the session did not take goes back for the reader.
  if (!handedOut_.empty()) keepFrameBuffer(std::move(handedOut_));
  handedOut_ = std::move(pixels);
  if (event.kind == Event::Kind::frame) event.rgb = handedOut_.data();
  return event;
}

bool SharedSession::endsWithin(std::chrono::milliseconds wait) {
  using State = SharedRenderProcess::Inbox::State;
  MutexLock hold(inbox_->lock);
  return inbox_->changed.wait_for(inbox_->lock, wait, [&]() LUMORA2_REQUIRES(inbox_->lock) {
    return inbox_->state == State::ended;
  });
}

RenderChannel::Ending SharedSession::ending() {
  if (!endsWithin(std::chrono::seconds(15))) {
    return {false, "the render process did not end the session"};
  }
  MutexLock hold(inbox_->lock);
  return {inbox_->replace, inbox_->why};
}

SharedProcesses::SharedProcesses(SharedRenderProcess::Command command, int processes)
    : command_(std::move(command)) {
  for (int i = 0; i < std::max(1, processes); ++i) slots_.push_back(std::make_unique<Slot>());
}

std::shared_ptr<SharedRenderProcess> SharedProcesses::ensure(Slot& slot) {
  MutexLock starting(slot.starting);
  {
    MutexLock hold(lock_);
    if (slot.process && slot.process->alive()) return slot.process;
  }
  auto fresh = SharedRenderProcess::start(command_);
  MutexLock hold(lock_);
  slot.process = fresh;
  return fresh;
}

bool SharedProcesses::startAll(std::string& why) {
  try {
    for (const auto& slot : slots_) ensure(*slot);
    return true;
  } catch (const std::exception& e) {
    why = e.what();
    return false;
  }
}

std::unique_ptr<RenderChannel> SharedProcesses::open(const StreamChild::Command& command) {
  Slot* chosen = nullptr;
  {
    MutexLock hold(lock_);
    // The least loaded; a live process before one that must be started, on a tie.
    auto load = [](const Slot& s) {
      const bool live = s.process && s.process->alive();
      return std::pair(s.placed + (live ? s.process->sessions() : 0), live ? 0 : 1);
    };
    for (const auto& slot : slots_) {
      if (chosen == nullptr || load(*slot) < load(*chosen)) chosen = slot.get();
    }
    ++chosen->placed;
  }
  struct Placed {
    SharedProcesses& pool;
    Slot& slot;
    ~Placed() {
      MutexLock hold(pool.lock_);
      --slot.placed;
    }
  } placed{*this, *chosen};
  // A process that dies while the session opens on it (its sessions are moving too) is
  // started again, once.
  for (int attempt = 0;; ++attempt) {
    const std::shared_ptr<SharedRenderProcess> process = ensure(*chosen);
    try {
      return process->open(command.avatar, command_.i420);
    } catch (const ClientError&) {
      if (attempt > 0 || process->alive()) throw;
    }
  }
}

std::vector<pid_t> SharedProcesses::pids() const {
  MutexLock hold(lock_);
  std::vector<pid_t> all;
  for (const auto& slot : slots_) {
    if (slot->process && slot->process->alive()) all.push_back(slot->process->pid());
  }
  return all;
}

}  // namespace lumora2::render
