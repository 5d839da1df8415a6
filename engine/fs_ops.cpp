#include "fs_ops.h"

#include <fcntl.h>
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
