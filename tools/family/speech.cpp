#include "family/speech.h"

#include <sndfile.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <random>
#include <stdexcept>

namespace lumora2::family {
namespace {

struct Vowel {
  std::array<float, 3> formant;    // Hz
  std::array<float, 3> bandwidth;  // Hz
};

constexpr std::array<Vowel, 5> kVowels{{
    {{730, 1090, 2440}, {90, 110, 140}},  // a
    {{530, 1840, 2480}, {80, 110, 140}},  // e
    {{270, 2290, 3010}, {60, 100, 140}},  // i
    {{570, 840, 2410}, {80, 100, 140}},   // o
    {{300, 870, 2240}, {60, 100, 140}},   // u
}};

// Uniform in [lo, hi) from the generator's raw output, which the standard fixes; the standard
// distributions are implementation-defined and would change the recording between libraries.
class Dice {
 public:
  explicit Dice(std::uint64_t seed) : rng_(seed) {}
  double uniform(double lo, double hi) {
    return lo + (hi - lo) * static_cast<double>(rng_() >> 11) * 0x1.0p-53;
  }
  int below(int n) { return static_cast<int>(uniform(0, n)); }

 private:
  std::mt19937_64 rng_;
};

float formantGain(const Vowel& v, float f) {
  float g = 0.0f;
  for (int i = 0; i < 3; ++i) {
    const float d = (f - v.formant[i]) / v.bandwidth[i];
    g += (i == 0 ? 1.0f : 0.6f) / (1.0f + d * d);
  }
  return g;
}

// Adds one voiced syllable of `length` samples at `start`: harmonics of a gliding f0 shaped by the
// vowel's formants, under a raised-cosine attack and release.
void addSyllable(std::vector<float>& out, size_t start, size_t length, const Vowel& vowel, float f0,
                 float glide, float gain) {
  const size_t attack = kSampleRate / 40, release = kSampleRate / 20;
  double phase = 0.0;
  for (size_t i = 0; i < length && start + i < out.size(); ++i) {
    const float t = static_cast<float>(i) / static_cast<float>(length);
    const float pitch = f0 * (1.0f + glide * (t - 0.3f));
    phase += 2.0 * std::numbers::pi * pitch / kSampleRate;
    float v = 0.0f;
    for (int k = 1; k * pitch < 3800.0f; ++k) {
      v += formantGain(vowel, k * pitch) / static_cast<float>(k) *
           static_cast<float>(std::sin(k * phase));
    }
    float env = 1.0f;
    if (i < attack) env = 0.5f - 0.5f * std::cos(std::numbers::pi_v<float> * i / attack);
    if (length - i < release) {
      env *= 0.5f - 0.5f * std::cos(std::numbers::pi_v<float> * (length - i) / release);
    }
    out[start + i] += gain * env * v;
  }
}

// A consonant burst: differenced noise (a crude high-pass) with a fast decay.
void addBurst(std::vector<float>& out, size_t start, size_t length, float gain, Dice& dice) {
  float last = 0.0f;
  for (size_t i = 0; i < length && start + i < out.size(); ++i) {
    const float n = static_cast<float>(dice.uniform(-1.0, 1.0));
    const float env = std::exp(-4.0f * static_cast<float>(i) / static_cast<float>(length));
    out[start + i] += gain * env * (n - last);
    last = n;
  }
}

}  // namespace

std::vector<float> synthesizeSpeech(double seconds) {
  const size_t total = static_cast<size_t>(seconds * kSampleRate);
  std::vector<float> out(total, 0.0f);
  Dice dice(0x5eec4ull);
  const double speechEnd = seconds - 0.3;
  double t = 0.35;  // leading silence
  int word = 0;
  while (true) {
    const int syllables = 1 + dice.below(3);
    const double wordLength = syllables * 0.26;
    if (t + wordLength > speechEnd) break;
    for (int s = 0; s < syllables; ++s) {
      const double length = dice.uniform(0.14, 0.26);
      const Vowel& vowel = kVowels[static_cast<size_t>(dice.below(5))];
      // Declining intonation across the utterance, each syllable gliding up or down.
      const float f0 =
          static_cast<float>(135.0 * (1.0 - 0.15 * t / seconds) * dice.uniform(0.92, 1.08));
      const float glide = static_cast<float>(dice.uniform(-0.12, 0.12));
      const float gain = static_cast<float>(dice.uniform(0.6, 1.0));
      const size_t start = static_cast<size_t>(t * kSampleRate);
      if (dice.uniform(0, 1) < 0.5) {
        addBurst(out, start, kSampleRate / 30, 0.25f * gain, dice);
        t += 1.0 / 30;
      }
      addSyllable(out, static_cast<size_t>(t * kSampleRate),
                  static_cast<size_t>(length * kSampleRate), vowel, f0, glide, gain);
      t += length + dice.uniform(0.03, 0.08);
    }
    ++word;
    t += (word % 4 == 0) ? 0.5 : dice.uniform(0.15, 0.35);  // a longer breath every four words
  }
  float peak = 0.0f;
  for (float v : out) peak = std::max(peak, std::abs(v));
  if (peak > 0.0f) {
    for (float& v : out) v *= 0.5f / peak;
  }
  return out;
}

void writeWav(const std::filesystem::path& path, const std::vector<float>& samples) {
  SF_INFO info{};
  info.samplerate = kSampleRate;
  info.channels = 1;
  info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
  SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
  if (file == nullptr) {
    throw std::runtime_error("cannot write " + path.string() + ": " + sf_strerror(nullptr));
  }
  const sf_count_t frames = static_cast<sf_count_t>(samples.size());
  const sf_count_t written = sf_writef_float(file, samples.data(), frames);
  const std::string reason = sf_strerror(file);
  sf_close(file);
  if (written != frames) throw std::runtime_error("cannot write " + path.string() + ": " + reason);
}

}  // namespace lumora2::family
