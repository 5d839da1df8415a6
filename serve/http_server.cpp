#include "http_server.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <atomic>
#include <boost/asio.hpp>
#include <boost/beast.hpp>
#include <boost/beast/websocket.hpp>
#include <cmath>
#include <cstring>
#include <fstream>
#include <optional>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "client/audio_input.h"
#include "client/client_error.h"
#include "client/speech_text.h"
#include "container/platform.h"
#include "media/webrtc_sender.h"
#include "web_assets.h"

namespace lumora2::serve {

namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
namespace net = boost::asio;
using tcp = net::ip::tcp;
using Request = http::request<http::string_body>;
using Response = http::response<http::string_body>;

namespace {

// A request the API refuses, with its status and one line for the client.
struct ApiError {
  http::status status;
  std::string message;
};

Response jsonResponse(const Request& req, http::status status, const nlohmann::json& body) {
  Response res{status, req.version()};
  res.set(http::field::content_type, "application/json");
  res.set(http::field::cache_control, "no-store");
  res.keep_alive(req.keep_alive());
  res.body() = body.dump() + "\n";
  res.prepare_payload();
  return res;
}

Response errorResponse(unsigned version, bool keepAlive, http::status status,
                       const std::string& message, const std::string& reason = {}) {
  Response res{status, version};
  res.set(http::field::content_type, "application/json");
  res.set(http::field::cache_control, "no-store");
  res.keep_alive(keepAlive);
  nlohmann::json body{{"error", message}};
  if (!reason.empty()) body["reason"] = reason;
  res.body() = body.dump() + "\n";
  res.prepare_payload();
  return res;
}

// The path without its query, split at '/'.
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

// The value of `key` in the target's query ("" when absent).
std::string queryValue(std::string_view target, std::string_view key) {
  const std::size_t q = target.find('?');
  if (q == std::string_view::npos) return "";
  std::string_view query = target.substr(q + 1);
  while (!query.empty()) {
    const std::size_t amp = query.find('&');
    const std::string_view pair = query.substr(0, amp);
    const std::size_t eq = pair.find('=');
    if (pair.substr(0, eq) == key && eq != std::string_view::npos) {
      return std::string(pair.substr(eq + 1));
    }
    if (amp == std::string_view::npos) break;
    query = query.substr(amp + 1);
  }
  return "";
}

bool sameSecret(const std::string& a, const std::string& b) {
  // Compared in constant time over the expected secret's length.
  std::string given = a;
  given.resize(b.size(), '\0');
  return CRYPTO_memcmp(given.data(), b.data(), b.size()) == 0 && a.size() == b.size();
}

}  // namespace

struct HttpServer::Impl {
  ServerConfig config;
  const Catalog& catalog;
  SessionRegistry& sessions;
  const ServerMetrics& metrics;
  net::io_context io;
  tcp::acceptor acceptor{io};
  std::vector<std::thread> threads;
  std::atomic<std::size_t> connections{0};
  std::atomic<std::uint64_t> uploads{0};

  Impl(ServerConfig c, const Catalog& cat, SessionRegistry& reg, const ServerMetrics& m)
      : config(std::move(c)), catalog(cat), sessions(reg), metrics(m) {}

