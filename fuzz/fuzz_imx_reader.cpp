// libFuzzer target for the IMX reader. Each input is written to a file and parsed, its manifest
// read, and unpacked into a scratch directory that already holds symbolic links pointing out of
// it. The reader may refuse the input with its own errors or the file system's, but it must never
// crash, and nothing outside the scratch directory may change: the process aborts if it does.
#include <fcntl.h>
#include <stdlib.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

#include "imx_tree.h"
#include "container/imx.h"
#include "container/platform.h"

namespace {

namespace fs = std::filesystem;

// A private root under the system temporary directory:
//   input.imx   the container under test
//   outside/    a directory the links below point at; must never change
//   out/        the destination, rebuilt for every input with links leading out of it
class Sandbox {
 public:
  Sandbox() {
    std::string templ = (lumora2::systemTempDir() / "lumora2-fuzz-imx-XXXXXX").string();
    if (::mkdtemp(templ.data()) == nullptr) std::abort();
    root_ = templ;
    fs::create_directories(root_ / "outside/sub");
    std::ofstream(root_ / "outside/keep") << "keep";
  }
  ~Sandbox() { remove(root_); }

  const fs::path& root() const { return root_; }
  fs::path input() const { return root_ / "input.imx"; }
  fs::path out() const { return root_ / "out"; }

  void prepare(const std::uint8_t* data, std::size_t size) {
    std::ofstream(input(), std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    remove(out());
    fs::create_directories(out() / "real");
    fs::create_symlink(root_ / "outside", out() / "link");
    fs::create_symlink(root_ / "outside/keep", out() / "file-link");
    fs::create_symlink(root_, out() / "real/up");
    fs::create_symlink("../..", out() / "real/dotdot");
  }

  // Everything below the root except the destination's contents, with sizes and link targets.
  std::vector<std::string> listing() const {
    std::vector<std::string> entries;
    for (auto it = fs::recursive_directory_iterator(root_); it != fs::end(it); ++it) {
      std::string line = it->path().string();
      if (it->is_symlink()) {
        line += " -> " + fs::read_symlink(it->path()).string();
      } else if (it->is_directory()) {
        line += "/";
        if (it->path() == out()) it.disable_recursion_pending();
      } else {
        line += " " + std::to_string(it->file_size());
      }
      entries.push_back(line);
    }
    std::sort(entries.begin(), entries.end());
    return entries;
  }

  void remove(const fs::path& path) {
    try {
      lumora2::imx::removeTreeAt(AT_FDCWD, path.string(), path);
    } catch (const std::exception& e) {
      std::fprintf(stderr, "cannot clean %s: %s\n", path.c_str(), e.what());
      std::abort();
    }
  }

 private:
  fs::path root_;
};

template <typename F>
void tolerate(F&& f) {
  try {
    f();
  } catch (const lumora2::Lumora2ContainerError&) {
  } catch (const std::system_error&) {  // filesystem_error derives from it
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Sandbox sandbox;
  sandbox.prepare(data, size);
  const std::vector<std::string> before = sandbox.listing();

  tolerate([&] { lumora2::Lumora2Container::members(sandbox.input()); });
  tolerate([&] { lumora2::Lumora2Container::readManifest(sandbox.input()); });
  tolerate([&] { lumora2::Lumora2Container::unpack(sandbox.input(), sandbox.out()); });

  if (sandbox.listing() != before) {
    std::fprintf(stderr, "unpack changed something outside its destination\n");
    std::abort();
  }
  return 0;
}
