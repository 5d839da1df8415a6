// The family's latent: 16 channels of 90 x 52 floats per time step. The reference student keeps its
// state in the first five channels as constant planes; the remaining style channels are the
// identity's canonical values, which the student carries through unchanged.
#pragma once

#include <filesystem>
#include <vector>

#include "family/identity.h"

namespace lumora2::family {

inline constexpr int kLatentChannels = 16;
inline constexpr int kLatentHeight = 90;
inline constexpr int kLatentWidth = 52;
inline constexpr int kLatentPlane = kLatentHeight * kLatentWidth;   // 4,680
inline constexpr int kLatentSize = kLatentChannels * kLatentPlane;  // 74,880
inline constexpr int kContextSlots = 16;

enum LatentChannel : int {
  kChannelMouth = 0,       // mouth openness, 0 = shut, 1 = wide open
  kChannelSwaySin = 1,     // gaze oscillator, sine component (the decoder's gaze shift)
  kChannelSwayCos = 2,     // gaze oscillator, cosine component
  kChannelBlink = 3,       // eyelid closure, 0 = open, 1 = shut
  kChannelBlinkClock = 4,  // blink clock in [0, 1); a blink happens when it wraps
  kFirstStyleChannel = 5,
};

// How the reference student moves the latent, one step per audio token (0.2 s).
struct Motion {
  static constexpr float kFollow = 0.8f;  // share of the gap to the target closed per step
  // Openness target = clamp((token loudness - kOpenFloor) * kOpenGain, 0, 1), where loudness maps
  // -60 dBFS..0 dBFS of the front end's input to 0..1: input below -39 dBFS keeps it shut.
  static constexpr float kOpenFloor = 0.35f;
  static constexpr float kOpenGain = 2.5f;
  static constexpr int kSwayPeriodTokens = 30;   // gaze cycle of 6 s
  static constexpr int kBlinkPeriodTokens = 24;  // one blink every 4.8 s
};

// The identity's rest latent (channel-major, 16 x 4,680 floats): mouth shut, eyes open, the
// oscillator and blink clock at the identity's phases, and its style channels.
std::vector<float> canonLatent(const Identity& id);

// Writes floats as little-endian float32, the layout of canon.f32.
void writeFloatsLE(const std::filesystem::path& path, const std::vector<float>& values);

}  // namespace lumora2::family
