// StreamSession: one engine's side of the stream loop, shared by render-stream (one session, the
// process's standard output its own) and render-sessions (many, each record led by its session's
// number): audio in with its back-pressure, resets, flushes that end with a marker, frames out.
// Frames are pulled and written on the session's own output queue; a sink writes whole records,
// so that sessions sharing one output never interleave inside a record.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "engine/lumora2_engine.h"
#include "engine/serial_queue.h"

namespace lumora2 {

class StreamSession {
 public:
  // Writes one whole record; false when the parent has gone.
  using Sink = std::function<bool(const std::uint8_t* bytes, std::size_t size)>;

  // `session`: the number that leads each record (the sessions format), or nothing
  // (render-stream's own). `i420`: frames as 4:2:0 planes (protocol/i420.h) instead of R, G, B.
  // `parentGone` ends the process when the sink fails; `label` leads the session's log lines
  // ("[render-stream]").
  StreamSession(std::shared_ptr<Lumora2Engine> engine, std::optional<std::uint32_t> session,
                bool i420, Sink sink, std::function<void()> parentGone, std::string label);
  ~StreamSession();
  StreamSession(const StreamSession&) = delete;
  StreamSession& operator=(const StreamSession&) = delete;

  // Ends the segment at once: its ready frames are written, no marker.
  void reset();
  // Feeds the engine and waits while it is a chunk or a queue of frames ahead.
  void audio(const std::vector<float>& samples);
  // Renders the segment's padded tail, writes every one of its frames and then the marker.
  // True when the engine failed two segments in a row and must be replaced.
  bool flush();
  // Writes whatever frames are ready.
  void finish();
  Lumora2Engine& engine() { return *engine_; }

 private:
  template <typename Task>
  void onOutput(Task task) {
    out_.async(std::move(task));
    out_.waitForEarlierTasks(std::chrono::hours(24));
  }
  void drain();
  void write(const std::uint8_t* bytes, std::size_t size);
  void kick();
  void pace();
  void log(const std::string& text) const;

  std::shared_ptr<Lumora2Engine> engine_;
  const std::optional<std::uint32_t> session_;
  const Sink sink_;
  const std::function<void()> parentGone_;
  const std::string label_;
  const std::size_t lead_;  // bytes before a record's pixels
  const bool i420_;         // records carry 4:2:0 planes, not R, G, B
  std::vector<std::uint8_t> record_;
  std::mutex kickLock_;
  bool kickScheduled_ = false;  // guarded by kickLock_
  int failures_ = 0;            // consecutive failed segments
  SerialQueue out_;             // last: stops first
};

}  // namespace lumora2
