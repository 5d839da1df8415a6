// Shared render processes: `lumora2-model-render render-sessions` children, each rendering many
// sessions over one pair of pipes in the sessions wire format (protocol/session_wire.h), and the
// pool of them a server places its sessions on.
//
// A SharedRenderProcess has a writer thread (the child's standard input, fed from one queue) and
// a reader thread that reassembles the child's records and hands each to its session's inbox,
// so that a session that does not read never holds up another. A session's audio is let through
// to the child only while it is less than kAheadSamples ahead of the frames that came back: the
// child renders what it was sent, so this bounds what waits in an inbox nobody reads. When the
// process ends (killed, crashed), every session of it ends with `replace`: the pool opens each
// again on a live process, or starts a new one.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "client/child_process.h"
#include "client/render_channel.h"
#include "container/platform.h"
#include "engine/thread_annotations.h"
#include "protocol/session_wire.h"

namespace lumora2::render {

class SharedSession;

class SharedRenderProcess : public std::enable_shared_from_this<SharedRenderProcess> {
 public:
  struct Command {
    std::filesystem::path renderHost;  // lumora2-model-render
    std::filesystem::path engine;
    int threads = 1;    // OMP_NUM_THREADS, unless the parent's environment sets it
    int niceness = 0;   // added to the child's nice value, 0 to 19
    bool i420 = false;  // sessions' frames as 4:2:0 planes
  };
  // Audio a session may have sent beyond what its frames account for: three chunks, so that the
  // child always holds the next chunk whole while it renders one.
  static constexpr std::size_t kAheadSamples = 3 * wire::kChunkSamples;

  // Starts the child and waits for its header (its graphs loaded). Throws ClientError as
  // StreamChild::start does.
  static std::shared_ptr<SharedRenderProcess> start(const Command& command);
  // Closes the child's standard input and waits for it (SIGTERM after 10 s, SIGKILL 5 s later).
  ~SharedRenderProcess();

  // A new session of `avatar`, ready once the child says it opened (at most
  // StreamChild::kWarmUpLimit). Throws ClientError when the child refuses it or has ended.
  std::unique_ptr<SharedSession> open(const std::filesystem::path& avatar, bool i420);

  pid_t pid() const { return pid_.load(); }
  bool alive() const { return !ended_.load(); }
  // Sessions open on it now.
  int sessions() const { return sessions_.load(); }
  const StreamGeometry& geometry() const { return geometry_; }
  // Sends the child `signal` (SIGKILL: it ends at once, its sessions with `replace`).
  void kill(int signal);
  std::string stderrTail() const;

 private:
  friend class SharedSession;
  struct Inbox;
  SharedRenderProcess() = default;
  void queue(std::string bytes) LUMORA2_EXCLUDES(inputLock_);
  void writeLoop() LUMORA2_EXCLUDES(inputLock_);
  void readLoop() LUMORA2_EXCLUDES(inboxLock_);
  void deliver(const wire::sessions::RecordReader::Item& item) LUMORA2_EXCLUDES(inboxLock_);
  void closeSession(std::uint32_t number) LUMORA2_EXCLUDES(inboxLock_);

  std::unique_ptr<ScratchDir> tmp_;  // the child's TMPDIR; removed last
  std::atomic<pid_t> pid_{-1};       // -1 once the reader has reaped it
  int output_ = -1;
  StreamGeometry geometry_;
  std::atomic<bool> ended_{false};  // the child's output ended
  std::atomic<int> sessions_{0};
  std::atomic<std::uint32_t> nextSession_{1};

  Mutex inputLock_;
  std::condition_variable_any inputReady_;
  std::deque<std::string> inputQueue_ LUMORA2_GUARDED_BY(inputLock_);
  bool inputClosing_ LUMORA2_GUARDED_BY(inputLock_) = false;
  bool inputFailed_ LUMORA2_GUARDED_BY(inputLock_) = false;
  int input_ = -1;  // the writer thread's

  Mutex inboxLock_;
  std::map<std::uint32_t, std::shared_ptr<Inbox>> inboxes_ LUMORA2_GUARDED_BY(inboxLock_);

  child::StderrTail tail_;
  std::string died_;  // why the output ended; written by the reader before ended_

  std::thread writer_, reader_;
};

// One session on a shared render process.
class SharedSession final : public RenderChannel {
 public:
  ~SharedSession() override;
  const StreamGeometry& geometry() const override { return process_->geometry(); }
  pid_t pid() const override { return process_->alive() ? process_->pid() : -1; }
  void sendAudio(const float* samples, std::size_t count) override;
  void sendFlush() override;
  void sendReset() override;
  bool i420() const override { return i420_; }
  std::vector<std::uint8_t> takePixels() override { return std::move(handedOut_); }
  Event next(std::chrono::steady_clock::time_point deadline) override;
  bool endsWithin(std::chrono::milliseconds wait) override;
  Ending ending() override;
  const std::shared_ptr<SharedRenderProcess>& process() const { return process_; }

 private:
  friend class SharedRenderProcess;
  SharedSession(std::shared_ptr<SharedRenderProcess> process, std::uint32_t number,
                std::shared_ptr<SharedRenderProcess::Inbox> inbox);
  void send(std::string bytes, std::size_t samples, bool reset);

  std::shared_ptr<SharedRenderProcess> process_;
  const std::uint32_t number_;
  std::shared_ptr<SharedRenderProcess::Inbox> inbox_;
  bool i420_ = false;                    // as the child's opened record said
  std::vector<std::uint8_t> handedOut_;  // the pixels of the frame next() returned last
};

// The server's pool: up to `processes` shared render processes, each new session placed on the
// one with the fewest sessions; a process that died is started again when a session needs it.
class SharedProcesses final : public RenderPool {
 public:
  SharedProcesses(SharedRenderProcess::Command command, int processes);
  std::unique_ptr<RenderChannel> open(const StreamChild::Command& command) override;
  const char* mode() const override { return "shared"; }
  // Starts every process now, so that sessions find them warm; false (and the reason in `why`)
  // when one does not start.
  bool startAll(std::string& why);
  // The live processes' ids (for tests and measurements).
  std::vector<pid_t> pids() const LUMORA2_EXCLUDES(lock_);

 private:
  struct Slot {
    Mutex starting;                                // held while the slot's process starts
    std::shared_ptr<SharedRenderProcess> process;  // guarded by the pool's lock_
    int placed = 0;  // sessions placed and opening, guarded by the pool's lock_
  };
  // The process of `slot`, started when it has none or its own died.
  std::shared_ptr<SharedRenderProcess> ensure(Slot& slot) LUMORA2_EXCLUDES(lock_);

  const SharedRenderProcess::Command command_;
  mutable Mutex lock_;
  std::vector<std::unique_ptr<Slot>> slots_;  // fixed at construction
};

}  // namespace lumora2::render
