// The HTTP and WebSocket front of lumora2-serve (docs/SERVE.md): the page, the avatars, the
// sessions and their WHEP, speech, text and streamed-audio endpoints, and the operations
// endpoints (/healthz, /readyz, /metrics), on Boost.Beast. Every request
// is bounded: header and body sizes per endpoint, the time a client may take to send a request, and
// the time an idle connection stays open. A request that fails gets a 4xx or 5xx status with a
// one-line JSON error; the server goes on serving.
#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>

#include "catalog.h"
#include "server_metrics.h"
#include "session_registry.h"

namespace lumora2::serve {

struct Limits {
  std::size_t headerBytes = 8 * 1024;
  std::size_t jsonBodyBytes = 16 * 1024;
  std::size_t sdpBytes = 64 * 1024;
  std::size_t speechBytes = 32 * 1024 * 1024;
  double speechSeconds = 600;        // a posted recording may last this long
  std::size_t sayChars = 5000;       // characters of text to speak, per request
  std::size_t sayBytes = 64 * 1024;  // its JSON body (escapes included)
  std::size_t webSocketMessageBytes = 1024 * 1024;
  std::chrono::seconds requestTime{15};     // to send a whole request
  std::chrono::seconds idleConnection{30};  // between requests on a kept-alive connection
  std::chrono::seconds idleWebSocket{60};   // without a message or a pong
  std::size_t connections = 256;
};

struct ServerConfig {
  std::string address = "127.0.0.1";
  unsigned short port = 8080;
  std::string token;  // empty: no authorisation asked for
  Limits limits;
  int threads = 4;
  std::filesystem::path scratch;  // where posted recordings are decoded from
};

class HttpServer {
 public:
  // Binds and listens; throws std::runtime_error when the address cannot be had.
  HttpServer(ServerConfig config, const Catalog& catalog, SessionRegistry& sessions,
             const ServerMetrics& metrics);
  ~HttpServer();
  unsigned short port() const;
  void run();   // starts the threads; returns at once
  void stop();  // stops accepting and closes every connection; joins the threads

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace lumora2::serve
