// A file descriptor owned by one scope (every descriptor the container code opens), and the
// file-system error the container code throws when a system call on a path fails. Close errors are
// ignored: by then every byte has been written or the operation has already failed.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>
#include <utility>

namespace lumora2 {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      reset();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  explicit operator bool() const { return valid(); }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

// The current errno as the file system's error about `path`, for the caller to throw.
inline std::filesystem::filesystem_error fileError(const std::string& what,
                                                   const std::filesystem::path& path) {
  return std::filesystem::filesystem_error(what, path,
                                           std::error_code(errno, std::generic_category()));
}

}  // namespace lumora2
