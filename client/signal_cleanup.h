// What lumora2-render leaves behind when SIGINT, SIGTERM or SIGHUP ends it: nothing. The handler
// removes the partial output file and the extracted idle clip with its directory, ends the current
// render-stream child (which removes its working directory on that signal) and removes the child's
// temporary directory, then lets the signal end
// the process as it would have. Everything it touches is registered beforehand in fixed buffers,
// so the handler only makes async-signal-safe calls.
#pragma once

#include <sys/types.h>

#include <filesystem>

namespace lumora2::render::signal_cleanup {

// Installs the handler for SIGINT, SIGTERM and SIGHUP.
void install();
// The file to remove (the partial output); empty clears it.
void setPartialFile(const std::filesystem::path& path);
// The idle clip extracted from the avatar and the directory holding it; empty paths clear them.
void setIdleClip(const std::filesystem::path& file, const std::filesystem::path& dir);
// The running child and its temporary directory; pid <= 0 clears them.
void setChild(pid_t pid, const std::filesystem::path& tmpDir);

}  // namespace lumora2::render::signal_cleanup
