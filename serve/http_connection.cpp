// One HTTP connection: reads a request's header within the header time, screens it (Host, origin,
// token, content type, body size) before a byte of its body is read, says `100 Continue` when the
// client waits for it, reads the body, and answers on the I/O thread for quick calls or from a
// worker for slow ones. Errors that leave a body unread close the connection after a short drain,
// so that the client reads the answer instead of a reset.
#include <boost/optional.hpp>

#include "http_front.h"

namespace lumora2::serve {
namespace {

constexpr auto kDrainTime = std::chrono::seconds(2);
constexpr std::size_t kDrainBytes = 1024 * 1024;

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(tcp::socket socket, SlotPtr slot, HttpServer::Impl& server)
      : stream_(std::move(socket)), slot_(std::move(slot)), server_(server) {}

  void run() {
    if (slot_->probesOnly()) {
      // Closed when a newcomer needs its place before it has sent a request.
      slot_->setCloser([weak = weak_from_this(), executor = stream_.get_executor()] {
        net::post(executor, [weak] {
          if (auto self = weak.lock()) self->close();
        });
      });
    }
    net::dispatch(stream_.get_executor(), [self = shared_from_this()] { self->readHeader(); });
  }

 private:
  const Limits& limits() const { return server_.config.limits; }

  void readHeader() {
    parser_.emplace();
    parser_->header_limit(std::uint32_t(limits().headerBytes));
    // The body's limit is the endpoint's, set once the header says which endpoint it is.
    parser_->body_limit(boost::none);
    stream_.expires_after(requests_ == 0 ? limits().headerTime : limits().idleConnection);
    http::async_read_header(
        stream_, buffer_, *parser_,
        [self = shared_from_this()](beast::error_code ec, std::size_t) { self->onHeader(ec); });
  }

  void onHeader(beast::error_code ec) {
    if (ec == http::error::end_of_stream || ec == beast::error::timeout ||
        ec == net::error::operation_aborted || ec == net::error::connection_reset) {
      return close();
    }
    if (ec == http::error::header_limit) {
      return refuse(
          http::status::request_header_fields_too_large,
          "the request header is larger than " + std::to_string(limits().headerBytes) + " bytes");
    }
    if (ec)
      return refuse(http::status::bad_request, "the request is not HTTP/1.1: " + ec.message());
    const Request& head = parser_->get();
    slot_->markBusy();
    origin_ = std::string(head[http::field::origin]);
    host_ = std::string(head[http::field::host]);
    if (slot_->probesOnly() && !HttpServer::Impl::isProbe(head)) {
      return refuse(http::status::service_unavailable,
                    "the server holds as many connections as it takes; try again", "connections");
    }
    std::size_t limit = 0;
    if (std::optional<ApiError> refusal = server_.screen(*parser_, limit)) {
      return refuse(refusal->status, refusal->message, refusal->reason);
    }
    parser_->body_limit(limit);
    stream_.expires_after(limits().requestTime);
    if (beast::iequals(head[http::field::expect], "100-continue")) {
      auto interim = std::make_shared<http::response<http::empty_body>>(http::status::continue_,
                                                                        head.version());
      return http::async_write(
          stream_, *interim,
          [self = shared_from_this(), interim](beast::error_code e, std::size_t) {
            if (e) return self->close();
            self->readBody();
          });
    }
    readBody();
  }

  void readBody() {
    http::async_read(
        stream_, buffer_, *parser_,
        [self = shared_from_this()](beast::error_code e, std::size_t) { self->onBody(e); });
  }

  void onBody(beast::error_code ec) {
    if (ec == http::error::body_limit) {
      return refuse(http::status::payload_too_large, "the body is larger than this endpoint takes");
    }
    if (ec) return close();
    ++requests_;
    Request req = parser_->release();
    stream_.expires_never();
    const auto parts = pathParts(req.target());
    const bool onSession = parts.size() == 4 && parts[0] == "v1" && parts[1] == "sessions";
    if (websocket::is_upgrade(req) && onSession && parts[3] == "audio") {
      return upgrade(std::move(req), parts[2]);
    }
    if (req.method() == http::verb::get && onSession && parts[3] == "events") {
      return events(std::move(req), parts[2]);
    }
    if (!HttpServer::Impl::slowCall(req)) return write(server_.handle(req));
    if (server_.pendingCalls.fetch_add(1) >= limits().pendingCalls) {
      --server_.pendingCalls;
      return write(errorResponse(req.version(), req.keep_alive(), http::status::service_unavailable,
                                 "the server is busy with other calls; try again", "busy"));
    }
    net::post(server_.workers, [self = shared_from_this(), req = std::move(req)] {
      Response res = self->server_.handle(req);
      --self->server_.pendingCalls;
      net::post(self->stream_.get_executor(),
                [self, res = std::move(res)]() mutable { self->write(std::move(res)); });
    });
  }

