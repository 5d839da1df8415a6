// What each call of lumora2-serve does (docs/SERVE.md): the probes, the page's files, the
// avatars, and the sessions' calls; and the screening every request passes before its body is
// read.
#include <algorithm>
#include <filesystem>
#include <fstream>

#include "api_messages.h"
#include "client/audio_input.h"
#include "client/client_error.h"
#include "client/speech_text.h"
#include "http_front.h"
#include "media/webrtc_sender.h"
#include "web_assets.h"

namespace lumora2::serve {
namespace {

bool isV1Session(const std::vector<std::string>& parts) {
  return parts.size() >= 2 && parts[0] == "v1" && parts[1] == "sessions";
}

// The call that parts names on a session, "" for the session itself; a viewer's WHEP resource
// (/v1/sessions/ID/whep/VIEWER) is "whep" too.
std::string sessionVerb(const std::vector<std::string>& parts) {
  const bool resource = parts.size() == 5 && parts[3] == "whep";
  return isV1Session(parts) && (parts.size() == 4 || resource) ? parts[3] : "";
}

bool isWhepResource(const std::vector<std::string>& parts) {
  return isV1Session(parts) && parts.size() == 5 && parts[3] == "whep";
}

}  // namespace

bool HttpServer::Impl::isProbe(const Request& req) {
  const auto parts = pathParts(req.target());
  return (req.method() == http::verb::get || req.method() == http::verb::head) &&
         parts.size() == 1 &&
         (parts[0] == "healthz" || parts[0] == "readyz" || parts[0] == "metrics");
}

bool HttpServer::Impl::slowCall(const Request& req) {
  const auto parts = pathParts(req.target());
  // Ending a viewer stops its media pipeline; its candidates go to its ICE agent.
  return (req.method() == http::verb::post && isV1Session(parts)) ||
         ((req.method() == http::verb::delete_ || req.method() == http::verb::patch) &&
          isWhepResource(parts));
}

bool HttpServer::Impl::authorised(const Request& req, bool tokenInQuery) const {
  if (config.token.empty()) return true;
  const auto header = req[http::field::authorization];
  constexpr std::string_view prefix = "Bearer ";
  if (header.starts_with(prefix)) return sameSecret(header.substr(prefix.size()), config.token);
  // Browsers cannot set headers on a WebSocket or an EventSource: those alone take it in the URL.
  return tokenInQuery && sameSecret(queryValue(req.target(), "token"), config.token);
}

std::optional<ApiError> HttpServer::Impl::screen(
    const http::request_parser<http::string_body>& parser, std::size_t& limit) const {
  const Request& req = parser.get();
  const auto parts = pathParts(req.target());
  const std::string verb = sessionVerb(parts);
  const http::verb method = req.method();
  const auto host = req[http::field::host];
  // HTTP/1.0 may leave the Host out (health checks do); HTTP/1.1 must name it.
  if (host.empty() && req.version() >= 11) {
    return ApiError{http::status::bad_request, "the request names no Host"};
  }
  if (!host.empty() && !hostAllowed(host, config.callers)) {
    return ApiError{http::status::misdirected_request, "this server does not answer for the host " +
                                                           std::string(host) + " (--allow-host)"};
  }
  const bool changes =
      method != http::verb::get && method != http::verb::head && method != http::verb::options;
  const bool socket = websocket::is_upgrade(req);
  if ((changes || socket) &&
      judgeOrigin(req[http::field::origin], host, config.callers) == OriginVerdict::refused) {
    return ApiError{http::status::forbidden, "a page at " + std::string(req[http::field::origin]) +
                                                 " may not call this server (--allow-origin)"};
  }
  if (!parts.empty() && parts[0] == "v1" && method != http::verb::options &&
      !authorised(req,
                  (socket && verb == "audio") || (method == http::verb::get && verb == "events"))) {
    return ApiError{http::status::unauthorized, "a valid token is needed (Authorization: Bearer)"};
  }
  const auto type = req[http::field::content_type];
  const bool json = parts.size() == 2 || verb == "say" || verb == "interrupt";
  if (method == http::verb::post && isV1Session(parts) && json &&
      !isContentType(type, "application/json")) {
    return ApiError{http::status::unsupported_media_type, "the body must be application/json"};
  }
  if (method == http::verb::patch && isWhepResource(parts) &&
      !isContentType(type, "application/trickle-ice-sdpfrag")) {
    return ApiError{http::status::unsupported_media_type,
                    "the body must be application/trickle-ice-sdpfrag"};
  }
  if (method == http::verb::post && verb == "speech" && isFormType(type)) {
    return ApiError{
        http::status::unsupported_media_type,
        "the body must be an audio file (audio/wav, audio/flac, …), not " + std::string(type)};
  }
  limit = verb == "speech" ? config.limits.speechBytes
          : verb == "say"  ? config.limits.sayBytes
          : verb == "whep" ? config.limits.sdpBytes
                           : config.limits.jsonBodyBytes;
  if (parser.content_length() && *parser.content_length() > limit) {
    return ApiError{
        http::status::payload_too_large,
        "the body is larger than this endpoint takes (" + std::to_string(limit) + " bytes)"};
  }
  return std::nullopt;
}

void HttpServer::Impl::allowOrigin(std::string_view origin, std::string_view host,
                                   Response& res) const {
  if (judgeOrigin(origin, host, config.callers) != OriginVerdict::allowed) return;
  res.set(http::field::access_control_allow_origin, origin);
  res.set(http::field::vary, "Origin");
  res.set(http::field::access_control_expose_headers, "Location, Link, ETag");
}

Response HttpServer::Impl::handle(const Request& req) {
  try {
    return route(req);
  } catch (const ApiError& e) {
    return errorResponse(req.version(), req.keep_alive(), e.status, e.message, e.reason);
  } catch (const api::BadMessage& e) {
    return errorResponse(req.version(), req.keep_alive(), http::status::bad_request, e.what());
  } catch (const SessionError& e) {
    return errorResponse(req.version(), req.keep_alive(), http::status(e.status), e.what(),
                         e.reason);
  } catch (const MediaError& e) {
    return errorResponse(req.version(), req.keep_alive(), http::status::bad_request, e.what());
  } catch (const std::exception& e) {
    return errorResponse(req.version(), req.keep_alive(), http::status::internal_server_error,
                         e.what());
  }
}

Response HttpServer::Impl::route(const Request& req) {
  const auto parts = pathParts(req.target());
  if (req.method() == http::verb::options) {
    // CORS preflight: allowOrigin adds the origin's permission when it has one.
    Response res{http::status::no_content, req.version()};
    res.set(http::field::access_control_allow_methods, "GET, POST, PATCH, DELETE, OPTIONS");
    res.set(http::field::access_control_allow_headers,
            "Authorization, Content-Type, If-Match, Last-Event-ID");
    res.set(http::field::access_control_max_age, "600");
    // A WHEP player may ask the endpoint for its ICE servers before it makes its offer; the
    // credentials go to authorised callers only.
    if (sessionVerb(parts) == "whep" && parts.size() == 4 && authorised(req, false)) {
      if (sessions.find(parts[2])) addIceLinks(parts[2], res);
    }
    res.keep_alive(req.keep_alive());
    res.prepare_payload();
    return res;
  }
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
    if (refusal == Admission::Refusal::none) return jsonResponse(req, http::status::ok, body);
    body["reason"] = refusal == Admission::Refusal::draining ? "draining" : "full";
    Response res = jsonResponse(req, http::status::service_unavailable, body);
    res.set(http::field::retry_after, "5");
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
  for (const WebAsset& asset : webAssets()) {
    if (parts.size() > 1 || asset.path != path) continue;
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
  throw ApiError{http::status::not_found, "no such page"};
}

Response HttpServer::Impl::handleApi(const Request& req, const std::vector<std::string>& parts) {
  if (parts.size() == 2 && parts[1] == "avatars") {
    if (req.method() != http::verb::get) {
      throw ApiError{http::status::method_not_allowed, "use GET here"};
    }
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
  if (!isV1Session(parts)) throw ApiError{http::status::not_found, "no such endpoint"};
  if (parts.size() == 2) {
    if (req.method() != http::verb::post) {
      throw ApiError{http::status::method_not_allowed, "use POST here"};
    }
    return createSession(req);
  }
  return sessionCall(req, parts);
}

Response HttpServer::Impl::createSession(const Request& req) {
  const api::CreateSession asked = api::parseCreateSession(req.body());
  const Avatar* avatar = catalog.find(asked.avatar);
  if (avatar == nullptr) throw ApiError{http::status::not_found, "no such avatar"};
  std::shared_ptr<LiveSession> session = sessions.create(*avatar);
  const std::string base = "/v1/sessions/" + session->id();
  const auto servers = config.ice->entries(session->id(), std::chrono::system_clock::now());
  Response res = jsonResponse(req, http::status::created,
                              {{"id", session->id()},
                               {"avatar", avatar->code},
                               {"width", 416},
                               {"height", 720},
                               {"fps", 20},
                               {"ice_servers", IceConfig::browserServers(servers)},
                               {"urls",
                                {{"session", base},
                                 {"whep", base + "/whep"},
                                 {"speech", base + "/speech"},
                                 {"say", base + "/say"},
                                 {"interrupt", base + "/interrupt"},
                                 {"events", base + "/events"},
                                 {"audio", base + "/audio"}}}});
  res.set(http::field::location, base);
  return res;
}

std::shared_ptr<LiveSession> HttpServer::Impl::sessionFor(const std::string& id) const {
  std::shared_ptr<LiveSession> session = sessions.find(id);
  if (!session) {
    const std::string reason = SessionRegistry::looksLikeId(id) ? sessions.endedReason(id) : "";
    throw ApiError{http::status::not_found,
                   reason.empty() ? "no such session" : "the session has ended: " + reason};
  }
  return session;
}

Response HttpServer::Impl::sessionCall(const Request& req, const std::vector<std::string>& parts) {
  std::shared_ptr<LiveSession> session = sessionFor(parts[2]);
  const http::verb method = req.method();
  const std::string verb = sessionVerb(parts);
  auto only = [&](http::verb allowed) {
    if (method != allowed) {
      throw ApiError{http::status::method_not_allowed,
                     "use " + std::string(http::to_string(allowed)) + " here"};
    }
  };
  if (parts.size() == 3) {
    if (method == http::verb::get) return jsonResponse(req, http::status::ok, session->status());
    only(http::verb::delete_);
    sessions.remove(session->id());
    return noContent(req);
  }
  if (verb == "whep" && parts.size() == 5) return whepResource(req, *session, parts[4]);
  if (verb == "whep") {
    only(http::verb::post);
    return whep(req, *session);
  }
  if (verb == "speech") {
    only(http::verb::post);
    return speech(req, *session);
  }
  if (verb == "say") {
    only(http::verb::post);
    return say(req, *session);
  }
  if (verb == "interrupt") {
    only(http::verb::post);
    return jsonResponse(req, http::status::ok, session->interrupt());
  }
  if (verb == "audio") {
    throw ApiError{http::status::upgrade_required, "this endpoint is a WebSocket"};
  }
  throw ApiError{http::status::not_found, "no such endpoint"};
}

Response HttpServer::Impl::whep(const Request& req, LiveSession& session) {
  if (!isContentType(req[http::field::content_type], "application/sdp")) {
    throw ApiError{http::status::unsupported_media_type, "the offer must be application/sdp"};
  }
  const LiveSession::Answer answer = session.connect(req.body());
  Response res{http::status::created, req.version()};
  res.set(http::field::content_type, "application/sdp");
  res.set(http::field::location,
          "/v1/sessions/" + session.id() + "/whep/" + std::to_string(answer.viewer));
  res.set(http::field::etag, "\"v" + std::to_string(answer.viewer) + "\"");
  addIceLinks(session.id(), res);
  res.keep_alive(req.keep_alive());
  res.body() = answer.sdp;
  res.prepare_payload();
  return res;
}

void HttpServer::Impl::addIceLinks(const std::string& sessionId, Response& res) const {
  for (const std::string& link :
       IceConfig::linkHeaders(config.ice->entries(sessionId, std::chrono::system_clock::now()))) {
    res.insert(http::field::link, link);
  }
}

Response HttpServer::Impl::whepResource(const Request& req, LiveSession& session,
                                        const std::string& viewer) {
  const bool number = !viewer.empty() && viewer.size() <= 19 &&
                      viewer.find_first_not_of("0123456789") == std::string::npos;
  if (!number) throw ApiError{http::status::not_found, "no such viewer"};
  const std::uint64_t which = std::stoull(viewer);
  if (req.method() == http::verb::delete_) {
    session.disconnect(which);
    return jsonResponse(req, http::status::ok, {{"viewer", which}, {"ended", true}});
  }
  if (req.method() != http::verb::patch) {
    throw ApiError{http::status::method_not_allowed, "use PATCH or DELETE here"};
  }
  // An ICE restart (If-Match: *, new credentials in the fragment) would need the agent to start
  // over with the same DTLS session, which it cannot: a viewer that lost its path posts a new
  // offer instead, and the session waits --viewer-grace for it.
  const auto match = req[http::field::if_match];
  if (match == "*") {
    throw ApiError{http::status::method_not_allowed,
                   "ICE restarts are not supported: post a new offer to the session's WHEP "
                   "endpoint (the session waits for its viewer to come back)"};
  }
  if (!match.empty() && match != "\"v" + viewer + "\"") {
    throw ApiError{http::status::precondition_failed, "If-Match names another viewer"};
  }
  session.addCandidates(which, req.body());
  return noContent(req);
}

Response HttpServer::Impl::speech(const Request& req, LiveSession& session) {
  if (req.body().empty()) throw ApiError{http::status::bad_request, "the body holds no audio"};
  const bool cut = queryValue(req.target(), "interrupt") == "true";
  const LiveSession::Receipt receipt = session.speak(decodeSpeech(req.body()), cut);
  return jsonResponse(req, http::status::accepted,
                      {{"utterance", receipt.utterance}, {"duration", receipt.seconds}});
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
  try {
    return render::decodeAudio(
        file, {}, std::size_t(config.limits.speechSeconds * double(render::kEngineRate)));
  } catch (const render::AudioTooLong&) {
    throw ApiError{
        http::status::payload_too_large,
        "the recording is longer than " + std::to_string(int(config.limits.speechSeconds)) + " s"};
  } catch (const render::ClientError&) {
    throw ApiError{http::status::unsupported_media_type,
                   "the body is not audio this server can decode"};
  }
}

Response HttpServer::Impl::say(const Request& req, LiveSession& session) {
  const auto posted = std::chrono::steady_clock::now();
  const api::Say asked = api::parseSay(req.body());
  try {
    render::checkText(asked.text, config.limits.sayChars);
    session.voice().checkScripts(asked.text);
  } catch (const render::TextError& e) {
    using Kind = render::TextError::Kind;
    const http::status status = e.kind() == Kind::tooLong       ? http::status::payload_too_large
                                : e.kind() == Kind::unspeakable ? http::status::unprocessable_entity
                                                                : http::status::bad_request;
    throw ApiError{status, e.what()};
  }
  const LiveSession::Receipt receipt =
      session.say(render::splitSentences(asked.text), posted, asked.interrupt);
  return jsonResponse(req, http::status::accepted,
                      {{"utterance", receipt.utterance},
                       {"duration", receipt.seconds},
                       {"voice", session.voice().name()}});
}

}  // namespace lumora2::serve
