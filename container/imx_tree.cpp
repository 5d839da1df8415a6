#include "imx_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace lumora2::imx {

namespace {

struct Level {
  std::string name;  // relative to the level above
  dev_t dev;
  ino_t ino;
  bool cleared = false;                     // its files are gone; `subdirectories` is filled
  std::vector<std::string> subdirectories;  // still to remove
};

std::filesystem::path below(const std::filesystem::path& top, const std::vector<Level>& levels,
                            std::size_t from = 1) {
  std::filesystem::path p = top;
  for (std::size_t i = from; i < levels.size(); ++i) p /= levels[i].name;
  return p;
}

struct stat statFd(int fd, const std::filesystem::path& shown) {
  struct stat st {};
  if (::fstat(fd, &st) != 0) throwFsError("cannot stat", shown, errno);
  return st;
}

// Unlinks every entry of the directory `dir` that is not a directory and returns the names of its
// subdirectories.
// `shown` names the directory in errors; it is built only when one is thrown, because building it
// for every level of a deep tree would cost time quadratic in the depth.
template <typename Shown>
std::vector<std::string> clearFilesIn(int dir, const Shown& shown) {
  int scanFd = ::openat(dir, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (scanFd < 0) throwFsError("cannot open directory", shown(), errno);
  DIR* scan = ::fdopendir(scanFd);
  if (scan == nullptr) {
    int err = errno;
    ::close(scanFd);
    throwFsError("cannot open directory", shown(), err);
  }
  // Names are collected first so the directory is not changed while it is being listed.
  std::vector<std::string> files;
  std::vector<std::string> subdirectories;
  errno = 0;
  while (const dirent* entry = ::readdir(scan)) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    bool isDirectory = entry->d_type == DT_DIR;
    if (entry->d_type == DT_UNKNOWN) {
      struct stat st {};
      isDirectory =
          ::fstatat(dir, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
    }
    if (!isDirectory) {
      files.push_back(name);
    } else {
      subdirectories.push_back(name);
    }
  }
  int listErr = errno;
  ::closedir(scan);
  if (listErr != 0) throwFsError("cannot list directory", shown(), listErr);
  for (const std::string& name : files) {
    if (::unlinkat(dir, name.c_str(), 0) != 0 && errno != ENOENT) {
      throwFsError("cannot remove", shown() / name, errno);
    }
  }
  return subdirectories;
}

}  // namespace

UniqueFd openDirectoryAt(int dirfd, const std::string& name) {
  int fd;
  do {
    fd = ::openat(dirfd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  // A symbolic link answers ELOOP to O_NOFOLLOW; for the caller it is simply not a directory.
  if (fd < 0 && errno == ELOOP) errno = ENOTDIR;
  return UniqueFd(fd);
}

UniqueFd makeDirectoriesAt(int root, const std::vector<std::string>& pieces,
                           const std::filesystem::path& shownRoot) {
  UniqueFd current(::fcntl(root, F_DUPFD_CLOEXEC, 0));
  if (!current) throwFsError("cannot open directory", shownRoot, errno);
  std::filesystem::path shown = shownRoot;
  for (const std::string& piece : pieces) {
    shown /= piece;
    if (::mkdirat(current.get(), piece.c_str(), 0777) != 0 && errno != EEXIST) {
      throwFsError("cannot create directory", shown, errno);
    }
    UniqueFd next = openDirectoryAt(current.get(), piece);
    if (!next) throwFsError("cannot create directory", shown, errno);
    current = std::move(next);
  }
  return current;
}

void removeTreeAt(int dirfd, const std::string& name, const std::filesystem::path& shownAs) {
  struct stat st {};
  if (::fstatat(dirfd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return;
    throwFsError("cannot inspect", shownAs, errno);
  }
  if (!S_ISDIR(st.st_mode)) {
    if (::unlinkat(dirfd, name.c_str(), 0) != 0 && errno != ENOENT) {
      throwFsError("cannot remove", shownAs, errno);
    }
    return;
  }

  // Depth-first, one handle at a time: descend into a subdirectory by name, and climb back
  // through ".." only after checking that it is the very directory we came from.
  UniqueFd current = openDirectoryAt(dirfd, name);
  if (!current) throwFsError("cannot open directory", shownAs, errno);
  std::vector<Level> levels;
  {
    struct stat top = statFd(current.get(), shownAs);
    levels.push_back(Level{name, top.st_dev, top.st_ino, false, {}});
  }
  while (true) {
    auto shown = [&] { return below(shownAs, levels); };
    Level& level = levels.back();
    if (!level.cleared) {
      level.subdirectories = clearFilesIn(current.get(), shown);
      level.cleared = true;
    }
    if (!level.subdirectories.empty()) {
      const std::string sub = std::move(level.subdirectories.back());
      level.subdirectories.pop_back();
      UniqueFd next = openDirectoryAt(current.get(), sub);
      if (!next && errno == ENOENT) continue;  // already gone
      if (!next) throwFsError("cannot open directory", shown() / sub, errno);
      struct stat inner {};
      if (::fstat(next.get(), &inner) != 0) throwFsError("cannot stat", shown() / sub, errno);
      levels.push_back(Level{sub, inner.st_dev, inner.st_ino, false, {}});
      current = std::move(next);
      continue;
    }
    const Level done = levels.back();
    levels.pop_back();
    if (levels.empty()) {
      current.reset();
      if (::unlinkat(dirfd, done.name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) {
        throwFsError("cannot remove", shownAs, errno);
      }
      return;
    }
    UniqueFd up = openDirectoryAt(current.get(), "..");
    if (!up) throwFsError("cannot open directory", shown(), errno);
    struct stat upStat {};
    if (::fstat(up.get(), &upStat) != 0) throwFsError("cannot stat", shown(), errno);
    if (upStat.st_dev != levels.back().dev || upStat.st_ino != levels.back().ino) {
      // Someone moved the tree while it was being removed; stop rather than climb elsewhere.
      throwFsError("directory moved during removal", shown(), ESTALE);
    }
    current = std::move(up);
    if (::unlinkat(current.get(), done.name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) {
      throwFsError("cannot remove", shown() / done.name, errno);
    }
  }
}

}  // namespace lumora2::imx
