// Checking declared members against an unpacked tree: shared by the unpack command, which prints
// as it goes, and verifyChecksums, which only collects problems (validate's checksum step).
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

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

// Extracts `archive` (either form) into a fresh "vivraverify-<UUID>" directory under the system
// temporary directory, digests each declared member in ascending key order and returns the problem
// lines ("<key>: missing <path>", "<key>: sha mismatch (<path>) declared=… actual=…"); empty when
// every member is present and matches. The temporary directory is removed on every path.
std::vector<std::string> verifyChecksums(const std::filesystem::path& archive,
                                         const std::map<std::string, FileRef>& declared);

// The first `count` characters (Unicode scalar values) of UTF-8 text.
std::string firstCharacters(std::string_view text, std::size_t count);

}  // namespace lumora2
