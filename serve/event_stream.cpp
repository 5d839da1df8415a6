// A session's events as Server-Sent Events (GET /v1/sessions/{id}/events): `id:`, `event:` and
// `data:` lines for each, from the one after Last-Event-ID when the caller gives it (the last 256
// are kept), then every new one as it happens, a comment every 15 s to keep the connection and
// any proxy on it open; after the session's end the stream ends.
#include <deque>

#include "http_front.h"

namespace lumora2::serve {
namespace {

constexpr auto kKeepAlive = std::chrono::seconds(15);

std::string formatEvent(const SessionEvent& event) {
  return "id: " + std::to_string(event.id) + "\nevent: " + event.name +
         "\ndata: " + jsonText(event.message()) + "\n\n";
}

class EventStream : public std::enable_shared_from_this<EventStream> {
 public:
  EventStream(tcp::socket socket, SlotPtr slot, std::shared_ptr<LiveSession> session)
      : stream_(std::move(socket)),
        slot_(std::move(slot)),
        session_(std::move(session)),
        keepAlive_(stream_.get_executor()) {}
  ~EventStream() {
    subscription_.reset();
    session_->closeSocket();
  }

  void run(std::string head, std::uint64_t after) {
    stream_.expires_never();
    send(std::move(head));
    std::weak_ptr<EventStream> weak = weak_from_this();
    auto executor = stream_.get_executor();
    bool gap = false;
    subscription_ = session_->events().subscribe(
        after,
        [weak, executor](const SessionEvent& event) {
          net::post(executor,
                    [weak, text = formatEvent(event), last = event.name == "session_ended"] {
                      if (auto self = weak.lock()) {
                        self->send(text);
                        if (last) self->ending_ = true;
                      }
                    });
        },
        &gap);
    if (gap) send(": events before these were no longer kept\n\n");
    tick();
  }

 private:
  void tick() {
    keepAlive_.expires_after(kKeepAlive);
    keepAlive_.async_wait([self = shared_from_this()](beast::error_code ec) {
      if (ec || self->closed_) return;
      self->send(": keep-alive\n\n");
      self->tick();
    });
  }

  void send(std::string text) {
    if (closed_) return;
    outbox_.push_back(std::move(text));
    if (!writing_) writeNext();
  }

  void writeNext() {
    if (outbox_.empty()) {
      writing_ = false;
      if (ending_) close();
      return;
    }
    writing_ = true;
    stream_.expires_after(std::chrono::seconds(30));  // a reader that stops reading is let go
    net::async_write(stream_, net::buffer(outbox_.front()),
                     [self = shared_from_this()](beast::error_code ec, std::size_t) {
                       self->outbox_.pop_front();
                       if (ec) return self->close();
                       self->stream_.expires_never();
                       self->writeNext();
                     });
  }

  void close() {
    if (closed_) return;
    closed_ = true;
    keepAlive_.cancel();
    subscription_.reset();
    beast::error_code ignored;
    stream_.socket().shutdown(tcp::socket::shutdown_both, ignored);
    stream_.socket().close(ignored);
  }

  beast::tcp_stream stream_;
  SlotPtr slot_;
  std::shared_ptr<LiveSession> session_;
  net::steady_timer keepAlive_;
  std::deque<std::string> outbox_;
  bool writing_ = false;
  bool ending_ = false;
  bool closed_ = false;
  std::unique_ptr<SessionEvents::Subscription> subscription_;
};

}  // namespace

void serveEventStream(tcp::socket socket, SlotPtr slot, const Request& req,
                      std::shared_ptr<LiveSession> session, HttpServer::Impl& server) {
  // After the last event the caller saw; without one, from now on.
  std::uint64_t after = session->events().lastId();
  std::string last(req["Last-Event-ID"]);
  if (last.empty()) last = queryValue(req.target(), "last_event_id");
  try {
    if (!last.empty()) after = std::min<std::uint64_t>(std::stoull(last), after);
  } catch (const std::exception&) {
    // an id this server never gave: from now on
  }
  // The body has no length: it ends with the connection.
  Response cors;
  server.allowOrigin(req[http::field::origin], req[http::field::host], cors);
  std::string head =
      "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nCache-Control: no-store\r\n"
      "Connection: close\r\nX-Accel-Buffering: no\r\n";
  for (const auto& field : cors) {
    head += std::string(field.name_string()) + ": " + std::string(field.value()) + "\r\n";
  }
  head += "\r\n";
  std::make_shared<EventStream>(std::move(socket), std::move(slot), std::move(session))
      ->run(std::move(head), after);
}

}  // namespace lumora2::serve
