#include "admission.h"

#include <sched.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <stdexcept>

namespace lumora2::serve {

namespace {

// The quota over the period, from the first of the files that holds one; empty when unlimited.
std::optional<double> cgroupQuota() {
  {
    std::ifstream v2("/sys/fs/cgroup/cpu.max");  // "max 100000" or "200000 100000"
    std::string quota;
    double period = 0;
    if (v2 >> quota >> period) {
      if (quota == "max" || period <= 0) return std::nullopt;
      return std::stod(quota) / period;
    }
  }
  std::ifstream quotaFile("/sys/fs/cgroup/cpu/cpu.cfs_quota_us");
  std::ifstream periodFile("/sys/fs/cgroup/cpu/cpu.cfs_period_us");
  double quota = -1, period = 0;
  if (quotaFile >> quota && periodFile >> period && quota > 0 && period > 0) {
    return quota / period;
  }
  return std::nullopt;
}

}  // namespace

double usableCores() {
  cpu_set_t set;
  CPU_ZERO(&set);
  double cores = sched_getaffinity(0, sizeof set, &set) == 0 ? CPU_COUNT(&set) : 1;
  try {
    if (const std::optional<double> quota = cgroupQuota()) cores = std::min(cores, *quota);
  } catch (const std::exception&) {
    // An unreadable quota leaves the affinity's count.
  }
  return std::max(0.1, cores);
}

const char* Admission::reasonName(Refusal refusal) {
  switch (refusal) {
    case Refusal::draining:
      return "draining";
    case Refusal::maxSessions:
      return "max_sessions";
    case Refusal::capacity:
      return "capacity";
    case Refusal::none:
      break;
  }
  return "none";
}

Admission::Admission(Options options) : options_(options) {}

namespace {

void blend(std::optional<double>& estimate, double sample, double weight) {
  estimate = estimate ? (1 - weight) * *estimate + weight * sample : sample;
}

}  // namespace

void Admission::childSample(double cpuSeconds, std::uint64_t frames) {
  if (frames < options_.minFrames || !(cpuSeconds >= 0)) return;
  MutexLock hold(lock_);
  blend(childMs_, cpuSeconds * 1000.0 / double(frames), options_.smoothing);
}

void Admission::serverSample(double cpuSeconds, std::uint64_t frames) {
  if (frames < options_.minFrames || !(cpuSeconds >= 0)) return;
  MutexLock hold(lock_);
  blend(serverMs_, cpuSeconds * 1000.0 / double(frames), options_.smoothing);
}

void Admission::renderSpeed(double fps) {
  MutexLock hold(lock_);
  renderFps_ = fps > 0 ? fps : 0;
}

std::size_t Admission::capacityLocked() const {
  const double childMs = childMs_.value_or(options_.priorChildMs);
  const double serverMs = serverMs_.value_or(options_.priorServerMs);
  // Cores one session keeps busy while it speaks.
  const double perSession = options_.fps * (childMs + serverMs) / 1000.0;
  const double fits = perSession > 0 ? double(options_.cores) * options_.headroom / perSession
                                     : double(options_.cap);
  return std::clamp<std::size_t>(std::size_t(std::floor(std::min(fits, 1e6))), 1, options_.cap);
}

std::size_t Admission::capacity() const {
  MutexLock hold(lock_);
  return capacityLocked();
}

Admission::Refusal Admission::check(std::size_t active) const {
  MutexLock hold(lock_);
  if (draining_) return Refusal::draining;
  if (active >= options_.cap) return Refusal::maxSessions;
  if (active >= capacityLocked()) return Refusal::capacity;
  // A child already rendering slower than real time: the machine has nothing to spare.
  if (active > 0 && renderFps_ > 0 && renderFps_ < options_.fps) return Refusal::capacity;
  return Refusal::none;
}

std::string Admission::explain(Refusal refusal, std::size_t active) const {
  char line[256];
  switch (refusal) {
    case Refusal::draining:
      return "the server is shutting down and takes no new session";
    case Refusal::maxSessions:
      std::snprintf(line, sizeof line, "the server is full (%zu sessions); try again later",
                    active);
      return line;
    case Refusal::capacity: {
      const Estimate e = estimate();
      std::snprintf(line, sizeof line,
                    "the server is at its capacity: %zu sessions in real time (%.1f ms a frame "
                    "to render, %.1f ms to send, on %.1f cores%s); try again later",
                    active, e.childMs, e.serverMs, options_.cores,
                    e.renderFps > 0 && e.renderFps < options_.fps ? ", rendering behind" : "");
      return line;
    }
    case Refusal::none:
      break;
  }
  return "";
}

void Admission::startDraining() {
  MutexLock hold(lock_);
  draining_ = true;
}

bool Admission::draining() const {
  MutexLock hold(lock_);
  return draining_;
}

Admission::Estimate Admission::estimate() const {
  MutexLock hold(lock_);
  Estimate e;
  e.childMs = childMs_.value_or(options_.priorChildMs);
  e.serverMs = serverMs_.value_or(options_.priorServerMs);
  e.childMeasured = childMs_.has_value();
  e.serverMeasured = serverMs_.has_value();
  e.renderFps = renderFps_;
  return e;
}

}  // namespace lumora2::serve
