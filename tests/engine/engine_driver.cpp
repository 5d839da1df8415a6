// A small process around the engine's load path, so that tests can run a scenario in a process
// of its own: with once-per-process settings fresh, concurrently with another, or from a copied
// executable whose bundles they lay out. Results go to standard output, log lines to stderr.
//
//   lumora2_engine_driver [--agent DIR] [--engine DIR] COMMAND ARGS… [+ COMMAND ARGS…]…
//     load NAME UNIT        "loaded <device>" or "nothing"
//     compiled PACKAGE KEY  the compiled directory or "nothing"
//     model-url NAME        the package path or "nothing"
//     res-url NAME EXT      the resource path or "nothing"
//     decp2                 "decp2 <decp2Desc> <decp2CU>" or "nothing"
#include <cstdio>
#include <string>
#include <vector>

#include "engine/lumora2_engine.h"

using lumora2::Lumora2Engine;

namespace {

template <class T>
int printPath(const std::optional<T>& path) {
  std::printf("%s\n", path ? path->c_str() : "nothing");
  return path ? 0 : 1;
}

// One command; 0 when it found or loaded something, 1 when not, 2 for an unknown command.
int run(const std::vector<std::string>& c) {
  auto arg = [&](std::size_t k) { return k < c.size() ? c[k] : std::string(); };
  const std::string command = arg(0);
  if (command == "load") {
    auto model = Lumora2Engine::load(arg(1), Lumora2Engine::cuFromName(arg(2)));
    std::printf("%s\n", model ? ("loaded " + model->deviceName()).c_str() : "nothing");
    return model ? 0 : 1;
  }
  if (command == "compiled") return printPath(Lumora2Engine::compiledURL(arg(1), arg(2)));
  if (command == "model-url") return printPath(Lumora2Engine::modelURL(arg(1)));
  if (command == "res-url") return printPath(Lumora2Engine::resURL(arg(1), arg(2)));
  if (command == "decp2") {
    Lumora2Engine engine;
    auto model = engine.loadDecp2();
    if (!model) {
      std::printf("nothing\n");
      return 1;
    }
    std::printf("decp2 %s %s\n", engine.decp2Description().value_or("-").c_str(),
                engine.decp2UnitInUse().value_or("-").c_str());
    return 0;
  }
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  std::size_t i = 0;
  for (; i + 1 < args.size() && args[i].rfind("--", 0) == 0; i += 2) {
    if (args[i] == "--agent") Lumora2Engine::setActiveAgentDir(args[i + 1]);
    if (args[i] == "--engine") Lumora2Engine::setEngineDir(args[i + 1]);
  }
  // Commands run in turn, separated by "+" arguments; the status is the last command's.
  int status = 2;
  while (i < args.size()) {
    std::size_t end = i;
    while (end < args.size() && args[end] != "+") ++end;
    status = run(std::vector<std::string>(args.begin() + static_cast<long>(i),
                                          args.begin() + static_cast<long>(end)));
    if (status == 2) break;
    i = end + 1;
  }
  if (status != 2) return status;
  std::fprintf(stderr, "usage: lumora2_engine_driver [--agent DIR] [--engine DIR] COMMAND…\n");
  return 2;
}
