// Any audio file FFmpeg's libraries can read (WAV, FLAC, MP3, Ogg, M4A, ...; any rate and channel
// count), decoded whole and converted to the engine's input: 16 kHz mono float samples.
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <limits>
#include <vector>

#include "client_error.h"

namespace lumora2::render {

inline constexpr int kEngineRate = 16000;

// Audio longer than the caller takes (a ClientError too).
struct AudioTooLong : ClientError {
  using ClientError::ClientError;
};

// The first audio stream of `path`, resampled to kEngineRate and mixed down to one channel.
// Throws ClientError naming the file when it cannot be opened or read, has no audio stream, or
// holds no samples.
// `progress`, when given, sees the samples as they are decoded, in order, before the call returns.
// Audio of more than `maxSamples` (at kEngineRate) throws AudioTooLong: when the file's header
// says so before anything is decoded, else as soon as decoding gets there, so that the memory a
// file costs is bounded by what the limit allows, however little it weighs compressed.
using DecodeProgress = std::function<void(const float* samples, std::size_t count)>;
std::vector<float> decodeAudio(const std::filesystem::path& path,
                               const DecodeProgress& progress = {},
                               std::size_t maxSamples = std::numeric_limits<std::size_t>::max());

}  // namespace lumora2::render
