#include "fs_ops.h"

#include <fcntl.h>
#include <pwd.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>
#include <vector>

namespace lumora2::fsops {

namespace fs = std::filesystem;

std::optional<fs::path> executableDir() {
  std::error_code ec;
  fs::path exe = fs::read_symlink("/proc/self/exe", ec);
  if (ec || exe.empty()) return std::nullopt;
  return exe.parent_path();
}

namespace {
std::optional<fs::path> passwdHome(const char* user) {
  std::vector<char> buf(16384);
  passwd entry{};
  passwd* found = nullptr;
  int rc = user == nullptr ? getpwuid_r(getuid(), &entry, buf.data(), buf.size(), &found)
                           : getpwnam_r(user, &entry, buf.data(), buf.size(), &found);
  if (rc != 0 || found == nullptr || found->pw_dir == nullptr || *found->pw_dir == '\0') {
    return std::nullopt;
  }
  return fs::path(found->pw_dir);
}
}  // namespace

std::optional<fs::path> homeDir() {
  const char* home = std::getenv("HOME");
  if (home != nullptr && *home != '\0') return fs::path(home);
  return passwdHome(nullptr);
}

std::string expandTilde(const std::string& path) {
  if (path.empty() || path[0] != '~') return path;
  std::size_t slash = path.find('/');
  std::string user = path.substr(1, slash == std::string::npos ? std::string::npos : slash - 1);
  std::optional<fs::path> home = user.empty() ? homeDir() : passwdHome(user.c_str());
  if (!home) return path;
  std::string out = home->string();
  if (slash != std::string::npos) {
    while (out.size() > 1 && out.back() == '/') out.pop_back();
    out += path.substr(slash);
  }
  return out;
}

bool existsAnyKind(const fs::path& path) {
  std::error_code ec;
  return fs::exists(path, ec);
}

namespace {
// Whether a rename to `path` would meet something, a dangling link included.
bool occupied(const fs::path& path) {
  std::error_code ec;
  return fs::symlink_status(path, ec).type() != fs::file_type::not_found;
}
}  // namespace

bool moveItem(const fs::path& from, const fs::path& to, std::string& error) {
  // RENAME_NOREPLACE makes "the destination exists" a failure, as a move must be, even where a
  // plain rename would replace an empty directory.
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
  int err = errno;
  if (err == EINVAL || err == ENOSYS) {
    // A file system without RENAME_NOREPLACE: test, then rename.
    if (occupied(to)) {
      err = EEXIST;
    } else if (std::rename(from.c_str(), to.c_str()) == 0) {
      return true;
    } else {
      err = errno;
    }
  }
  if (err == EXDEV) {
    std::error_code ec;
    if (occupied(to)) {
      err = EEXIST;
    } else {
      fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::copy_symlinks, ec);
      if (!ec) {
        fs::remove_all(from, ec);
        return true;
      }
      error = "cannot copy " + from.string() + " to " + to.string() + ": " + ec.message();
      fs::remove_all(to, ec);
      return false;
    }
  }
  error = "cannot move " + from.string() + " to " + to.string() + ": " +
          std::generic_category().message(err);
  return false;
}

}  // namespace lumora2::fsops
