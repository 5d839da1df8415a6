// Progress of long copies and digests, drawn on standard error only when it is a terminal, so that
// scripts reading standard output (and logs capturing standard error) never see it.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace lumora2 {

// Called with the bytes handled so far and the total expected; total may be 0 when unknown.
using ProgressFn = std::function<void(std::uint64_t done, std::uint64_t total)>;

// A one-line "label  42%  1.2 GiB / 3.0 GiB" meter redrawn at most ten times a second. Inert when
// standard error is not a terminal or the total is below `minBytes` (small jobs finish unseen).
class TerminalProgress {
 public:
  explicit TerminalProgress(std::string label, std::uint64_t minBytes = 64ull << 20);
  ~TerminalProgress();
  TerminalProgress(const TerminalProgress&) = delete;
  TerminalProgress& operator=(const TerminalProgress&) = delete;

  // A callback bound to this meter, for the container operations that take a ProgressFn.
  ProgressFn callback();
  void update(std::uint64_t done, std::uint64_t total);
  // Clears the meter's line; also done by the destructor.
  void finish();

 private:
  std::string label_;
  std::uint64_t minBytes_;
  bool enabled_;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point lastDraw_{};
};

}  // namespace lumora2
