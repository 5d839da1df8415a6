// The HTTP front's insides, shared by its translation units (http_server.cpp: listening and the
// connection count; http_connection.cpp: one HTTP connection; audio_socket.cpp: the audio
// WebSocket; event_stream.cpp: the events as Server-Sent Events; api_routes.cpp: what each call
// does). Not for use outside serve/'s HTTP front.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "engine/thread_annotations.h"
#include "http_server.h"
#include "http_types.h"

namespace lumora2::serve {

// Counts the open connections, in all and per client address. A connection beyond either limit
// takes a place in a small reserve, on which only the probes are answered (503 to the rest), so
// that a client that holds every connection cannot make a liveness probe fail. When the reserve
// is full, its oldest connection that has not sent a request yet is closed for the newcomer: idle
// connections cannot hold it, while a probe, which sends its request at once, gets its answer.
class ConnectionSlots {
 public:
  ConnectionSlots(std::size_t total, std::size_t perAddress, std::size_t reserve)
      : total_(total), perAddress_(perAddress), reserve_(reserve) {}

  // One connection's place; given back when destroyed.
  class Slot {
   public:
    Slot(ConnectionSlots& owner, std::string address, bool probesOnly)
        : owner_(&owner), address_(std::move(address)), probesOnly_(probesOnly) {}
    ~Slot() { owner_->giveBack(*this); }
    Slot(const Slot&) = delete;
    Slot& operator=(const Slot&) = delete;
    bool probesOnly() const { return probesOnly_; }
    // How to close the connection when a newcomer needs its reserve place (called on any thread).
    void setCloser(std::function<void()> closer) { owner_->setCloser(*this, std::move(closer)); }
    // A request arrived: the connection keeps its place.
    void markBusy() { owner_->markBusy(*this); }

   private:
    friend class ConnectionSlots;
    ConnectionSlots* owner_;
    std::string address_;
    bool probesOnly_;
  };

  // A place for a connection from `address` (null only when the reserve is empty and no place in
  // it can be freed).
  std::unique_ptr<Slot> take(const std::string& address) LUMORA2_EXCLUDES(lock_);

 private:
  struct Waiting {
    const Slot* slot;
    std::function<void()> closer;
    bool busy = false;
  };
  void giveBack(const Slot& slot) LUMORA2_EXCLUDES(lock_);
  void setCloser(const Slot& slot, std::function<void()> closer) LUMORA2_EXCLUDES(lock_);
  void markBusy(const Slot& slot) LUMORA2_EXCLUDES(lock_);

  const std::size_t total_, perAddress_, reserve_;
  Mutex lock_;  // guards the counts and the reserve below
  std::size_t open_ LUMORA2_GUARDED_BY(lock_) = 0;
  std::map<std::string, std::size_t> perAddressOpen_ LUMORA2_GUARDED_BY(lock_);
  std::list<Waiting> reserveOpen_ LUMORA2_GUARDED_BY(lock_);  // oldest first
};

using SlotPtr = std::shared_ptr<ConnectionSlots::Slot>;

struct HttpServer::Impl {
  Impl(ServerConfig c, const Catalog& cat, SessionRegistry& reg, const ServerMetrics& m);

  // ---- api_routes.cpp
  // Whether the call may take long (synthesis, decoding, negotiation): it then runs on a worker.
  static bool slowCall(const Request& req);
  // The answer to a request; never throws.
  Response handle(const Request& req);
  // Whether the request is a probe (/healthz, /readyz, /metrics), answered on any connection.
  static bool isProbe(const Request& req);
  // Refusals every request gets before its body is read: a Host that is not this server, a page
  // of another origin changing state, a token missing, a body of a type the endpoint never takes
  // or longer than it takes. `limit` is the body limit of the endpoint.
  std::optional<ApiError> screen(const http::request_parser<http::string_body>& parser,
                                 std::size_t& limit) const;
  // The CORS headers of an answer to a page of an allowed origin (none for others).
  void allowOrigin(std::string_view origin, std::string_view host, Response& res) const;
  bool authorised(const Request& req, bool tokenInQuery) const;

  ServerConfig config;
  const Catalog& catalog;
  SessionRegistry& sessions;
  const ServerMetrics& metrics;
  // Before the I/O context and the workers: the connections their pending handlers hold give
  // their places back here when those are destroyed.
  ConnectionSlots slots;
  std::atomic<std::size_t> pendingCalls{0};
  std::atomic<std::uint64_t> uploads{0};
  net::io_context io;
  tcp::acceptor acceptor{io};
  std::vector<std::thread> threads;
  net::thread_pool workers;

 private:
  Response route(const Request& req);
  Response handleApi(const Request& req, const std::vector<std::string>& parts);
  Response createSession(const Request& req);
  Response sessionCall(const Request& req, const std::vector<std::string>& parts);
  Response whep(const Request& req, LiveSession& session);
  // A viewer's WHEP resource: DELETE ends it, PATCH adds its late candidates.
  Response whepResource(const Request& req, LiveSession& session, const std::string& viewer);
  // The session's ICE servers with fresh credentials, as Link headers on `res`.
  void addIceLinks(const std::string& sessionId, Response& res) const;
  Response speech(const Request& req, LiveSession& session);
  Response say(const Request& req, LiveSession& session);
  std::vector<float> decodeSpeech(const std::string& body);
  std::shared_ptr<LiveSession> sessionFor(const std::string& id) const;
};

// ---- http_connection.cpp
// Serves HTTP on an accepted socket until the client or a limit ends it.
void serveConnection(tcp::socket socket, SlotPtr slot, HttpServer::Impl& server);

// ---- event_stream.cpp
// Takes a connection's stream over for the session's events (`req` asked for them).
void serveEventStream(tcp::socket socket, SlotPtr slot, const Request& req,
                      std::shared_ptr<LiveSession> session, HttpServer::Impl& server);

// ---- audio_socket.cpp
// Takes a connection's socket over for the session's audio WebSocket (`req` is the upgrade).
void serveAudioSocket(tcp::socket socket, SlotPtr slot, Request req,
                      std::shared_ptr<LiveSession> session, HttpServer::Impl& server);

}  // namespace lumora2::serve
