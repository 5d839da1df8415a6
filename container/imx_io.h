// File-descriptor plumbing shared by the IMX reader and unpack: an owning descriptor, positioned
// reads that report end of file by a short count, and the table-of-contents parser both use.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "container/imx.h"

namespace lumora2::imx {

// An owned file descriptor, closed on destruction; close errors are ignored because nothing
// written through a read handle can be lost, and write handles are checked by their writes.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(other.release()) {}
  Fd& operator=(Fd&& other) noexcept;
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() { reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void reset(int fd = -1);

 private:
  int fd_ = -1;
};

// Throws the file system's error for `err` (an errno value) about `path`.
[[noreturn]] void throwFsError(const std::string& what, const std::filesystem::path& path, int err);

// Opens a file for reading; failure throws the file system's error.
Fd openForReading(const std::filesystem::path& path);

// The file's size in bytes as the system reports it (0 for things that are not regular files).
std::uint64_t fileSize(int fd, const std::filesystem::path& path);

// Reads up to `n` bytes at `offset`, retrying short reads, and returns how many arrived: fewer
// than `n` only at the end of the file. An offset past what the system can address reads nothing.
// Read errors throw the file system's error.
std::size_t readAt(int fd, void* buf, std::size_t n, std::uint64_t offset,
                   const std::filesystem::path& path);

// The table of contents of the container open on `fd`, whose path (as shown in errors) is
// `path`. Throws the reader's errors for a bad header, a short table or a non-UTF-8 name.
std::vector<Member> readTable(int fd, const std::filesystem::path& path);

}  // namespace lumora2::imx
