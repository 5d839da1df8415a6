// renderToMp4: the whole of lumora2-render. Decodes the audio (or speaks the text with the
// embedded voice, sentence by sentence, the child warming up from the first), splits it into
// utterances, has a render-stream child render each one (respawning it once when it asks to),
// lays the rendered frames on a timeline of one frame per 800 input samples, fills the rest with
// the avatar's idle clip, blends the seams where idle and rendered pictures meet, and writes the
// MP4 under a temporary name that becomes `output` only when the file is complete.
#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>

namespace lumora2::render {

// The longest text lumora2-render speaks, in characters (about two hours of speech).
inline constexpr std::size_t kMaxTextChars = 100000;

struct RenderOptions {
  std::filesystem::path avatar;
  std::filesystem::path engine;
  std::filesystem::path audio;
  // Speech from text instead of `audio` (checked already: checkText), spoken with `voice`, or
  // with the avatar's own voice when that is empty (chooseVoice).
  std::optional<std::string> text;
  std::filesystem::path textFile;  // where the text came from, when it came from a file
  std::string voice;
  std::filesystem::path output;
  std::filesystem::path host;  // lumora2-model
  // Where the engine parts used here (the idle clip reader) log, appended; empty: nowhere.
  std::filesystem::path logFile;
  double gapSeconds = 0.6;
};

// What a render did, for its closing line and for tests.
struct RenderReport {
  std::size_t frames = 0;            // in the video: ceil(samples / 800)
  std::size_t samples = 0;           // of 16 kHz audio
  std::size_t utterances = 0;        // found in the audio
  std::size_t renderedFrames = 0;    // frames that came from the engine (blended ones included)
  std::size_t failedUtterances = 0;  // covered by idle frames after a failed respawn
  std::size_t respawns = 0;
  // The largest step (pictureStep: per byte of the pictures the encoder gets, or the change of
  // mean brightness where that is larger) between two neighbouring output frames at a seam
  // between idle and rendered pictures, and between two neighbouring rendered frames: the
  // blending keeps the first near the second.
  double largestSeamStep = 0;
  double largestRenderedStep = 0;
  // The largest difference between the idle and the rendered picture that met at a seam, before
  // the dissolve joined them.
  double largestSeamGap = 0;
};

// Throws ClientError for everything the user must hear about; the output file then does not
// exist (an earlier file of that name is left untouched). Progress goes to standard error: one
// updating line on a terminal, else one line per utterance.
RenderReport renderToMp4(const RenderOptions& options);

// The temporary name `output` is written under (a hidden name in the same directory, so that the
// final rename never crosses file systems; it holds the process id). A signal handler that ends
// the process removes it.
std::filesystem::path partialNameFor(const std::filesystem::path& output);

}  // namespace lumora2::render
