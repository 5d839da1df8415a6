// ServerMetrics: what lumora2-serve is doing, in the Prometheus text format (GET /metrics), kept
// with prometheus-cpp. Counters only grow: the registry adds what each session did since its last
// look, and what it did last when it ends. Gauges are set on every look (once a second).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace lumora2::serve {

class ServerMetrics {
 public:
  ServerMetrics();
  ~ServerMetrics();
  ServerMetrics(const ServerMetrics&) = delete;
  ServerMetrics& operator=(const ServerMetrics&) = delete;

  void admitted();
  void refused(const std::string& reason);
  void ended(const std::string& cause);
  void framesSent(std::uint64_t idle, std::uint64_t rendered);
  void framesRendered(std::uint64_t count);  // frames the children rendered
  void stalls(std::uint64_t count);
  void framesBehind(std::uint64_t count);  // pictures the video encoder dropped, behind
  void respawns(std::uint64_t count);
  void childDeaths(std::uint64_t count);

  struct Gauges {
    std::size_t active = 0, capacity = 0;
    double renderFps = 0;             // the slowest live child's rendering speed
    double serverMsPerFrame = 0;      // processor ms the server spends on a frame sent
    double childMsPerFrame = 0;       // processor ms a child spends on a frame rendered
    std::size_t speechQueued = 0;     // utterances waiting or playing, every session
    std::size_t framesAhead = 0;      // rendered frames held before they are sent
    std::size_t textsQueued = 0;      // texts waiting for a session's voice
    std::uint64_t serverBytes = 0;    // resident memory of the server
    std::uint64_t childrenBytes = 0;  // of every render child together
    bool draining = false;
  };
  void set(const Gauges& gauges);

  // The exposition text.
  std::string text() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// A process's processor time (user and system) and resident memory, from /proc; pid 0 is this
// process. Empty when the process is gone.
struct ProcessUsage {
  double cpuSeconds = 0;
  std::uint64_t residentBytes = 0;
};
std::optional<ProcessUsage> processUsage(pid_t pid);

}  // namespace lumora2::serve