  void accept();
  bool authorised(const Request& req) const {
    if (config.token.empty()) return true;
    const auto header = req[http::field::authorization];
    const std::string prefix = "Bearer ";
    std::string given;
    if (header.starts_with(prefix)) given = std::string(header.substr(prefix.size()));
    if (given.empty()) given = queryValue(req.target(), "token");
    return sameSecret(given, config.token);
  }
  std::size_t bodyLimit(const http::request_parser<http::string_body>& parser) const {
    const auto parts = pathParts(parser.get().target());
    if (parts.size() == 4 && parts[3] == "speech") return config.limits.speechBytes;
    if (parts.size() == 4 && parts[3] == "say") return config.limits.sayBytes;
    if (parts.size() == 4 && parts[3] == "whep") return config.limits.sdpBytes;
    return config.limits.jsonBodyBytes;
  }
  Response handle(const Request& req);
  Response handleApi(const Request& req, const std::vector<std::string>& parts);
  std::shared_ptr<LiveSession> sessionFor(const std::string& id) const {
    std::shared_ptr<LiveSession> session = sessions.find(id);
    if (!session) {
      const std::string reason = SessionRegistry::looksLikeId(id) ? sessions.endedReason(id) : "";
      throw ApiError{http::status::not_found,
                     reason.empty() ? "no such session" : "the session has ended: " + reason};
    }
    session->touch();
    return session;
  }
  std::vector<float> decodeSpeech(const std::string& body);
  Response say(const Request& req, LiveSession& session);
};

// ---- WebSocket: streamed speech -------------------------------------------------------------

class AudioSocket : public std::enable_shared_from_this<AudioSocket> {
 public:
  AudioSocket(tcp::socket socket, std::shared_ptr<LiveSession> session, bool floats,
              const Limits& limits, std::atomic<std::size_t>& connections)
      : ws_(std::move(socket)),
        session_(std::move(session)),
        floats_(floats),
        limits_(limits),
        connections_(connections) {}
  ~AudioSocket() { --connections_; }

  void run(Request req) {
    websocket::stream_base::timeout timeouts{};
    timeouts.handshake_timeout = limits_.requestTime;
    timeouts.idle_timeout = limits_.idleWebSocket;
    timeouts.keep_alive_pings = true;
    ws_.set_option(timeouts);
    ws_.read_message_max(limits_.webSocketMessageBytes);
    ws_.async_accept(req, [self = shared_from_this()](beast::error_code ec) {
      if (!ec) self->read();
    });
  }

 private:
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
    const auto data = static_cast<const std::uint8_t*>(buffer_.data().data());
    const std::size_t size = buffer_.size();
    try {
      if (ws_.got_binary()) {
        const std::size_t width = floats_ ? 4 : 2;
        if (size % width != 0) {
          return refuse("a PCM message must hold whole " +
                        std::string(floats_ ? "f32le" : "s16le") + " samples");
        }
        std::vector<float> samples(size / width);
        for (std::size_t i = 0; i < samples.size(); ++i) {
          if (floats_) {
            float f;
            std::memcpy(&f, data + 4 * i, 4);
            samples[i] = std::isfinite(f) ? std::clamp(f, -1.0f, 1.0f) : 0.0f;
          } else {
            const auto s =
                std::int16_t(std::uint16_t(data[2 * i]) | std::uint16_t(data[2 * i + 1]) << 8);
            samples[i] = float(s) / 32768.0f;
          }
        }
        session_->stream(samples.data(), samples.size());
        return read();
      }
      nlohmann::json message;
      try {
        message = nlohmann::json::parse(std::string(reinterpret_cast<const char*>(data), size));
      } catch (const nlohmann::json::exception&) {
        return refuse("text messages must be JSON; PCM goes in binary messages");
      }
      if (!message.is_object() || message.value("end", false) != true) {
        return refuse("the only text message is {\"end\": true}; PCM goes in binary messages");
      }
      const auto receipt = session_->endStream();
      nlohmann::json reply = receipt ? nlohmann::json{{"utterance", receipt->utterance},
                                                      {"duration", receipt->seconds}}
                                     : nlohmann::json{{"utterance", nullptr}, {"duration", 0}};
      send(reply.dump(), false);
    } catch (const SessionError& e) {
      refuse(e.what());
    }
  }

  void send(std::string text, bool close) {
    auto self = shared_from_this();
    auto owned = std::make_shared<std::string>(std::move(text));
    ws_.text(true);
    ws_.async_write(net::buffer(*owned), [self, owned, close](beast::error_code ec, std::size_t) {
      if (ec) return;
      if (close) {
        self->ws_.async_close(websocket::close_code::policy_error, [self](beast::error_code) {});
      } else {
        self->read();
      }
    });
  }

  void refuse(const std::string& why) { send(nlohmann::json{{"error", why}}.dump(), true); }

  websocket::stream<beast::tcp_stream> ws_;
  beast::flat_buffer buffer_;
  std::shared_ptr<LiveSession> session_;
  const bool floats_;
  const Limits& limits_;
  std::atomic<std::size_t>& connections_;
};

