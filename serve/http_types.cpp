#include "http_types.h"

#include <algorithm>

namespace lumora2::serve {

std::string jsonText(const nlohmann::json& value) {
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

Response jsonResponse(const Request& req, http::status status, const nlohmann::json& body) {
  Response res{status, req.version()};
  res.set(http::field::content_type, "application/json");
  res.set(http::field::cache_control, "no-store");
  res.keep_alive(req.keep_alive());
  res.body() = jsonText(body) + "\n";
  res.prepare_payload();
  return res;
}

Response errorResponse(unsigned version, bool keepAlive, http::status status,
                       const std::string& message, const std::string& reason) {
  Response res{status, version};
  res.set(http::field::content_type, "application/json");
  res.set(http::field::cache_control, "no-store");
  if (status == http::status::service_unavailable) res.set(http::field::retry_after, "5");
  res.keep_alive(keepAlive);
  nlohmann::json body{{"error", message}};
  if (!reason.empty()) body["reason"] = reason;
  res.body() = jsonText(body) + "\n";
  res.prepare_payload();
  return res;
}

Response noContent(const Request& req) {
  Response res{http::status::no_content, req.version()};
  res.keep_alive(req.keep_alive());
  res.prepare_payload();
  return res;
}

std::vector<std::string> pathParts(std::string_view target) {
  target = target.substr(0, target.find('?'));
  std::vector<std::string> parts;
  std::size_t at = 0;
  while (at < target.size()) {
    if (target[at] == '/') {
      ++at;
      continue;
    }
    const std::size_t end = std::min(target.find('/', at), target.size());
    parts.emplace_back(target.substr(at, end - at));
    at = end;
  }
  return parts;
}

std::string queryValue(std::string_view target, std::string_view key) {
  const std::size_t q = target.find('?');
  if (q == std::string_view::npos) return "";
  std::string_view query = target.substr(q + 1);
  while (!query.empty()) {
    const std::size_t amp = query.find('&');
    const std::string_view pair = query.substr(0, amp);
    const std::size_t eq = pair.find('=');
    if (eq != std::string_view::npos && pair.substr(0, eq) == key) {
      return std::string(pair.substr(eq + 1));
    }
    if (amp == std::string_view::npos) break;
    query = query.substr(amp + 1);
  }
  return "";
}

}  // namespace lumora2::serve
