#include "host/render_host.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <system_error>

#include "host/entry.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;

constexpr const char* kRenderHostName = "lumora2-model-render";

RenderHandlers& installed() {
  static RenderHandlers handlers;
  return handlers;
}

}  // namespace

void installRenderHandlers(RenderHandlers handlers) { installed() = handlers; }

const RenderHandlers& renderHandlers() { return installed(); }

std::vector<fs::path> renderHostCandidates() {
  std::error_code ec;
  const fs::path self = fs::read_symlink("/proc/self/exe", ec);
  if (ec) return {};
  const fs::path dir = self.parent_path();
  return {dir / kRenderHostName, dir.parent_path() / "libexec" / "lumora2-model" / kRenderHostName};
}

void execRenderHost() {
  // OpenMP threads that wait by spinning take the cores from every other render process on the
  // machine (four renders at once took 2.6 times as long as with passive waiting, one alone no
  // less). The OpenMP runtime reads its settings when it is loaded, before main, so the render
  // host gets them in its environment; a setting of the user's stays.
  ::setenv("OMP_WAIT_POLICY", "PASSIVE", 0);
  const std::vector<std::string>& arguments = processArguments();
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (const std::string& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  std::cout.flush();
  std::string looked;
  int lastError = ENOENT;
  for (const fs::path& candidate : renderHostCandidates()) {
    ::execv(candidate.c_str(), argv.data());
    lastError = errno;  // execv returns only on failure
    looked += looked.empty() ? "" : " or ";
    looked += candidate.string();
  }
  if (looked.empty()) looked = "(the running executable's directory is unknown)";
  throw Err("rendering needs " + std::string(kRenderHostName) +
            ", the part of lumora2-model that links the engine, and it could not be started: " +
            std::strerror(lastError) + " (looked for " + looked + ")");
}

}  // namespace lumora2
