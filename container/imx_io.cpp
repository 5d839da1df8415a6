#include "imx_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <limits>
#include <system_error>

namespace lumora2::imx {

void throwFsError(const std::string& what, const std::filesystem::path& path, int err) {
  throw std::filesystem::filesystem_error(what, path, std::error_code(err, std::system_category()));
}

UniqueFd openForReading(const std::filesystem::path& path) {
  int fd;
  do {
    fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) throwFsError("cannot open", path, errno);
  return UniqueFd(fd);
}

std::uint64_t fileSize(int fd, const std::filesystem::path& path) {
  struct stat st {};
  if (::fstat(fd, &st) != 0) throwFsError("cannot stat", path, errno);
  if (!S_ISREG(st.st_mode) || st.st_size < 0) return 0;
  return static_cast<std::uint64_t>(st.st_size);
}

std::size_t readAt(int fd, void* buf, std::size_t n, std::uint64_t offset,
                   const std::filesystem::path& path) {
  constexpr auto kMaxOffset = static_cast<std::uint64_t>(std::numeric_limits<off_t>::max());
  if (offset >= kMaxOffset) return 0;
  if (n > kMaxOffset - offset) n = static_cast<std::size_t>(kMaxOffset - offset);
  auto* out = static_cast<char*>(buf);
  std::size_t got = 0;
  while (got < n) {
    ssize_t r = ::pread(fd, out + got, n - got, static_cast<off_t>(offset + got));
    if (r < 0) {
      if (errno == EINTR) continue;
      throwFsError("cannot read", path, errno);
    }
    if (r == 0) break;
    got += static_cast<std::size_t>(r);
  }
  return got;
}

}  // namespace lumora2::imx
