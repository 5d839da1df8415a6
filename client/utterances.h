// Splitting a recording into utterances: stretches of sound separated by silences of at least a
// given length. Each utterance is rendered as one render-stream segment (audio, then a flush), so
// the mouth rests in the avatar's idle clip between them.
#pragma once

#include <cstddef>
#include <vector>

namespace lumora2::render {

// One frame of video per this many input samples (16 kHz audio, 20 fps video).
inline constexpr std::size_t kSamplesPerFrame = 800;

// An utterance as a range of output frames [firstFrame, endFrame): it is rendered from the audio
// samples [firstFrame * kSamplesPerFrame, min(endFrame * kSamplesPerFrame, total)), so its frame
// at position p is output frame firstFrame + p.
struct Utterance {
  std::size_t firstFrame = 0;
  std::size_t endFrame = 0;
};

// How sound is told from silence: audio is judged in windows of 20 ms; a window is sound when its
// RMS level reaches `relativeFloor` times the level of the recording's loud parts (the 95th
// percentile of the windows' RMS) and at least `absoluteFloor`. Each utterance keeps `margin`
// seconds of context on both sides (never more than half the silence next to it), so that the
// engine hears the onset and the mouth closes within the segment.
struct SilenceRule {
  double gapSeconds = 0.6;
  double relativeFloor = 0.05;
  double absoluteFloor = 1e-3;
  double marginSeconds = 0.5;
};

// The utterances of `samples` (16 kHz mono) in order, never overlapping, all within the
// recording's ceil(size / kSamplesPerFrame) frames. Empty when nothing reaches the floors.
std::vector<Utterance> splitUtterances(const std::vector<float>& samples, const SilenceRule& rule);

}  // namespace lumora2::render
