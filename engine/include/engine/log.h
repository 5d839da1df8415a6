// The engine's logging call: every message is one whole line on standard error.
#pragma once

#include <string>
#include <string_view>

namespace lumora2 {

// The line `engineLog` writes for `text`: an ISO 8601 local time with milliseconds and UTC
// offset, a blank, "<program>[<pid>]", a blank, the text, a line feed. The program is
// "lumora2-model" (the render commands are its own) unless a process says otherwise.
std::string formatLogLine(std::string_view text);

// Writes formatLogLine(text) to the log's destination (standard error unless a process chose
// another) with one write(2), so that lines from concurrent threads and from several processes
// sharing one file never interleave. Never throws; a line that cannot be written is lost.
void engineLog(std::string_view text) noexcept;

// For processes other than lumora2-model that use engine parts (the idle clip): the name their
// lines carry, and where they go: an open file descriptor the process keeps open, or -1 for
// nowhere. Set both before any thread logs.
void setEngineLogProgram(std::string_view name);
void setEngineLogDestination(int fd);

}  // namespace lumora2