// ---- HTTP connections -----------------------------------------------------------------------

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(tcp::socket socket, HttpServer::Impl& server)
      : stream_(std::move(socket)), server_(server) {}
  ~Connection() {
    if (!handedOver_) --server_.connections;
  }

  void run() {
    net::dispatch(stream_.get_executor(), [self = shared_from_this()] { self->readHeader(); });
  }

 private:
  void readHeader() {
    parser_.emplace();
    parser_->header_limit(std::uint32_t(server_.config.limits.headerBytes));
    // The parser checks Content-Length against its body limit while it reads the header (its
    // default is 1 MiB, less than a recording may be); the endpoint's own limit is set after.
    parser_->body_limit(
        std::max(server_.config.limits.speechBytes,
                 std::max(server_.config.limits.sdpBytes, server_.config.limits.jsonBodyBytes)));
    // The first request on a connection gets the request time; later ones wait as long as an
    // idle connection may.
    stream_.expires_after(requests_ == 0 ? server_.config.limits.requestTime
                                         : server_.config.limits.idleConnection);
    http::async_read_header(
        stream_, buffer_, *parser_,
        [self = shared_from_this()](beast::error_code ec, std::size_t) { self->onHeader(ec); });
  }

  void onHeader(beast::error_code ec) {
    if (ec == http::error::end_of_stream || ec == beast::error::timeout ||
        ec == net::error::operation_aborted) {
      return close();
    }
    if (ec == http::error::header_limit) {
      return fail(http::status::request_header_fields_too_large, "the request header is too large");
    }
    if (ec) return fail(http::status::bad_request, "the request is not HTTP/1.1: " + ec.message());
    const std::size_t limit = server_.bodyLimit(*parser_);
    if (parser_->content_length() && *parser_->content_length() > limit) {
      return fail(http::status::payload_too_large, "the body is larger than this endpoint takes (" +
                                                       std::to_string(limit) + " bytes)");
    }
    parser_->body_limit(limit);
    stream_.expires_after(server_.config.limits.requestTime);
    http::async_read(
        stream_, buffer_, *parser_,
        [self = shared_from_this()](beast::error_code e, std::size_t) { self->onBody(e); });
  }

  void onBody(beast::error_code ec) {
    if (ec == http::error::body_limit) {
      return fail(http::status::payload_too_large, "the body is larger than this endpoint takes");
    }
    if (ec) return close();
    ++requests_;
    Request req = parser_->release();
    stream_.expires_never();
    const auto parts = pathParts(req.target());
    if (websocket::is_upgrade(req) && parts.size() == 4 && parts[0] == "v1" &&
        parts[1] == "sessions" && parts[3] == "audio") {
      return upgrade(std::move(req), parts[2]);
    }
    // Handlers may block (the WebRTC answer waits for its candidates; a recording is decoded):
    // they run on the server's threads, several at once.
    Response res = server_.handle(req);
    write(std::move(res));
  }

  void upgrade(Request req, const std::string& id) {
    if (!server_.authorised(req)) {
      return write(errorResponse(req.version(), false, http::status::unauthorized,
                                 "a valid token is needed (Authorization: Bearer, or ?token=)"));
    }
    std::shared_ptr<LiveSession> session = server_.sessions.find(id);
    if (!session) {
      return write(errorResponse(req.version(), false, http::status::not_found, "no such session"));
    }
    const std::string format = queryValue(req.target(), "format");
    if (!format.empty() && format != "s16le" && format != "f32le") {
      return write(errorResponse(req.version(), false, http::status::bad_request,
                                 "format must be s16le or f32le"));
    }
    session->touch();
    handedOver_ = true;
    std::make_shared<AudioSocket>(stream_.release_socket(), std::move(session), format == "f32le",
                                  server_.config.limits, server_.connections)
        ->run(std::move(req));
  }

  void write(Response res) {
    auto owned = std::make_shared<Response>(std::move(res));
    stream_.expires_after(server_.config.limits.requestTime);
    http::async_write(stream_, *owned,
                      [self = shared_from_this(), owned](beast::error_code ec, std::size_t) {
                        if (ec || !owned->keep_alive()) return self->close();
                        self->readHeader();
                      });
  }

  void fail(http::status status, const std::string& message) {
    write(errorResponse(11, false, status, message));
  }

  void close() {
    beast::error_code ignored;
    stream_.socket().shutdown(tcp::socket::shutdown_both, ignored);
  }

  beast::tcp_stream stream_;
  HttpServer::Impl& server_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  std::size_t requests_ = 0;
  bool handedOver_ = false;
};

