// How the render commands reach the engine while lumora2-model stays light. lumora2-model never
// links LibTorch: its validate and render-stream check their arguments and then replace the
// process with the render host, lumora2-model-render, which links the engine, installs the real
// handlers here and runs the same entry point with the same arguments. Exit statuses, standard
// input and output and signals are the render host's own, so the parent sees one process.
#pragma once

#include <filesystem>
#include <vector>

#include "host/command.h"

namespace lumora2 {

struct RenderHandlers {
  Handler validate = nullptr;
  Handler renderStream = nullptr;
};

// Called by the render host's main before lumora2_host_main.
void installRenderHandlers(RenderHandlers handlers);
const RenderHandlers& renderHandlers();

// Where the render host is looked for, in order: next to the running executable (the build
// tree), then ../libexec/lumora2-model/ from it (an installed layout).
std::vector<std::filesystem::path> renderHostCandidates();

// Replaces the process with the render host, passing the process's own arguments. Returns only
// by throwing Err, naming where it looked, when no render host can be started.
[[noreturn]] void execRenderHost();

}  // namespace lumora2
