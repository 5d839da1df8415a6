// The unpack command and the checksum verification it shares with validate.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "container/command.h"
#include "container/manifest.h"

namespace lumora2 {

// unpack <file.model|file.avatar> <dir> [--no-verify]. Prints its report on standard output;
// throws Err on failure; ends the process with kExitChecksumProblems when members are missing or
// do not match their declared SHA-256.
void cmdUnpack(const Positionals& positionals, const Options& options);

// Extracts `archive` (either form) into a fresh "vivraverify-<UUID>" directory under the system
// temporary directory, digests each declared member in ascending key order and returns the problem
// lines ("<key>: missing <path>", "<key>: sha mismatch (<path>) declared=… actual=…"); empty when
// every member is present and matches. The temporary directory is removed on every path.
std::vector<std::string> verifyChecksums(const std::filesystem::path& archive,
                                         const std::map<std::string, FileRef>& declared);

}  // namespace lumora2
