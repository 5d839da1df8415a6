// StreamChild: one `lumora2-model render-stream` child process and its three pipes, spoken to in
// the render-stream protocol (docs/MODEL_FORMAT.md, section 5). The parent side of that protocol
// lives here and nowhere else.
//
// The process that uses it must ignore SIGPIPE: a child that dies while audio is being written to
// it shows as a failed write, not as the death of the parent.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "container/platform.h"

namespace lumora2::render {

// What the child's header line promises.
struct StreamGeometry {
  int fps = 0;
  int width = 0;
  int height = 0;
  int sampleRate = 0;
  std::string decoder;
};

// Parses the header line (without its newline): "READY " and a JSON object with the four numbers
// and the decoder label. Throws ClientError quoting the line when it is not one, or when it
// promises anything but 20 fps and 16000 Hz, or a frame without even, positive dimensions.
StreamGeometry parseHeader(const std::string& line);

class StreamChild {
 public:
  struct Command {
    std::filesystem::path host;  // the lumora2-model executable
    std::filesystem::path avatar;
    std::filesystem::path engine;
    // Children this parent runs at once: each child's graphs get an equal share of the cores
    // (OMP_NUM_THREADS), unless the parent's own environment sets OMP_NUM_THREADS.
    int siblings = 1;
  };

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
  // Closes standard input, then reaps.
  void waitForExit();
  // Waits for the child to exit (SIGTERM after `grace`, SIGKILL 5 s later), records its status
  // and joins the stderr reader.
  void reap(std::chrono::milliseconds grace);
  // Ends the child at once: SIGKILL, reap, close its output and remove its TMPDIR. Standard
  // input stays open for a writer that may still hold it.
  void kill();
  void closeInput();

  std::unique_ptr<ScratchDir> tmp_;  // the child's TMPDIR; declared first, so removed last
  pid_t pid_ = -1;
  int input_ = -1;   // the child's standard input (write end)
  int output_ = -1;  // the child's standard output (read end)
  int status_ = -1;  // decoded exit status once waited for
  StreamGeometry geometry_;
  std::vector<std::uint8_t> record_;

  // The stderr reader thread appends under tailLock_; stderrTail() reads under it.
  mutable std::mutex tailLock_;
  std::deque<std::string> tail_;
  std::thread stderrReader_;
};

}  // namespace lumora2::render
