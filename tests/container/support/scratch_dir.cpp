#include "scratch_dir.h"

#include <fcntl.h>
#include <stdlib.h>

#include <algorithm>
#include <fstream>
#include <system_error>

#include "container/platform.h"
#include "imx_tree.h"

namespace lumora2::test {

namespace fs = std::filesystem;

ScratchDir::ScratchDir(std::string_view prefix) {
  std::string templ = (systemTempDir() / (std::string(prefix) + "-XXXXXX")).string();
  if (::mkdtemp(templ.data()) == nullptr) {
    throw std::system_error(errno, std::system_category(), "mkdtemp " + templ);
  }
  path_ = templ;
}

ScratchDir::~ScratchDir() {
  try {
    imx::removeTreeAt(AT_FDCWD, path_.string(), path_);
  } catch (const std::exception&) {  // leave it behind rather than fail the test
  }
}

fs::path ScratchDir::write(const fs::path& relative, std::string_view bytes) const {
  fs::path file = path_ / relative;
  fs::create_directories(file.parent_path());
  writeBytes(file, bytes);
  return file;
}

std::string readBytes(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in)
    throw fs::filesystem_error("cannot open", file, std::make_error_code(std::errc::io_error));
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void writeBytes(const fs::path& file, std::string_view bytes) {
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!out)
    throw fs::filesystem_error("cannot write", file, std::make_error_code(std::errc::io_error));
}

std::vector<std::string> listTree(const fs::path& root) {
  std::vector<std::string> out;
  for (auto it = fs::recursive_directory_iterator(root); it != fs::end(it); ++it) {
    const std::string rel = it->path().lexically_relative(root).generic_string();
    if (it->is_symlink()) {
      out.push_back(rel + " -> " + fs::read_symlink(it->path()).string());
    } else if (it->is_directory()) {
      out.push_back(rel + "/");
    } else {
      out.push_back(rel + " (" + std::to_string(it->file_size()) + " bytes)");
    }
  }
  std::sort(out.begin(), out.end());
  return out;
}

}  // namespace lumora2::test
