// The command functions of lumora2-model. Each takes the positional arguments and the options
// that parseArgs produced, writes its report on standard output and returns the process's exit
// status (ExitStatus); it throws Err (or another std::exception) on failure, and the entry point
// prints "error: " + the description and exits 1.
#pragma once

#include "host/command.h"

namespace lumora2 {

// pack-engine <dir> -o vivra.model [--abi N]
int cmdPackEngine(const Positionals& positionals, const Options& options);
// pack-avatar <dir> --code C --name N --gender g --persona P -o X.avatar [--abi N]
int cmdPackAvatar(const Positionals& positionals, const Options& options);
// unpack <file.model|file.avatar> <dir> [--no-verify]; kExitChecksumProblems when members are
// missing or do not match their declared SHA-256.
int cmdUnpack(const Positionals& positionals, const Options& options);
// info <file.model|file.avatar> [--verify]
int cmdInfo(const Positionals& positionals, const Options& options);
// fold <in.model|in.avatar> -o <out.imx> [--abi N]
int cmdFold(const Positionals& positionals, const Options& options);
// validate <X.avatar> --engine vivra.model [--min-sharp F] [--onset-ratio R]
int cmdValidate(const Positionals& positionals, const Options& options);
// render-stream <X.avatar> --engine <vivra.model>
int cmdRenderStream(const Positionals& positionals, const Options& options);

}  // namespace lumora2
