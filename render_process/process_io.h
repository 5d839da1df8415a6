// The render process's standard streams and signals, as render-stream and render-sessions use
// them: whole lines on standard error, exact reads from standard input, whole writes to standard
// output, and the terminating signals one thread takes.
#pragma once

#include <signal.h>

#include <cstddef>
#include <string>

namespace lumora2 {

// One line on standard error in one write, so that it never interleaves with the engine's log.
void stderrLine(const std::string& text);
// Reads exactly `size` bytes; false when standard input ends (or fails) first.
bool readExactly(void* into, std::size_t size);
// Writes all of it; false when standard output has gone away.
bool writeAll(const void* from, std::size_t size);
// SIGTERM, SIGINT and SIGHUP: blocked in every thread of the process (threads inherit the mask of
// the thread that creates them, so the commands block them before the engine makes any) and
// taken by one thread with sigwait.
sigset_t terminatingSignals();

}  // namespace lumora2
