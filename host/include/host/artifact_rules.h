// The rules by which the packing commands turn a staging directory into a manifest, kept apart
// from the commands so that they can be read, documented and tested on their own:
//
// - what an engine or an avatar must contain before it is packed;
// - which short label each packed file gets in the manifest's "files";
// - how an avatar's provenance record is judged (bound, legacy-bound, unstamped).
//
// All of them work on member names as the container writer stages them: relative paths with "/"
// separators, regular files only, the root "manifest.json" already left out.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "container/manifest.h"

namespace lumora2 {

enum class ArtifactKind { engine, avatar };

// What `kind` cannot do without, in a fixed order, that `memberNames` lacks. A model package
// ("<name>.mlpackage", written with a trailing "/") is present when at least one member lies
// below it; a file when a member has exactly its name. Engine: w2v_frontend_cpuAndNE.mlpackage,
// audiotokenizer_cpuAndNE.mlpackage, student_v4_forward_frame_cpuAndNE.mlpackage, warm.wav.
// Avatar: dec_p2_v3_all.mlpackage, canon.f32 (idle.mp4 is optional).
std::vector<std::string> missingRequirements(const std::vector<std::string>& memberNames,
                                             ArtifactKind kind);

// One entry of the manifest's "files": its label and the path it covers (a file, or a model
// package directory whose digest covers every file below it).
struct LabelledPath {
  std::string label;
  std::string path;
  bool operator==(const LabelledPath&) const = default;
};

// The label rule, stable for a given set of names:
// 1. Each top-level file and each top-level directory "<stem>.mlpackage" is one entry. The known
//    members carry fixed labels: w2v_frontend_cpuAndNE.mlpackage "w2v",
//    audiotokenizer_cpuAndNE.mlpackage "atok", student_v4_forward_frame_cpuAndNE.mlpackage
//    "student", warm.wav "warm", dec_p2_v3_all.mlpackage "decp2", canon.f32 "canon", idle.mp4
//    "idle", provenance.json "provenance".
// 2. Any other top-level entry is labelled by its name without its last extension ("notes.txt"
//    → "notes", "extra.mlpackage" → "extra"; a name with no stem, like ".env", keeps its whole
//    name). The fixed labels are claimed first; the others are then given out in member-name
//    order, and a label already taken gets "-2", "-3", … (the first free one).
// 3. A file in any other subdirectory gets its own entry labelled by its relative path
//    ("extras/a.bin"); such labels contain "/" and so never collide with rule 1 or 2.
// The result is in member-name order of the paths.
std::vector<LabelledPath> labelFiles(const std::vector<std::string>& memberNames);

// The binding verdict of an avatar's provenance:
// - bound: student_sha256 is 64 lower-case hexadecimal digits (the student model's SHA-256, the
//   binding key);
// - legacy-bound: otherwise, student_sha or jnt_sha256 is present and not empty;
// - unstamped: otherwise.
enum class ProvenanceVerdict { bound, legacyBound, unstamped };

ProvenanceVerdict provenanceVerdict(const Provenance& provenance);
std::string_view verdictName(ProvenanceVerdict verdict);

// Whether `text` is a SHA-256 as the manifests write it: 64 lower-case hexadecimal digits.
bool isSha256Hex(std::string_view text);

}  // namespace lumora2
