// A small process around the engine's load path, so that tests can run a scenario in a process
// of its own: with once-per-process settings fresh, concurrently with another, or from a copied
// executable whose bundles they lay out. Each command prints one line; log lines go to stderr.
//
//   lumora2_engine_driver COMMAND ARGS… [COMMAND ARGS…]…
//     load NAME UNIT    "loaded <device>" or "nothing"
//     model-url NAME    the package path or "nothing"
//     res-url NAME EXT  the resource path or "nothing"
//     decp2             "decp2 <decp2Desc> <decp2CU>" or "nothing"
#include <cstdio>
#include <string>

#include "compute_unit_choice.h"
#include "engine/lumora2_engine.h"
#include "model_cache.h"
#include "model_resolution.h"

using lumora2::ComputeUnitChoice;
using lumora2::Lumora2Engine;
using lumora2::ModelCache;
using lumora2::ModelResolution;

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string command = argv[i];
    auto next = [&] { return std::string(i + 1 < argc ? argv[++i] : ""); };
    auto path = [](const auto& p) { return p ? p->string() : std::string("nothing"); };
    std::string line = "unknown command " + command, name = command == "decp2" ? "" : next();
    if (command == "load") {
      auto model = ModelCache::load(name, ComputeUnitChoice::cuFromName(next()));
      line = model ? "loaded " + model->deviceName() : "nothing";
    } else if (command == "model-url") {
      line = path(ModelResolution::modelURL(name));
    } else if (command == "res-url") {
      line = path(ModelResolution::resURL(name, next()));
    } else if (command == "decp2") {
      auto engine = Lumora2Engine::create();
      bool loaded = engine->loadDecp2() != nullptr;
      line = loaded ? "decp2 " + *engine->decp2Description() + " " + *engine->decp2UnitInUse()
                    : "nothing";
    }
    std::printf("%s\n", line.c_str());
  }
  return 0;
}
