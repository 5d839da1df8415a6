#include "container/member_names.h"

#include <utf8proc.h>

#include <cstdlib>
#include <memory>

namespace lumora2 {

bool isValidUtf8(std::string_view bytes) {
  const auto* p = reinterpret_cast<const utf8proc_uint8_t*>(bytes.data());
  auto left = static_cast<utf8proc_ssize_t>(bytes.size());
  while (left > 0) {
    utf8proc_int32_t cp = 0;
    utf8proc_ssize_t n = utf8proc_iterate(p, left, &cp);
    if (n <= 0 || cp < 0) return false;
    p += n;
    left -= n;
  }
  return true;
}

std::string nfc(std::string_view utf8) {
  // Pure ASCII is already in NFC; most member names are, and this keeps sorting cheap.
  bool ascii = true;
  for (unsigned char c : utf8) ascii = ascii && c < 0x80;
  if (ascii || !isValidUtf8(utf8)) return std::string(utf8);
  utf8proc_uint8_t* out = nullptr;
  utf8proc_ssize_t n =
      utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(utf8.data()),
                   static_cast<utf8proc_ssize_t>(utf8.size()), &out,
                   static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE));
  if (n < 0 || out == nullptr) return std::string(utf8);
  std::unique_ptr<utf8proc_uint8_t, decltype(&std::free)> owned(out, &std::free);
  return std::string(reinterpret_cast<const char*>(out), static_cast<std::size_t>(n));
}

bool sameMemberName(std::string_view a, std::string_view b) { return a == b || nfc(a) == nfc(b); }

bool memberNameLess(std::string_view a, std::string_view b) { return nfc(a) < nfc(b); }

}  // namespace lumora2