  void upgrade(Request req, const std::string& id) {
    const auto refuse = [&](http::status status, const std::string& message) {
      write(errorResponse(req.version(), false, status, message));
    };
    std::shared_ptr<LiveSession> session = server_.sessions.find(id);
    if (!session) return refuse(http::status::not_found, "no such session");
    const std::string format = queryValue(req.target(), "format");
    if (!format.empty() && format != "s16le" && format != "f32le") {
      return refuse(http::status::bad_request, "format must be s16le or f32le");
    }
    if (!session->openSocket(limits().streamsPerSession)) {
      return refuse(http::status::conflict, "the session has " +
                                                std::to_string(limits().streamsPerSession) +
                                                " audio sockets open already");
    }
    serveAudioSocket(stream_.release_socket(), std::move(slot_), std::move(req), std::move(session),
                     server_);
  }

  void events(Request req, const std::string& id) {
    std::shared_ptr<LiveSession> session = server_.sessions.find(id);
    if (!session) {
      const std::string why =
          SessionRegistry::looksLikeId(id) ? server_.sessions.endedReason(id) : "";
      return write(
          errorResponse(req.version(), false, http::status::not_found,
                        why.empty() ? "no such session" : "the session has ended: " + why));
    }
    if (!session->openSocket(limits().streamsPerSession)) {
      return write(errorResponse(req.version(), false, http::status::conflict,
                                 "the session has " + std::to_string(limits().streamsPerSession) +
                                     " streams open already"));
    }
    serveEventStream(stream_.release_socket(), std::move(slot_), req, std::move(session), server_);
  }

  void write(Response res) {
    server_.allowOrigin(origin_, host_, res);
    if (slot_ && slot_->probesOnly()) res.keep_alive(false);  // a reserve place serves one call
    auto owned = std::make_shared<Response>(std::move(res));
    stream_.expires_after(limits().requestTime);
    http::async_write(stream_, *owned,
                      [self = shared_from_this(), owned](beast::error_code ec, std::size_t) {
                        if (ec) return self->close();
                        if (!owned->keep_alive()) return self->drainAndClose();
                        self->readHeader();
                      });
  }

  // Answers and closes: the body, if any, is left unread.
  void refuse(http::status status, const std::string& message, const std::string& reason = {}) {
    write(errorResponse(11, false, status, message, reason));
  }

  // Reads and drops what the client still sends for a moment, so that closing does not reset the
  // connection under an answer it has not read yet.
  void drainAndClose() {
    beast::error_code ignored;
    stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
    stream_.expires_after(kDrainTime);
    drain_.resize(64 * 1024);
    stream_.async_read_some(net::buffer(drain_),
                            [self = shared_from_this()](beast::error_code ec, std::size_t n) {
                              self->drained_ += n;
                              if (ec || self->drained_ >= kDrainBytes) return self->close();
                              self->drainAndClose();
                            });
  }

  void close() {
    beast::error_code ignored;
    stream_.socket().shutdown(tcp::socket::shutdown_both, ignored);
    stream_.socket().close(ignored);
  }

  beast::tcp_stream stream_;
  SlotPtr slot_;
  HttpServer::Impl& server_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  std::size_t requests_ = 0;
  std::string origin_, host_;  // of the request being answered
  std::vector<char> drain_;
  std::size_t drained_ = 0;
};

}  // namespace

void serveConnection(tcp::socket socket, SlotPtr slot, HttpServer::Impl& server) {
  std::make_shared<Connection>(std::move(socket), std::move(slot), server)->run();
}

}  // namespace lumora2::serve
