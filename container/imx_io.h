// File-descriptor plumbing shared by the IMX reader and unpack: positioned
// reads that report end of file by a short count, and the table-of-contents parser both use.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "container/imx.h"
#include "unique_fd.h"

namespace lumora2::imx {

// Throws the file system's error for `err` (an errno value) about `path`.
[[noreturn]] void throwFsError(const std::string& what, const std::filesystem::path& path, int err);

// Opens a file for reading; failure throws the file system's error.
UniqueFd openForReading(const std::filesystem::path& path);

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