void HttpServer::Impl::accept() {
  acceptor.async_accept(net::make_strand(io), [this](beast::error_code ec, tcp::socket socket) {
    if (ec == net::error::operation_aborted) return;
    if (!ec) {
      if (connections.load() >= config.limits.connections) {
        beast::error_code ignored;
        socket.close(ignored);  // full: the client may come back
      } else {
        ++connections;
        std::make_shared<Connection>(std::move(socket), *this)->run();
      }
    }
    accept();
  });
}

std::vector<float> HttpServer::Impl::decodeSpeech(const std::string& body) {
  // FFmpeg reads files: the body goes into a file of the server's scratch directory for as long as
  // it is decoded.
  const std::filesystem::path file =
      config.scratch / ("upload-" + std::to_string(++uploads) + ".audio");
  struct Remove {
    std::filesystem::path path;
    ~Remove() {
      std::error_code ignored;
      std::filesystem::remove(path, ignored);
    }
  } remove{file};
  {
    std::ofstream out(file, std::ios::binary);
    out.write(body.data(), std::streamsize(body.size()));
    if (!out) throw ApiError{http::status::internal_server_error, "cannot hold the upload"};
  }
  std::vector<float> samples;
  try {
    samples = render::decodeAudio(file);
  } catch (const render::ClientError&) {
    throw ApiError{http::status::unsupported_media_type,
                   "the body is not audio this server can decode"};
  }
  if (double(samples.size()) / 16000.0 > config.limits.speechSeconds) {
    throw ApiError{
        http::status::payload_too_large,
        "the recording is longer than " + std::to_string(int(config.limits.speechSeconds)) + " s"};
  }
  return samples;
}

Response HttpServer::Impl::say(const Request& req, LiveSession& session) {
  const auto posted = std::chrono::steady_clock::now();
  nlohmann::json body;
  try {
    body = nlohmann::json::parse(req.body());
  } catch (const nlohmann::json::exception&) {
    throw ApiError{http::status::bad_request, "the body must be JSON: {\"text\": \"<words>\"}"};
  }
  if (!body.is_object() || !body.contains("text") || !body["text"].is_string()) {
    throw ApiError{http::status::bad_request, "the body must be {\"text\": \"<words>\"}"};
  }
  const std::string& text = body["text"].get_ref<const std::string&>();
  try {
    render::checkText(text, config.limits.sayChars);
    session.voice().checkScripts(text);
  } catch (const render::TextError& e) {
    using Kind = render::TextError::Kind;
    const http::status status = e.kind() == Kind::tooLong       ? http::status::payload_too_large
                                : e.kind() == Kind::unspeakable ? http::status::unprocessable_entity
                                                                : http::status::bad_request;
    throw ApiError{status, e.what()};
  }
  const LiveSession::Receipt receipt = session.say(render::splitSentences(text), posted);
  return jsonResponse(req, http::status::accepted,
                      {{"utterance", receipt.utterance},
                       {"duration", receipt.seconds},
                       {"voice", session.voice().name()}});
}

