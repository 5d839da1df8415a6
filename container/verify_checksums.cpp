#include <string>
#include <system_error>

#include "container/archive.h"
#include "container/platform.h"
#include "container/verify.h"

namespace lumora2 {

namespace fs = std::filesystem;

std::string firstCharacters(std::string_view text, std::size_t count) {
  std::size_t end = 0;
  for (std::size_t seen = 0; end < text.size() && seen < count; ++seen) {
    ++end;  // past the lead byte, then past its continuation bytes
    while (end < text.size() && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) ++end;
  }
  return std::string(text.substr(0, end));
}

MemberCheck checkDeclaredMember(const fs::path& dir, const std::string& key, const FileRef& ref,
                                const ProgressFn& progress) {
  const fs::path file(dir.native() + "/" + ref.path);
  std::error_code ec;
  if (!fs::exists(file, ec)) return {key + ": missing " + ref.path, ""};
  std::string actual = Archive::digest(file, progress).sha256;
  if (actual != ref.sha256) {
    return {key + ": sha mismatch (" + ref.path + ") declared=" + firstCharacters(ref.sha256, 16) +
                " actual=" + firstCharacters(actual, 16),
            actual};
  }
  return {"", actual};
}

std::vector<std::string> verifyChecksums(const fs::path& archive,
                                         const std::map<std::string, FileRef>& declared) {
  ScratchDir scratch("vivraverify-");
  Archive::unzip(archive, scratch.path());
  std::vector<std::string> problems;
  for (const auto& [key, ref] : declared) {  // std::map: ascending key order
    MemberCheck check = checkDeclaredMember(scratch.path(), key, ref);
    if (!check.problem.empty()) problems.push_back(std::move(check.problem));
  }
  return problems;
}

}  // namespace lumora2
