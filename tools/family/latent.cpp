#include "family/latent.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <numbers>
#include <random>
#include <stdexcept>

namespace lumora2::family {

std::vector<float> canonLatent(const Identity& id) {
  std::vector<float> canon(kLatentSize, 0.0f);
  auto fill = [&](int channel, float value) {
    std::fill_n(canon.begin() + channel * kLatentPlane, kLatentPlane, value);
  };
  const float angle = 2.0f * std::numbers::pi_v<float> * id.swayPhase;
  fill(kChannelMouth, 0.0f);
  fill(kChannelSwaySin, std::sin(angle));
  fill(kChannelSwayCos, std::cos(angle));
  fill(kChannelBlink, 0.0f);
  fill(kChannelBlinkClock, id.blinkClock);
  // Style channels: a per-identity level plus a gentle spatial wave, from the identity's seed.
  // std::mt19937_64's raw output is fixed by the standard, so the values are the same everywhere.
  std::mt19937_64 rng(id.seed);
  for (int c = kFirstStyleChannel; c < kLatentChannels; ++c) {
    const float level = static_cast<float>(rng() >> 40) / static_cast<float>(1 << 24) - 0.5f;
    const float freq = 0.05f + static_cast<float>(rng() >> 40) / static_cast<float>(1 << 24) * 0.1f;
    for (int y = 0; y < kLatentHeight; ++y) {
      for (int x = 0; x < kLatentWidth; ++x) {
        canon[c * kLatentPlane + y * kLatentWidth + x] =
            level + 0.1f * std::sin(freq * static_cast<float>(x + 2 * y));
      }
    }
  }
  return canon;
}

void writeFloatsLE(const std::filesystem::path& path, const std::vector<float>& values) {
  std::vector<char> bytes(values.size() * 4);
  for (size_t i = 0; i < values.size(); ++i) {
    std::uint32_t bits = std::bit_cast<std::uint32_t>(values[i]);
    for (int b = 0; b < 4; ++b) bytes[i * 4 + b] = static_cast<char>((bits >> (8 * b)) & 0xFF);
  }
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

}  // namespace lumora2::family