Response HttpServer::Impl::handle(const Request& req) {
  try {
    const auto parts = pathParts(req.target());
    if (!parts.empty() && parts[0] == "v1") return handleApi(req, parts);
    if (req.method() != http::verb::get && req.method() != http::verb::head) {
      throw ApiError{http::status::method_not_allowed, "only GET here"};
    }
    if (parts.size() == 1 && parts[0] == "healthz") {
      return jsonResponse(req, http::status::ok, {{"ok", true}, {"sessions", sessions.size()}});
    }
    if (parts.size() == 1 && parts[0] == "readyz") {
      // Ready while one more session would be admitted: a balancer sends new ones elsewhere.
      const Admission::Refusal refusal = sessions.readiness();
      nlohmann::json body{{"ready", refusal == Admission::Refusal::none},
                          {"sessions", sessions.size()},
                          {"capacity", sessions.capacity()}};
      if (refusal != Admission::Refusal::none) {
        body["reason"] = refusal == Admission::Refusal::draining ? "draining" : "full";
      }
      Response res =
          jsonResponse(req,
                       refusal == Admission::Refusal::none ? http::status::ok
                                                           : http::status::service_unavailable,
                       body);
      if (refusal != Admission::Refusal::none) res.set(http::field::retry_after, "5");
      return res;
    }
    if (parts.size() == 1 && parts[0] == "metrics") {
      Response res{http::status::ok, req.version()};
      res.set(http::field::content_type, "text/plain; version=0.0.4; charset=utf-8");
      res.set(http::field::cache_control, "no-store");
      res.keep_alive(req.keep_alive());
      if (req.method() == http::verb::get) res.body() = metrics.text();
      res.prepare_payload();
      return res;
    }
    const std::string path = parts.empty() ? "/" : "/" + parts[0];
    if (parts.size() <= 1) {
      for (const WebAsset& asset : webAssets()) {
        if (asset.path != path) continue;
        Response res{http::status::ok, req.version()};
        res.set(http::field::content_type, std::string(asset.type));
        res.set(http::field::cache_control, "no-cache");
        res.set("Content-Security-Policy",
                "default-src 'self'; media-src 'self' blob: mediastream:; img-src 'self' data:");
        res.keep_alive(req.keep_alive());
        if (req.method() == http::verb::get) res.body() = std::string(asset.body);
        res.prepare_payload();
        return res;
      }
    }
    throw ApiError{http::status::not_found, "no such page"};
  } catch (const ApiError& e) {
    return errorResponse(req.version(), req.keep_alive(), e.status, e.message);
  } catch (const SessionError& e) {
    Response res =
        errorResponse(req.version(), req.keep_alive(), http::status(e.status), e.what(), e.reason);
    if (e.status == 503) res.set(http::field::retry_after, "5");
    return res;
  } catch (const MediaError& e) {
    return errorResponse(req.version(), req.keep_alive(), http::status::bad_request, e.what());
  } catch (const std::exception& e) {
    return errorResponse(req.version(), req.keep_alive(), http::status::internal_server_error,
                         e.what());
  }
}

