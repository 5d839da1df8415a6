// The admission's arithmetic: capacity from the measured costs (or the priors), the cap, the
// drain, a child already behind real time, and which measurements count.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "serve/admission.h"

namespace lumora2::serve {
namespace {

struct Case {
  const char* name;
  double cores;
  std::size_t cap;
  // Samples fed in: {processor seconds, frames}.
  std::vector<std::pair<double, std::uint64_t>> child, server;
  double renderFps;
  bool draining;
  std::size_t capacity;
  std::size_t active;  // sessions already there
  Admission::Refusal refusal;
};

class AdmissionCase : public ::testing::TestWithParam<Case> {};

TEST_P(AdmissionCase, CapacityAndDecision) {
  const Case& c = GetParam();
  Admission::Options options;
  options.cores = c.cores;
  options.cap = c.cap;
  Admission admission(options);
  for (const auto& [cpu, frames] : c.child) admission.childSample(cpu, frames);
  for (const auto& [cpu, frames] : c.server) admission.serverSample(cpu, frames);
  admission.renderSpeed(c.renderFps);
  if (c.draining) admission.startDraining();
  EXPECT_EQ(admission.capacity(), c.capacity);
  EXPECT_EQ(admission.check(c.active), c.refusal);
  if (c.refusal != Admission::Refusal::none) {
    EXPECT_FALSE(admission.explain(c.refusal, c.active).empty());
  }
}

using R = Admission::Refusal;
// Measured: 3.5 ms a rendered frame, 9 ms a sent one on one core: 0.25 core a session.
const std::vector<std::pair<double, std::uint64_t>> kChild{{0.35, 100}}, kServer{{0.9, 100}};
INSTANTIATE_TEST_SUITE_P(
    Admission, AdmissionCase,
    ::testing::Values(
        // Priors (15 + 10 ms a frame): half a core a session.
        Case{"PriorsOnTwoCores", 2, 64, {}, {}, 0, false, 3, 2, R::none},
        Case{"PriorsOnTwoCoresFull", 2, 64, {}, {}, 0, false, 3, 3, R::capacity},
        Case{"MeasuredOneCore", 1, 64, kChild, kServer, 25, false, 3, 2, R::none},
        Case{"MeasuredOneCoreFull", 1, 64, kChild, kServer, 25, false, 3, 3, R::capacity},
        // A container's quota of half a core holds one session at least.
        Case{"HalfACore", 0.5, 64, kChild, kServer, 25, false, 1, 0, R::none},
        // A heavy family: 400 ms a frame. One session is always admitted, never a second.
        Case{"HeavyFirst", 2, 64, {{40, 100}}, {}, 2.5, false, 1, 0, R::none},
        Case{"HeavySecond", 2, 64, {{40, 100}}, {}, 2.5, false, 1, 1, R::capacity},
        // The cap holds even where the measurement allows more; its own reason.
        Case{"CapBelowMeasured", 16, 2, kChild, kServer, 25, false, 2, 2, R::maxSessions},
        // A child already rendering slower than real time: nothing to spare.
        Case{"ChildBehind", 16, 64, kChild, kServer, 12, false, 54, 1, R::capacity},
        Case{"ChildBehindAlone", 16, 64, kChild, kServer, 12, false, 54, 0, R::none},
        Case{"Draining", 16, 64, {}, {}, 0, true, 27, 0, R::draining},
        // Spans of fewer than 100 frames are not measurements; later ones blend in at 0.3.
        Case{"ShortSpansIgnored", 1, 64, {{5, 10}}, {{5, 99}}, 0, false, 1, 0, R::none},
        Case{"Blended", 2, 64, {{1.0, 100}, {2.0, 100}}, {{0.0, 100}}, 0, false, 6, 0, R::none}),
    [](const ::testing::TestParamInfo<Case>& param) { return std::string(param.param.name); });

}  // namespace
}  // namespace lumora2::serve
