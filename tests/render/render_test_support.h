// What the lumora2-render tests share: running the real executables, writing test audio and reading
// back video.
#pragma once

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "family_fixture.h"

namespace lumora2::family::test {

constexpr std::size_t kRate = 16000;
constexpr std::size_t kFrameBytes = 416 * 720 * 3;  // one R, G, B frame

// A mono 16 kHz WAV: 16-bit PCM, or 32-bit float (which carries any value, NaN included).
void writeWav(const std::filesystem::path& path, const std::vector<float>& samples,
              bool asFloat = false);

// lumora2-render and the packed reference family's ava.avatar and vivra.model.
std::filesystem::path renderBin();
std::filesystem::path avatarFile();
std::filesystem::path engineFile();

// The video of `mp4` as raw frames in FFmpeg's pixel format `format`; empty when unreadable.
std::string decodeVideo(const std::filesystem::path& mp4, const std::string& format = "rgb24");

// The names of the entries of `dir`.
std::set<std::string> namesIn(const std::filesystem::path& dir);

// The words as one shell command line, each quoted.
std::string commandLine(const std::vector<std::string>& words);

// The shell command line that renders `audio` into `out` through ava.
std::string renderCommand(const std::filesystem::path& audio, const std::filesystem::path& out);

}  // namespace lumora2::family::test
