// The render host's command handlers, installed over lumora2-model's argument checks
// (host/render_host.h). Arguments arrive already checked.
#pragma once

#include "host/command.h"

namespace lumora2 {

// validate <X.avatar> --engine vivra.model [--min-sharp F] [--onset-ratio R]
int renderValidate(const Positionals& positionals, const Options& options);
// render-stream <X.avatar> --engine <vivra.model>
int renderStream(const Positionals& positionals, const Options& options);

}  // namespace lumora2
