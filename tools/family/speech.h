// The engine's warm-up speech: a deterministic, speech-like recording of voiced syllables with
// formants, consonant bursts and pauses, at 16 kHz mono.
#pragma once

#include <filesystem>
#include <vector>

namespace lumora2::family {

inline constexpr int kSampleRate = 16000;

// `seconds` of sound at 16 kHz, peaks at 0.5, starting and ending in silence.
std::vector<float> synthesizeSpeech(double seconds);

// 16 kHz mono, 16-bit PCM WAV. Throws std::runtime_error with libsndfile's reason on failure.
void writeWav(const std::filesystem::path& path, const std::vector<float>& samples);

}  // namespace lumora2::family
