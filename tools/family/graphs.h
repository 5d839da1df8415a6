// The family's four graphs as model packages (<name>.mlpackage = model.pt + io.json), and the
// variants that exercise the engine's failure paths. This header keeps LibTorch out of its users.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string_view>
#include <vector>

#include "family/identity.h"

namespace lumora2::family {

inline constexpr std::string_view kFrontEndPackage = "w2v_frontend_cpuAndNE";
inline constexpr std::string_view kTokenizerPackage = "audiotokenizer_cpuAndNE";
inline constexpr std::string_view kStudentPackage = "student_v4_forward_frame_cpuAndNE";
inline constexpr std::string_view kDecoderPackage = "dec_p2_v3_all";

// Graph geometry shared by the engine and the family.
inline constexpr int kWindowSamples = 35200;  // the stretched analysis window
inline constexpr int kFeatureFrames = 55;     // 640 stretched samples each
inline constexpr int kFrameSamples = kWindowSamples / kFeatureFrames;
inline constexpr int kTokens = 14;  // four feature frames each, the last one three
inline constexpr int kTokenFloats = 16 * 384;

enum class DecoderKind {
  kNormal,
  kZeros,  // outputs only zeros: dead on every compute unit
  kNan,    // exactly one NaN among valid values: dead as well
};

std::optional<DecoderKind> parseDecoderKind(std::string_view text);
std::string_view decoderKindName(DecoderKind kind);

struct GraphOptions {
  // Same pictures and motion, at the compute cost of a realistic family: a base-size speech
  // transformer in the front end, full-resolution convolutions in the decoder.
  bool heavy = false;
  // The student refuses non-finite input by throwing, so NaN audio fails chunks.
  bool faultyStudent = false;
  DecoderKind decoder = DecoderKind::kNormal;
};

// Writes the front end, tokenizer and student packages into engineDir.
void writeEngineGraphs(const std::filesystem::path& engineDir, const GraphOptions& options);
// Writes the identity's decoder package into avatarDir.
void writeDecoderGraph(const std::filesystem::path& avatarDir, const Identity& id,
                       const GraphOptions& options);

// The identity at rest for `tokens` audio tokens of silence, four frames per token, rendered
// through the reference front end, tokenizer, student and the identity's normal decoder, then
// sharpened as the engine sharpens speech frames: interleaved RGB24 frames of 416 x 720.
std::vector<std::vector<std::uint8_t>> renderIdleFrames(const Identity& id, int tokens);

}  // namespace lumora2::family
