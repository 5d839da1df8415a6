// What the lumora2-serve process tests share: a real server process on 127.0.0.1 over the
// generated reference family, HTTP calls to it, its audio WebSocket, and test speech.
#pragma once

#include <sys/types.h>

#include <boost/asio.hpp>
#include <boost/beast.hpp>
#include <boost/beast/websocket.hpp>
#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "family_fixture.h"

namespace lumora2::family::test {

// An address-sanitized server keeps freed memory in quarantine and shadows every byte: its
// resident memory says nothing about the server's own use, and memory bounds are not checked.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kAddressSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
inline constexpr bool kAddressSanitized = true;
#else
inline constexpr bool kAddressSanitized = false;
#endif
#else
inline constexpr bool kAddressSanitized = false;
#endif

namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
namespace net = boost::asio;
using tcp = net::ip::tcp;
using Clock = std::chrono::steady_clock;
using WebSocket = websocket::stream<beast::tcp_stream>;

struct Reply {
  int status = 0;  // 0: no answer
  std::string body;
  std::map<std::string, std::string> headers;
  nlohmann::json json() const { return nlohmann::json::parse(body, nullptr, false); }
  std::string header(const std::string& name) const;
};

// One running lumora2-serve; ended with SIGTERM (or killed, should that fail) on destruction.
// `extra` are more arguments, `tmp` its TMPDIR, `env` more environment.
class Server {
 public:
  explicit Server(const std::vector<std::string>& extra, const std::filesystem::path& tmp = {},
                  const std::vector<std::string>& env = {},
                  const std::filesystem::path& family = generatedFamily().root);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // The exit status, or -1 when it has not exited within `limit`.
  int waitFor(std::chrono::seconds limit);
  pid_t pid() const { return pid_; }
  unsigned short port() const { return port_; }
  // The first line the server printed.
  const std::string& banner() const { return banner_; }

  // One request on a connection of its own; `Host: 127.0.0.1` unless `headers` name another.
  Reply call(http::verb method, const std::string& target, const std::string& body = "",
             const std::map<std::string, std::string>& headers = {}) const;
  Reply postJson(const std::string& target, const nlohmann::json& body) const;
  // Creates a session and waits until its child is ready; its status JSON.
  nlohmann::json readySession(const std::string& avatar) const;
  // The session's status, polled until `done` says so or `limit` passes; the last one.
  nlohmann::json awaitStatus(const std::string& id,
                             const std::function<bool(const nlohmann::json&)>& done,
                             std::chrono::seconds limit = std::chrono::seconds(20)) const;
  // The session's audio WebSocket, open.
  std::unique_ptr<WebSocket> audioSocket(net::io_context& io, const std::string& id) const;
  // Peak resident memory of the server process, in KiB.
  long peakKiB() const;

 private:
  pid_t pid_ = -1;
  int out_ = -1;
  unsigned short port_ = 0;
  std::string banner_;
};

bool alive(pid_t pid);

// A short spoken-like recording (tone bursts) as 16-bit WAV bytes, written in `dir`.
std::string speechWav(const std::filesystem::path& dir, double seconds = 2.0);

// The next text message of the socket that is not an event: the answer to a message sent.
nlohmann::json readAnswer(WebSocket& ws);

}  // namespace lumora2::family::test
