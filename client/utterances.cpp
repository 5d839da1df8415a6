#include "utterances.h"

#include <algorithm>
#include <cmath>

#include "audio_input.h"

namespace lumora2::render {

std::vector<Utterance> splitUtterances(const std::vector<float>& samples, const SilenceRule& rule) {
  constexpr std::size_t kWindow = kEngineRate / 50;  // 20 ms
  const std::size_t windows = (samples.size() + kWindow - 1) / kWindow;
  std::vector<double> rms(windows);
  for (std::size_t w = 0; w < windows; ++w) {
    const std::size_t from = w * kWindow, to = std::min(samples.size(), from + kWindow);
    double energy = 0;
    for (std::size_t i = from; i < to; ++i) energy += double(samples[i]) * samples[i];
    rms[w] = std::sqrt(energy / double(to - from));
  }
  if (windows == 0) return {};
  // Windows holding non-finite samples are not silence; they count as sound but leave the level
  // of the loud parts alone.
  std::vector<double> sorted;
  for (double r : rms)
    if (std::isfinite(r)) sorted.push_back(r);
  double loud = 0;
  if (!sorted.empty()) {
    const std::size_t p95 = std::min(sorted.size() - 1, sorted.size() * 95 / 100);
    std::nth_element(sorted.begin(), sorted.begin() + long(p95), sorted.end());
    loud = sorted[p95];
  }
  const double floor = std::max(rule.absoluteFloor, rule.relativeFloor * loud);

  // Runs of sound windows, merged across silences shorter than the gap: [from, to) in samples.
  const auto gap = std::size_t(std::llround(rule.gapSeconds * kEngineRate));
  std::vector<std::pair<std::size_t, std::size_t>> runs;
  for (std::size_t w = 0; w < windows; ++w) {
    if (rms[w] < floor) continue;  // false for NaN
    const std::size_t from = w * kWindow, to = std::min(samples.size(), from + kWindow);
    if (!runs.empty() && from - runs.back().second < gap) {
      runs.back().second = to;
    } else {
      runs.emplace_back(from, to);
    }
  }

  const auto margin = std::size_t(std::llround(rule.marginSeconds * kEngineRate));
  const std::size_t totalFrames = (samples.size() + kSamplesPerFrame - 1) / kSamplesPerFrame;
  std::vector<Utterance> out;
  for (std::size_t i = 0; i < runs.size(); ++i) {
    const std::size_t before = i == 0 ? runs[i].first : (runs[i].first - runs[i - 1].second) / 2;
    const std::size_t after = i + 1 == runs.size() ? samples.size() - runs[i].second
                                                   : (runs[i + 1].first - runs[i].second) / 2;
    const std::size_t from = runs[i].first - std::min(margin, before);
    const std::size_t to = runs[i].second + std::min(margin, after);
    Utterance u{from / kSamplesPerFrame,
                std::min(totalFrames, (to + kSamplesPerFrame - 1) / kSamplesPerFrame)};
    // Rounding to whole frames may touch the previous utterance; frames belong to one only.
    if (!out.empty()) u.firstFrame = std::max(u.firstFrame, out.back().endFrame);
    if (u.firstFrame < u.endFrame) out.push_back(u);
  }
  return out;
}

}  // namespace lumora2::render
