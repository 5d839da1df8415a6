// The command functions of lumora2-model. Each takes the positional arguments and the options
// that parseArgs produced, writes its report on standard output, and throws Err (or a file-system
// error) on failure; the entry point prints "error: " + the description and exits 1.
#pragma once

#include "container/command.h"
#include "container/unpack.h"

namespace lumora2 {

// pack-engine <dir> -o vivra.model [--abi N]
void cmdPackEngine(const Positionals& positionals, const Options& options);
// pack-avatar <dir> --code C --name N --gender g --persona P -o X.avatar [--abi N]
void cmdPackAvatar(const Positionals& positionals, const Options& options);
// info <file.model|file.avatar> [--verify]
void cmdInfo(const Positionals& positionals, const Options& options);
// fold <in.model|in.avatar> -o <out.imx> [--abi N]
void cmdFold(const Positionals& positionals, const Options& options);
// validate <X.avatar> --engine vivra.model [--min-sharp F] [--onset-ratio R]
void cmdValidate(const Positionals& positionals, const Options& options);
// render-stream <X.avatar> --engine <vivra.model>
void cmdRenderStream(const Positionals& positionals, const Options& options);

}  // namespace lumora2
