// Admission: how many sessions this machine can keep in real time, and whether the next one may
// start. Every session needs 20 frames a second from its render-stream child and 20 frames a
// second encoded and sent by the server; both cost processor time, measured as sessions run:
// each child's processor time per frame it rendered (its rendering speed against the 20 it must
// sustain is reported beside it) and the server's own processor time per frame sent. Capacity is
// the number of sessions, each speaking all the time, whose cost fits in the cores this process
// may use with a margin kept in hand. Until the first measurement a conservative prior stands in.
//
// A session is refused, with the reason a client sees, while the server drains, when the
// --max-sessions cap is reached, or when one more session would exceed the measured capacity (or
// a child already renders slower than real time).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "engine/thread_annotations.h"

namespace lumora2::serve {

class Admission {
 public:
  struct Options {
    double cores = 1;           // processors this process may keep busy
    std::size_t cap = 64;       // --max-sessions N, or the ceiling of `auto`
    double headroom = 0.85;     // share of the cores sessions may fill
    double fps = 20;            // frames a second every session needs
    double priorChildMs = 15;   // processor ms per rendered frame, before any was measured
    double priorServerMs = 10;  // processor ms per frame sent, before any was measured
    // Frames a sample must cover to count: 5 s of one session, over which a session's one-off
    // costs (its viewer's connection, a recording's decoding) weigh little.
    std::uint64_t minFrames = 100;
    double smoothing = 0.3;  // weight of a new sample in the running estimate
  };

  // Why a session was refused (the JSON error's "reason" and the refusal metric's label).
  enum class Refusal { none, draining, maxSessions, capacity };
  static const char* reasonName(Refusal refusal);

  explicit Admission(Options options);

  // Measurements: processor seconds spent by every child over a span in which they rendered
  // `frames` frames, and by the server while it sent `frames` frames. Spans with fewer than
  // minFrames frames are ignored (their cost would be mostly fixed overhead).
  void childSample(double cpuSeconds, std::uint64_t frames) LUMORA2_EXCLUDES(lock_);
  void serverSample(double cpuSeconds, std::uint64_t frames) LUMORA2_EXCLUDES(lock_);
  // The rendering speed the children report, frames a second (the slowest live child).
  void renderSpeed(double fps) LUMORA2_EXCLUDES(lock_);

  // Sessions the machine holds in real time (at least 1, at most the cap).
  std::size_t capacity() const LUMORA2_EXCLUDES(lock_);
  // Whether a session may start beside `active` others; none when it may.
  Refusal check(std::size_t active) const LUMORA2_EXCLUDES(lock_);
  // The client's one line for a refusal.
  std::string explain(Refusal refusal, std::size_t active) const LUMORA2_EXCLUDES(lock_);

  void startDraining() LUMORA2_EXCLUDES(lock_);
  bool draining() const LUMORA2_EXCLUDES(lock_);

  struct Estimate {
    double childMs = 0, serverMs = 0;  // processor ms per frame
    bool childMeasured = false, serverMeasured = false;
    double renderFps = 0;  // 0 before any report
  };
  Estimate estimate() const LUMORA2_EXCLUDES(lock_);
  const Options& options() const { return options_; }

 private:
  std::size_t capacityLocked() const LUMORA2_REQUIRES(lock_);

  const Options options_;
  mutable Mutex lock_;  // guards the estimates and the drain flag
  std::optional<double> childMs_ LUMORA2_GUARDED_BY(lock_);
  std::optional<double> serverMs_ LUMORA2_GUARDED_BY(lock_);
  double renderFps_ LUMORA2_GUARDED_BY(lock_) = 0;
  bool draining_ LUMORA2_GUARDED_BY(lock_) = false;
};

// Processors this process may keep busy: those its affinity mask allows, fewer when its control
// group's CPU quota (cgroup v2 cpu.max, or v1 cpu.cfs_quota_us) allows less, as in a container
// with a CPU limit. At least 0.1.
double usableCores();

}  // namespace lumora2::serve
