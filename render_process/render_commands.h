// The render host's command handlers, installed over lumora2-model's argument checks
// (host/render_host.h). Arguments arrive already checked.
#pragma once

#include "host/command.h"

namespace lumora2 {

// validate <X.avatar> --engine vivra.model [--min-sharp F] [--onset-ratio R]
int renderValidate(const Positionals& positionals, const Options& options);
// render-stream <X.avatar> --engine <vivra.model>
int renderStream(const Positionals& positionals, const Options& options);
// lumora2-model-render render-sessions --engine <vivra.model>: the whole command line (argv[1] is
// "render-sessions"), run by the render host's main itself; lumora2-model does not hand it over.
int renderSessionsMain(int argc, char** argv);

}  // namespace lumora2
