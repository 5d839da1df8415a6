// What the HTTP front's parts share: Beast's names, the API's refusal (ApiError) and the two ways
// an answer is made (a JSON body, or the one-line JSON error). Included by the server's Beast
// translation units only.
#pragma once

#include <boost/asio.hpp>
#include <boost/beast.hpp>
#include <boost/beast/websocket.hpp>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace lumora2::serve {

namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
namespace net = boost::asio;
using tcp = net::ip::tcp;
using Request = http::request<http::string_body>;
using Response = http::response<http::string_body>;

// A request the API refuses: its status, one line for the client and, for programs, a reason
// word (empty when the status says all).
struct ApiError {
  http::status status;
  std::string message;
  std::string reason = {};
};

// JSON text of what the server writes: client-given bytes it quotes (an unknown field's name, a
// text that is not UTF-8) are replaced rather than refused, so that writing an answer never fails.
std::string jsonText(const nlohmann::json& value);

Response jsonResponse(const Request& req, http::status status, const nlohmann::json& body);
// `{"error": message[, "reason": reason]}`; a 503 also says when to come back (Retry-After).
Response errorResponse(unsigned version, bool keepAlive, http::status status,
                       const std::string& message, const std::string& reason = {});
Response noContent(const Request& req);

// The path without its query, split at '/'.
std::vector<std::string> pathParts(std::string_view target);
// The value of `key` in the target's query ("" when absent).
std::string queryValue(std::string_view target, std::string_view key);

}  // namespace lumora2::serve
