// The engine's logging call: every message is one whole line on standard error.
#pragma once

#include <string>
#include <string_view>

namespace lumora2 {

// The line `engineLog` writes for `text`: an ISO 8601 local time with milliseconds and UTC
// offset, a blank, "lumora2-model[<pid>]", a blank, the text, a line feed.
std::string formatLogLine(std::string_view text);

// Writes formatLogLine(text) to standard error with one write(2), so that lines from concurrent
// threads and from several processes sharing one stderr never interleave. Never throws; a line
// that cannot be written is lost.
void engineLog(std::string_view text) noexcept;

}  // namespace lumora2
