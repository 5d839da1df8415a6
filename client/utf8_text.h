// UTF-8 to code points and back, for the text the embedded voice reads.
#pragma once

#include <utf8proc.h>

#include <string>
#include <string_view>

namespace lumora2::render {

// The code points of `text`; bytes that are not UTF-8 are skipped (checkText refuses them first).
inline std::u32string decodeUtf8(std::string_view text) {
  std::u32string out;
  const auto* p = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
  auto left = utf8proc_ssize_t(text.size());
  while (left > 0) {
    utf8proc_int32_t c = 0;
    const utf8proc_ssize_t n = utf8proc_iterate(p, left, &c);
    if (n <= 0) {
      ++p;
      --left;
      continue;
    }
    out += char32_t(c);
    p += n;
    left -= n;
  }
  return out;
}

inline std::string encodeUtf8(std::u32string_view text) {
  std::string out;
  utf8proc_uint8_t bytes[4];
  for (char32_t c : text) {
    const utf8proc_ssize_t n = utf8proc_encode_char(utf8proc_int32_t(c), bytes);
    out.append(reinterpret_cast<const char*>(bytes), std::size_t(n));
  }
  return out;
}

}  // namespace lumora2::render
