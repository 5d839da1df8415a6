// FFmpeg's text for one of its error codes, for error lines.
#pragma once

extern "C" {
#include <libavutil/error.h>
}

#include <string>

namespace lumora2::render {

inline std::string avError(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(code, text, sizeof text);
  return text;
}

}  // namespace lumora2::render
