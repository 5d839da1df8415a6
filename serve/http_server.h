// The HTTP and WebSocket front of lumora2-serve (docs/SERVE.md): the page, the avatars, the
// sessions and their WHEP, speech, text and streamed-audio endpoints, and the operations
// endpoints (/healthz, /readyz, /metrics), on Boost.Beast.
//
// What one client can cost is bounded: header and body sizes per endpoint, the time to send a
// request and between requests, connections per client address and in all, WebSockets per
// session, and requests waiting for a worker. The I/O threads only read, route and write: work
// that may take long (synthesis, decoding, WebRTC negotiation) runs on worker threads, so that the
// health and readiness probes answer at once whatever the sessions do; when every connection is
// taken, a reserve still answers the probes (and 503 to everything else). A request that fails gets
// a 4xx or 5xx status with a one-line JSON error; the server goes on serving.
#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>

#include "catalog.h"
#include "ice_servers.h"
#include "request_checks.h"
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
  std::chrono::seconds headerTime{5};      // to send a request's header
  std::chrono::seconds requestTime{15};    // to send a whole request
  std::chrono::seconds idleConnection{5};  // between requests on a kept-alive connection
  std::chrono::seconds idleWebSocket{60};  // without a message or a pong
  std::size_t connections = 256;           // at once, WebSockets included
  std::size_t connectionsPerAddress = 64;  // from one client address
  std::size_t probeReserve = 32;           // beyond those: probes only, 503 for the rest
  std::size_t streamsPerSession = 4;       // audio sockets and event streams of one session
  std::size_t workers = 8;                 // threads for the calls that may take long
  std::size_t pendingCalls = 64;           // such calls running or waiting; 503 beyond
};

struct ServerConfig {
  std::string address = "127.0.0.1";
  unsigned short port = 8080;
  std::string token;  // empty: no authorisation asked for
  CallerRules callers;
  Limits limits;
  int threads = 4;                // I/O threads
  std::filesystem::path scratch;  // where posted recordings are decoded from
  // The STUN and TURN servers browsers are told of (with credentials for each viewer).
  std::shared_ptr<const IceConfig> ice = std::make_shared<IceConfig>();
};

class HttpServer {
 public:
  // Binds and listens; throws std::runtime_error when the address cannot be had.
  HttpServer(ServerConfig config, const Catalog& catalog, SessionRegistry& sessions,
             const ServerMetrics& metrics);
  ~HttpServer();
  unsigned short port() const;
  void run();  // starts the threads; returns at once
  // Stops accepting and closes every connection; joins the I/O threads. Calls running on the
  // workers finish; the destructor waits for them.
  void stop();

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace lumora2::serve
