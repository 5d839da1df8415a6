#include "request_checks.h"

#include <openssl/crypto.h>

#include <arpa/inet.h>
#include <algorithm>
#include <cctype>

namespace lumora2::serve {
namespace {

std::string lower(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return char(std::tolower(c)); });
  return out;
}

bool digits(std::string_view text) {
  return !text.empty() && text.size() <= 5 &&
         std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); });
}

// "name[:port]" or "[v6][:port]" split into the name (brackets kept off) and the port ("" when
// none); false when it is neither.
bool splitAuthority(std::string_view authority, std::string& name, std::string& port) {
  if (authority.empty()) return false;
  if (authority.front() == '[') {
    const std::size_t close = authority.find(']');
    if (close == std::string_view::npos) return false;
    name = std::string(authority.substr(1, close - 1));
    const std::string_view rest = authority.substr(close + 1);
    if (rest.empty()) {
      port.clear();
      return true;
    }
    if (rest.front() != ':' || !digits(rest.substr(1))) return false;
    port = std::string(rest.substr(1));
    return true;
  }
  const std::size_t colon = authority.find(':');
  if (colon != std::string_view::npos && authority.find(':', colon + 1) != std::string_view::npos) {
    return false;  // a bare IPv6 address: not a valid authority
  }
  name = lower(authority.substr(0, colon));
  port = colon == std::string_view::npos ? "" : std::string(authority.substr(colon + 1));
  if (colon != std::string_view::npos && !digits(port)) return false;
  return !name.empty();
}

bool ipLiteral(const std::string& name) {
  unsigned char address[16];
  return inet_pton(AF_INET, name.c_str(), address) == 1 ||
         inet_pton(AF_INET6, name.c_str(), address) == 1;
}

std::string_view mediaType(std::string_view header) {
  const std::size_t semicolon = header.find(';');
  std::string_view type = header.substr(0, semicolon);
  while (!type.empty() && std::isspace(static_cast<unsigned char>(type.back()))) {
    type.remove_suffix(1);
  }
  while (!type.empty() && std::isspace(static_cast<unsigned char>(type.front()))) {
    type.remove_prefix(1);
  }
  return type;
}

}  // namespace

bool hostAllowed(std::string_view host, const CallerRules& rules) {
  std::string name, port;
  if (!splitAuthority(host, name, port)) return false;
  if (ipLiteral(name) || name == "localhost") return true;
  return std::any_of(rules.hosts.begin(), rules.hosts.end(),
                     [&](const std::string& h) { return h == "*" || lower(h) == name; });
}

OriginVerdict judgeOrigin(std::string_view origin, std::string_view host,
                          const CallerRules& rules) {
  if (origin.empty()) return OriginVerdict::none;
  const std::string given = lower(origin);
  for (const std::string& allowed : rules.origins) {
    if (allowed == "*" || lower(allowed) == given) return OriginVerdict::allowed;
  }
  // "null" (a sandboxed frame, a file) and anything that is not scheme://authority is no page of
  // this server.
  const std::size_t scheme = given.find("://");
  if (scheme == std::string::npos) return OriginVerdict::refused;
  const std::string kind = given.substr(0, scheme);
  if (kind != "http" && kind != "https") return OriginVerdict::refused;
  std::string originName, originPort, hostName, hostPort;
  if (!splitAuthority(std::string_view(given).substr(scheme + 3), originName, originPort) ||
      !splitAuthority(host, hostName, hostPort)) {
    return OriginVerdict::refused;
  }
  // A default port may be written or left out on either side.
  const std::string fallback = kind == "https" ? "443" : "80";
  if (originPort.empty()) originPort = fallback;
  if (hostPort.empty()) hostPort = fallback;
  return originName == hostName && originPort == hostPort ? OriginVerdict::sameOrigin
                                                          : OriginVerdict::refused;
}

bool isContentType(std::string_view header, std::string_view type) {
  return lower(mediaType(header)) == lower(type);
}

bool isFormType(std::string_view header) {
  const std::string type = lower(mediaType(header));
  return type == "text/plain" || type == "multipart/form-data" ||
         type == "application/x-www-form-urlencoded";
}

bool sameSecret(std::string_view given, std::string_view expected) {
  std::string padded(given.substr(0, expected.size()));
  padded.resize(expected.size(), '\0');
  return CRYPTO_memcmp(padded.data(), expected.data(), expected.size()) == 0 &&
         given.size() == expected.size();
}

}  // namespace lumora2::serve
