// Checking declared members against an unpacked tree: shared by the unpack command, which prints
// as it goes, and verifyChecksums, which only collects problems.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "container/manifest.h"
#include "container/progress.h"

namespace lumora2 {

struct MemberCheck {
  std::string problem;  // "" when the member is present and matches
  std::string actual;   // the computed SHA-256, when the member was there to digest
};

// Digests `dir` + "/" + ref.path (the declared path is appended, never allowed to replace `dir`)
// and compares it with ref.sha256 as text. The declared byte count is not compared: the digest
// already covers the length. Digest failures are thrown.
MemberCheck checkDeclaredMember(const std::filesystem::path& dir, const std::string& key,
                                const FileRef& ref, const ProgressFn& progress = {});

// The first `count` characters (Unicode scalar values) of UTF-8 text.
std::string firstCharacters(std::string_view text, std::size_t count);

}  // namespace lumora2
