#include "container/platform.h"

#include <openssl/rand.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <system_error>

namespace lumora2 {

std::filesystem::path systemTempDir() {
  const char* tmp = std::getenv("TMPDIR");
  if (tmp != nullptr && *tmp != '\0') return tmp;
  return "/tmp";
}

std::string newUUID() {
  std::array<unsigned char, 16> b{};
  if (RAND_bytes(b.data(), static_cast<int>(b.size())) != 1) {
    std::random_device rd;  // OpenSSL's generator failing is unheard of; still never reuse a name
    for (auto& byte : b) byte = static_cast<unsigned char>(rd());
  }
  b[6] = static_cast<unsigned char>((b[6] & 0x0F) | 0x40);  // version 4
  b[8] = static_cast<unsigned char>((b[8] & 0x3F) | 0x80);  // RFC 4122 variant
  char out[37];
  std::snprintf(out, sizeof out,
                "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", b[0], b[1],
                b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14],
                b[15]);
  return out;
}

void removeTreeQuietly(const std::filesystem::path& path) noexcept {
  std::error_code ec;
  std::filesystem::remove_all(path, ec);
}

ScratchDir::ScratchDir(std::string_view prefix)
    : path_(systemTempDir() / (std::string(prefix) + newUUID())) {
  std::filesystem::create_directories(path_);
}

ScratchDir::~ScratchDir() { removeTreeQuietly(path_); }

}  // namespace lumora2
