// The audio WebSocket of a session (docs/SERVE.md): PCM in binary messages, the JSON text
// messages of api_messages.h, and the session's events out as JSON text. A socket that closes or
// drops in the middle of a streamed utterance ends that utterance (what arrived is spoken); one
// whose session ends is told why and closed.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <deque>

#include "api_messages.h"
#include "http_front.h"

namespace lumora2::serve {
namespace {

class AudioSocket : public std::enable_shared_from_this<AudioSocket> {
 public:
  AudioSocket(tcp::socket socket, SlotPtr slot, std::shared_ptr<LiveSession> session, bool floats,
              const Limits& limits)
      : ws_(std::move(socket)),
        slot_(std::move(slot)),
        session_(std::move(session)),
        floats_(floats),
        limits_(limits),
        // Events from the upgrade on: those that come during the handshake are not missed.
        seen_(session_->events().lastId()) {}

  ~AudioSocket() {
    subscription_.reset();
    // A socket gone in the middle of an utterance it streamed: what arrived is spoken.
    if (streaming_) session_->endStream();
    session_->closeSocket();
  }

  void run(Request req) {
    websocket::stream_base::timeout timeouts{};
    timeouts.handshake_timeout = limits_.requestTime;
    timeouts.idle_timeout = limits_.idleWebSocket;
    timeouts.keep_alive_pings = true;
    ws_.set_option(timeouts);
    ws_.read_message_max(limits_.webSocketMessageBytes);
    ws_.async_accept(req, [self = shared_from_this()](beast::error_code ec) {
      if (ec) return;
      self->listen();
      self->read();
    });
  }

 private:
  // The session's events from now on, queued for this socket's strand.
  void listen() {
    std::weak_ptr<AudioSocket> weak = weak_from_this();
    auto executor = ws_.get_executor();
    subscription_ =
        session_->events().subscribe(seen_, [weak, executor](const SessionEvent& event) {
          std::string text = jsonText(event.message());
          const bool last = event.name == "session_ended";
          net::post(executor, [weak, text = std::move(text), last]() mutable {
            if (auto self = weak.lock()) self->send(std::move(text), last);
          });
        });
  }

  void read() {
    buffer_.clear();
    ws_.async_read(buffer_, [self = shared_from_this()](beast::error_code ec, std::size_t) {
      self->onRead(ec);
    });
  }

  void onRead(beast::error_code ec) {
    if (ec) {
      if (ec == websocket::error::message_too_big) {
        refuse("a message is larger than " + std::to_string(limits_.webSocketMessageBytes) +
               " bytes");
      }
      return;
    }
    try {
      if (ws_.got_binary()) {
        pcm(static_cast<const std::uint8_t*>(buffer_.data().data()), buffer_.size());
      } else {
        text(std::string_view(static_cast<const char*>(buffer_.data().data()), buffer_.size()));
      }
      if (!closing_) read();
    } catch (const std::exception& e) {
      // A message the API does not take, a text the voice refuses, a session that says no: one
      // line back, and the socket closes; the session goes on.
      refuse(e.what());
    }
  }

  void pcm(const std::uint8_t* data, std::size_t size) {
    const std::size_t width = floats_ ? 4 : 2;
    if (size % width != 0) {
      throw api::BadMessage("a PCM message must hold whole " +
                            std::string(floats_ ? "f32le" : "s16le") + " samples");
    }
    samples_.resize(size / width);
    for (std::size_t i = 0; i < samples_.size(); ++i) {
      if (floats_) {
        float f;
        std::memcpy(&f, data + 4 * i, 4);
        samples_[i] = std::isfinite(f) ? std::clamp(f, -1.0f, 1.0f) : 0.0f;
      } else {
        const auto s =
            std::int16_t(std::uint16_t(data[2 * i]) | std::uint16_t(data[2 * i + 1]) << 8);
        samples_[i] = float(s) / 32768.0f;
      }
    }
    session_->stream(samples_.data(), samples_.size());
    streaming_ = true;
  }

  void text(std::string_view message) {
    const api::SocketMessage m = api::parseSocketMessage(message);
    switch (m.kind) {
      case api::SocketMessage::Kind::end: {
        streaming_ = false;
        const auto receipt = session_->endStream();
        send(jsonText(receipt ? nlohmann::json{{"utterance", receipt->utterance},
                                               {"duration", receipt->seconds}}
                              : nlohmann::json{{"utterance", nullptr}, {"duration", 0}}),
             false);
        break;
      }
      case api::SocketMessage::Kind::interrupt:
        session_->interrupt();
        break;
      case api::SocketMessage::Kind::text:
        session_->streamText(m.text);
        streaming_ = true;
        break;
    }
  }

  // Queues a text message; `last` closes the socket once it is written.
  void send(std::string text, bool last) {
    if (closing_) return;
    outbox_.push_back(std::move(text));
    closing_ = last;
    if (!writing_) writeNext();
  }

  void writeNext() {
    if (outbox_.empty()) {
      writing_ = false;
      if (closing_) {
        ws_.async_close(closeCode_, [self = shared_from_this()](beast::error_code) {});
      }
      return;
    }
    writing_ = true;
    ws_.text(true);
    ws_.async_write(net::buffer(outbox_.front()),
                    [self = shared_from_this()](beast::error_code ec, std::size_t) {
                      self->outbox_.pop_front();
                      if (ec) {
                        self->outbox_.clear();
                        self->writing_ = false;
                        return;
                      }
                      self->writeNext();
                    });
  }

  void refuse(const std::string& why) {
    closeCode_ = websocket::close_code::policy_error;
    send(jsonText({{"error", why}}), true);
  }

  websocket::stream<beast::tcp_stream> ws_;
  SlotPtr slot_;
  std::shared_ptr<LiveSession> session_;
  const bool floats_;
  const Limits& limits_;
  beast::flat_buffer buffer_;
  std::vector<float> samples_;
  bool streaming_ = false;  // this socket has an utterance open on the session
  std::deque<std::string> outbox_;
  bool writing_ = false;
  bool closing_ = false;
  websocket::close_code closeCode_ = websocket::close_code::normal;
  std::uint64_t seen_;
  std::unique_ptr<SessionEvents::Subscription> subscription_;
};

}  // namespace

void serveAudioSocket(tcp::socket socket, SlotPtr slot, Request req,
                      std::shared_ptr<LiveSession> session, HttpServer::Impl& server) {
  const bool floats = queryValue(req.target(), "format") == "f32le";
  std::make_shared<AudioSocket>(std::move(socket), std::move(slot), std::move(session), floats,
                                server.config.limits)
      ->run(std::move(req));
}

}  // namespace lumora2::serve
