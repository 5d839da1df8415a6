#include "output_path.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "client/client_error.h"

namespace lumora2::render {

void checkOutputPath(const std::filesystem::path& output, const std::vector<NamedInput>& inputs) {
  const std::string name = output.string();
  if (!output.has_filename()) throw ClientError("the output " + name + " names no file");
  struct stat target {};
  if (::stat(output.c_str(), &target) == 0) {
    for (const NamedInput& input : inputs) {
      struct stat in {};
      if (::stat(input.path.c_str(), &in) == 0 && in.st_dev == target.st_dev &&
          in.st_ino == target.st_ino) {
        throw ClientError("the output " + name + " is the " + input.role + " file " +
                          input.path.string() + "; choose another output");
      }
    }
    if (S_ISDIR(target.st_mode)) throw ClientError("the output " + name + " is a directory");
    if (!S_ISREG(target.st_mode)) {
      throw ClientError("the output " + name + " exists and is not a regular file");
    }
  } else if (errno != ENOENT && errno != ENOTDIR) {
    throw ClientError("cannot use the output " + name + ": " + std::strerror(errno));
  }

  const std::filesystem::path dir = output.has_parent_path() ? output.parent_path() : ".";
  struct stat parent {};
  if (::stat(dir.c_str(), &parent) != 0) {
    throw ClientError("the output's directory " + dir.string() + " " +
                      (errno == ENOENT ? std::string("does not exist") : std::strerror(errno)));
  }
  if (!S_ISDIR(parent.st_mode)) {
    throw ClientError("the output's directory " + dir.string() + " is not a directory");
  }
  if (::access(dir.c_str(), W_OK | X_OK) != 0) {
    throw ClientError("the output's directory " + dir.string() +
                      " is not writable: " + std::strerror(errno));
  }
}

}  // namespace lumora2::render
