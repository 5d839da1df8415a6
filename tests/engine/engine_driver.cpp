// A small process around the engine's load path, so that tests can run a scenario in a process
// of its own, concurrently with another. Each command prints one line; log lines go to stderr.
//
//   lumora2_engine_driver load NAME UNIT [load NAME UNIT]…
//     prints "loaded <device>" or "nothing" for each
#include <cstdio>
#include <string>

#include "compute_unit_choice.h"
#include "engine/engine_settings.h"
#include "model_cache.h"

int main(int argc, char** argv) {
  const lumora2::ModelCache cache(lumora2::EngineSettings::fromEnvironment());
  for (int i = 1; i < argc; i += 3) {
    const std::string command = argv[i];
    if (command != "load" || i + 2 >= argc) {
      std::printf("unknown command %s\n", command.c_str());
      continue;
    }
    auto model = cache.load(argv[i + 1], lumora2::ComputeUnitChoice::cuFromName(argv[i + 2]));
    std::printf("%s\n", model ? ("loaded " + model->deviceName()).c_str() : "nothing");
  }
  return 0;
}
