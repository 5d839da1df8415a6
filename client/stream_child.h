// StreamChild: one `lumora2-model render-stream` child process and its three pipes, spoken to in
// the render-stream wire format (protocol/stream_wire.h, docs/MODEL_FORMAT.md section 5).
//
// The interface is incremental: audio, flushes and resets are queued and written by a writer
// thread of the child's own (so the child's back-pressure never stalls the caller), and frame
// records and end-of-segment markers are read one at a time as they arrive (next). renderSegment
// is the blocking form lumora2-render uses: one whole segment in, its frames out.
//
// The process that uses it must ignore SIGPIPE: a child that dies while audio is being written to
// it shows as a failed write, not as the death of the parent.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "client/child_process.h"
#include "container/platform.h"
#include "engine/thread_annotations.h"
#include "protocol/stream_wire.h"

namespace lumora2::render {

// What the child's header line promises.
using StreamGeometry = wire::Header;

class StreamChild {
 public:
  struct Command {
    std::filesystem::path host;  // the lumora2-model executable
    std::filesystem::path avatar;
    std::filesystem::path engine;
    // Children this parent runs at once: each child's graphs get an equal share of the cores
    // (OMP_NUM_THREADS), unless the parent's own environment sets OMP_NUM_THREADS.
    int siblings = 1;
    // Added to the child's nice value (a lower priority than its parent's), 0 to 19. A parent
    // that must keep time (the live server's encoding and pacing) yields to children that
    // render ahead of it.
    int niceness = 0;
    // The nice value added while the child warms up (its first second or two of graph runs), when
    // larger than `niceness`: a newcomer's warm-up then waits for children already rendering.
    // Once ready its threads are given `niceness` back where the parent may raise priorities
    // (root or CAP_SYS_NICE); elsewhere the child stays at this value.
    int warmUpNiceness = 0;
  };

  // The lumora2-model beside the running executable (the parents are installed beside it).
  static std::filesystem::path defaultHost();

  // How long the child may take to warm up and write its header.
  static constexpr std::chrono::seconds kWarmUpLimit{120};

  // Starts the child and waits for its header (the child warms its engine up first, a few
  // seconds). Throws ClientError when it cannot be started, ends before the header, does not
  // write it within kWarmUpLimit (the child is then ended), or the header is not acceptable; the
  // message names the child's last lines on standard error.
  static std::unique_ptr<StreamChild> start(const Command& command);

  // Closes the child's standard output and input (the end of the stream) and waits for it to
  // exit; one that is still running after 10 s gets SIGTERM, and SIGKILL 5 s later.
  ~StreamChild();
  StreamChild(const StreamChild&) = delete;
  StreamChild& operator=(const StreamChild&) = delete;

  const StreamGeometry& geometry() const { return geometry_; }
  // The child's process id while it runs (for its resident memory, its environment); -1 after.
  pid_t pid() const { return pid_; }

  // ---- The incremental interface ----
  // Queue audio, a flush (render what is pending, then an end-of-segment marker) or a reset (end
  // the current segment at once, no marker) for the writer thread; they never block. After the
  // child has gone they are dropped.
  void sendAudio(const float* samples, std::size_t count);
  void sendFlush();
  void sendReset();
  // Bytes queued for the child and not yet written.
  std::size_t pendingInput() const LUMORA2_EXCLUDES(inputLock_);

  // What the child said next.
  struct Event {
    enum class Kind { frame, marker, ended, late };
    Kind kind = Kind::ended;
    std::uint32_t position = 0;
    const std::uint8_t* rgb = nullptr;  // a frame's R, G, B pixels, valid until the next call
  };
  // The next frame record or marker, `ended` when the child's output has ended (the child is then
  // gone or going: exitStatus() says how), `late` when nothing complete arrived by `deadline`
  // (call again to go on waiting). Called from one thread at a time.
  Event next(std::chrono::steady_clock::time_point deadline);

  // Ends the child at once (SIGKILL): next() then says `ended`. Safe from any thread.
  void kill();

  // One segment: sends `count` samples as audio messages followed by a flush (from a writer
  // thread, so that the child's back-pressure never stalls the reading), and hands every frame
  // record to `onFrame(position, rgb)` until the end-of-segment marker. True when the marker
  // arrived; false when the child's output ended first, after which the child is gone and
  // exitStatus() says how it ended. A marker that does not arrive within segmentLimit(count)
  // ends the child and throws ClientError; so does an exception from `onFrame`, which is thrown
  // on once the child is ended.
  using FrameFn = std::function<void(std::uint32_t position, const std::uint8_t* rgb)>;
  bool renderSegment(const float* samples, std::size_t count, const FrameFn& onFrame);

  // How long a segment of `count` samples may take: render-stream answers for every 1.6 s chunk
  // of audio within 5 s and for a flush within 8 s (its own time-outs), plus 2 s of slack.
  static std::chrono::milliseconds segmentLimit(std::size_t count);

  // Closes standard input and waits: the exit status, or 128 + n for signal n.
  int exitStatus();

  // Whether the child ends within `wait` (a child that has just answered a failed segment may be
  // on its way out); exitStatus() then says how, without waiting.
  bool exitsWithin(std::chrono::milliseconds wait);

  // The child's last lines on standard error, oldest first, joined by newlines.
  std::string stderrTail() const;

 private:
  StreamChild() = default;
  // Waits for the child's header line; ends the child and throws ClientError when it does not
  // come or is not acceptable.
  void readHeader();
  // Stops the writer once its queue is written, then reaps.
  void waitForExit();
  // Waits for the child to exit (SIGTERM after `grace`, SIGKILL 5 s later), records its status
  // and joins the stderr reader.
  void reap(std::chrono::milliseconds grace);
  // Ends the child at once: SIGKILL, reap, close its output and remove its TMPDIR.
  void end();
  void queue(std::string bytes) LUMORA2_EXCLUDES(inputLock_);
  void writeLoop() LUMORA2_EXCLUDES(inputLock_);
  bool inputFailedNow() const LUMORA2_EXCLUDES(inputLock_);
  void stopWriter() LUMORA2_EXCLUDES(inputLock_);
  // The child has been reaped.
  void forgetPid();

  std::unique_ptr<ScratchDir> tmp_;  // the child's TMPDIR; declared first, so removed last
  pid_t pid_ = -1;
  int output_ = -1;  // the child's standard output (read end)
  int status_ = -1;  // decoded exit status once waited for
  StreamGeometry geometry_;
  std::unique_ptr<wire::RecordReader> records_;
  bool outputEnded_ = false;

  // The writer thread owns the child's standard input; inputLock_ guards the queue, the flags and
  // the byte count.
  mutable Mutex inputLock_;
  std::condition_variable_any inputReady_;
  std::deque<std::string> inputQueue_ LUMORA2_GUARDED_BY(inputLock_);
  std::size_t inputBytes_ LUMORA2_GUARDED_BY(inputLock_) = 0;
  // No more will be queued: close standard input once written.
  bool inputClosing_ LUMORA2_GUARDED_BY(inputLock_) = false;
  bool inputFailed_ LUMORA2_GUARDED_BY(inputLock_) = false;  // a write failed: the child is gone
  int input_ = -1;  // the child's standard input (write end), the writer's alone
  std::thread writer_;
  Mutex killLock_;  // held by kill() and by forgetting pid_, so that no signal goes to a reaped pid

  child::StderrTail tail_;
};

}  // namespace lumora2::render