Response HttpServer::Impl::handleApi(const Request& req, const std::vector<std::string>& parts) {
  if (!authorised(req)) {
    throw ApiError{http::status::unauthorized, "a valid token is needed (Authorization: Bearer)"};
  }
  const http::verb method = req.method();
  auto only = [&](http::verb allowed) {
    if (method != allowed) {
      throw ApiError{http::status::method_not_allowed,
                     "use " + std::string(http::to_string(allowed)) + " here"};
    }
  };
  if (parts.size() == 2 && parts[1] == "avatars") {
    only(http::verb::get);
    nlohmann::json list = nlohmann::json::array();
    for (const Avatar& a : catalog.avatars) {
      list.push_back({{"code", a.code},
                      {"name", a.name},
                      {"gender", a.gender},
                      {"persona", a.persona},
                      {"voice", a.voice}});
    }
    return jsonResponse(req, http::status::ok, {{"avatars", list}});
  }
  if (parts.size() < 2 || parts[1] != "sessions") {
    throw ApiError{http::status::not_found, "no such endpoint"};
  }
  if (parts.size() == 2) {
    only(http::verb::post);
    nlohmann::json body;
    try {
      body = nlohmann::json::parse(req.body());
    } catch (const nlohmann::json::exception&) {
      throw ApiError{http::status::bad_request, "the body must be JSON: {\"avatar\": \"<code>\"}"};
    }
    if (!body.is_object() || !body.contains("avatar") || !body["avatar"].is_string()) {
      throw ApiError{http::status::bad_request, "the body must be {\"avatar\": \"<code>\"}"};
    }
    const Avatar* avatar = catalog.find(body["avatar"].get<std::string>());
    if (avatar == nullptr) throw ApiError{http::status::not_found, "no such avatar"};
    std::shared_ptr<LiveSession> session = sessions.create(*avatar);
    const std::string base = "/v1/sessions/" + session->id();
    Response res = jsonResponse(req, http::status::created,
                                {{"id", session->id()},
                                 {"avatar", avatar->code},
                                 {"width", 416},
                                 {"height", 720},
                                 {"fps", 20},
                                 {"urls",
                                  {{"session", base},
                                   {"whep", base + "/whep"},
                                   {"speech", base + "/speech"},
                                   {"say", base + "/say"},
                                   {"audio", base + "/audio"}}}});
    res.set(http::field::location, base);
    return res;
  }
  std::shared_ptr<LiveSession> session = sessionFor(parts[2]);
  if (parts.size() == 3) {
    if (method == http::verb::get) return jsonResponse(req, http::status::ok, session->status());
    only(http::verb::delete_);
    sessions.remove(session->id());
    Response res{http::status::no_content, req.version()};
    res.keep_alive(req.keep_alive());
    res.prepare_payload();
    return res;
  }
  if (parts.size() == 4 && parts[3] == "whep") {
    only(http::verb::post);
    if (req[http::field::content_type].find("application/sdp") == std::string_view::npos) {
      throw ApiError{http::status::unsupported_media_type, "the offer must be application/sdp"};
    }
    const std::string answer = session->connect(req.body());
    Response res{http::status::created, req.version()};
    res.set(http::field::content_type, "application/sdp");
    res.set(http::field::location, "/v1/sessions/" + session->id() + "/whep");
    res.keep_alive(req.keep_alive());
    res.body() = answer;
    res.prepare_payload();
    return res;
  }
  if (parts.size() == 4 && parts[3] == "speech") {
    only(http::verb::post);
    if (req.body().empty()) throw ApiError{http::status::bad_request, "the body holds no audio"};
    const LiveSession::Receipt receipt = session->speak(decodeSpeech(req.body()));
    return jsonResponse(req, http::status::accepted,
                        {{"utterance", receipt.utterance}, {"duration", receipt.seconds}});
  }
  if (parts.size() == 4 && parts[3] == "say") {
    only(http::verb::post);
    return say(req, *session);
  }
  if (parts.size() == 4 && parts[3] == "audio") {
    throw ApiError{http::status::upgrade_required, "this endpoint is a WebSocket"};
  }
  throw ApiError{http::status::not_found, "no such endpoint"};
}

HttpServer::HttpServer(ServerConfig config, const Catalog& catalog, SessionRegistry& sessions,
                       const ServerMetrics& metrics)
    : impl_(std::make_unique<Impl>(std::move(config), catalog, sessions, metrics)) {
  beast::error_code ec;
  const auto address = net::ip::make_address(impl_->config.address, ec);
  if (ec)
    throw std::runtime_error("cannot listen on " + impl_->config.address + ": not an address");
  const tcp::endpoint endpoint{address, impl_->config.port};
  impl_->acceptor.open(endpoint.protocol(), ec);
  if (!ec) impl_->acceptor.set_option(net::socket_base::reuse_address(true), ec);
  if (!ec) impl_->acceptor.bind(endpoint, ec);
  if (!ec) impl_->acceptor.listen(net::socket_base::max_listen_connections, ec);
  if (ec) {
    throw std::runtime_error("cannot listen on " + impl_->config.address + ":" +
                             std::to_string(impl_->config.port) + ": " + ec.message());
  }
}

HttpServer::~HttpServer() { stop(); }

unsigned short HttpServer::port() const { return impl_->acceptor.local_endpoint().port(); }

void HttpServer::run() {
  impl_->accept();
  for (int i = 0; i < std::max(1, impl_->config.threads); ++i) {
    impl_->threads.emplace_back([this] { impl_->io.run(); });
  }
}

void HttpServer::stop() {
  if (impl_->threads.empty()) return;
  net::post(impl_->io, [this] {
    beast::error_code ignored;
    impl_->acceptor.close(ignored);
  });
  impl_->io.stop();
  for (std::thread& t : impl_->threads) t.join();
  impl_->threads.clear();
}

}  // namespace lumora2::serve
