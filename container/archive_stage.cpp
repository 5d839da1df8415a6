#include <algorithm>
#include <string>
#include <system_error>
#include <utility>

#include "container/archive.h"
#include "container/error.h"
#include "container/member_names.h"
#include "staging.h"

namespace lumora2::Archive {

namespace fs = std::filesystem;

std::vector<StagedMember> regularFilesBelow(const fs::path& root) {
  std::error_code ec;
  fs::recursive_directory_iterator it(root, fs::directory_options::none, ec);
  if (ec) throw ArtifactError("cannot enumerate staging dir " + root.string());

  const std::string& prefix = root.native();
  std::vector<StagedMember> found;
  while (it != fs::recursive_directory_iterator()) {
    const fs::directory_entry& entry = *it;
    // symlink_status: a link is never a member, whatever it points at.
    if (entry.symlink_status().type() == fs::file_type::regular) {
      std::string name = entry.path().native();
      if (name.starts_with(prefix)) name.erase(0, prefix.size());
      name.erase(0, std::min(name.size(), name.find_first_not_of('/')));
      if (!name.empty()) found.push_back({std::move(name), entry.path(), entry.file_size()});
    }
    it.increment(ec);
    if (ec) throw fs::filesystem_error("cannot enumerate", root, ec);
  }
  return found;
}

// Orders by the names' NFC forms, each computed once rather than on every comparison.
void sortByMemberName(std::vector<StagedMember>& files) {
  std::vector<std::pair<std::string, StagedMember>> keyed;
  keyed.reserve(files.size());
  for (StagedMember& f : files) keyed.emplace_back(nfc(f.name), std::move(f));
  std::stable_sort(keyed.begin(), keyed.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  for (std::size_t i = 0; i < files.size(); ++i) files[i] = std::move(keyed[i].second);
}

std::vector<StagedMember> stage(const fs::path& dir) {
  std::vector<StagedMember> members = regularFilesBelow(dir);
  // Member names are UTF-8 on disk; a container with any other name could never be read back.
  for (const StagedMember& m : members) {
    if (!isValidUtf8(m.name)) {
      throw ArtifactError("cannot pack " + m.url.string() + ": its name is not valid UTF-8");
    }
  }
  sortByMemberName(members);
  // Only the root manifest moves: a nested ".../manifest.json" is ordinary data.
  auto manifest = std::find_if(members.begin(), members.end(),
                               [](const StagedMember& m) { return m.name == "manifest.json"; });
  if (manifest != members.end()) std::rotate(manifest, manifest + 1, members.end());
  return members;
}

}  // namespace lumora2::Archive
