// Who may call lumora2-serve, judged from a request's headers alone (no sockets here, so that the
// rules are tested as a table): the Host header must name this server, so that a page on another
// name resolved to this address (DNS rebinding) is refused; a browser page on another origin may
// change nothing unless the operator allowed its origin; and bodies come in the content types the
// API documents, never in the ones a cross-site form may send without asking first.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace lumora2::serve {

struct CallerRules {
  // Host names (--allow-host) besides IP literals and "localhost", lower case, without a port;
  // "*" takes any.
  std::vector<std::string> hosts;
  // Page origins (--allow-origin, "scheme://host[:port]") that may call besides the server's own
  // pages; "*" takes any.
  std::vector<std::string> origins;
};

// Whether a Host header ("name[:port]", "[v6]:port") names this server.
bool hostAllowed(std::string_view host, const CallerRules& rules);

// What the Origin header of a request says about its caller.
enum class OriginVerdict {
  none,        // no Origin header: not a browser page (curl, a program)
  sameOrigin,  // a page this server served (its host and port are the request's Host)
  allowed,     // a page of an origin the operator allowed
  refused,     // a page of another origin
};
OriginVerdict judgeOrigin(std::string_view origin, std::string_view host, const CallerRules& rules);

// Content types, without their parameters and case-insensitively.
bool isContentType(std::string_view header, std::string_view type);
// text/plain, multipart/form-data and application/x-www-form-urlencoded: what a page of any origin
// may post without the browser asking first.
bool isFormType(std::string_view header);

// Compares a given secret with the expected one in time that depends on the expected one's length
// only.
bool sameSecret(std::string_view given, std::string_view expected);

}  // namespace lumora2::serve
