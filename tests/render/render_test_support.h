// What the lumora2-render tests share: running the real executables and writing test audio.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace lumora2::family::test {

constexpr std::size_t kRate = 16000;

struct Shell {
  int status = -1;
  std::string out;  // standard output
};

// Runs a shell command line; standard output is captured, standard error goes to `errFile` when
// given.
Shell shell(const std::string& command, const std::filesystem::path& errFile = {});

// A mono 16 kHz WAV: 16-bit PCM, or 32-bit float (which carries any value, NaN included).
void writeWav(const std::filesystem::path& path, const std::vector<float>& samples,
              bool asFloat = false);

// lumora2-render and the packed reference family's ava.avatar and vivra.model.
std::filesystem::path renderBin();
std::filesystem::path avatarFile();
std::filesystem::path engineFile();

// The words as one shell command line, each quoted.
std::string commandLine(const std::vector<std::string>& words);

// The shell command line that renders `audio` into `out` through ava.
std::string renderCommand(const std::filesystem::path& audio, const std::filesystem::path& out);

}  // namespace lumora2::family::test
