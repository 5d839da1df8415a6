// lumora2-serve against what a client sends, carelessly or with intent, over real connections on
// 127.0.0.1: every kind of bad request, pages of other sites, WebSocket messages of the wrong type,
// streamed speech and sockets that drop, uploads that decode to far more than they weigh,
// connections held open by the hundred, slow calls in numbers. Each ends with a clear answer while
// the server and every session go on.
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <future>
#include <thread>

#include "render_test_support.h"
#include "serve_support.h"

namespace lumora2::family::test {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

// One server and one live session for the cases that share them.
class Hostile : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    server_ = new Server({"--max-sessions", "4"});
    id_ = new std::string(server_->readySession("ava").value("id", ""));
  }
  static void TearDownTestSuite() {
    delete server_;
    delete id_;
  }
  // The server answers, and the session is live and its child ready.
  static void expectAllWell() {
    const nlohmann::json status = server_->call(http::verb::get, "/v1/sessions/" + *id_).json();
    EXPECT_EQ(status.value("state", ""), "live") << status.dump();
    EXPECT_EQ(status.value("child", ""), "ready") << status.dump();
  }
  static Server* server_;
  static std::string* id_;
};
Server* Hostile::server_ = nullptr;
std::string* Hostile::id_ = nullptr;

struct BadMessage {
  const char* name;
  std::string message;  // a text message on the audio socket
  const char* error;
};

class HostileSocketMessage : public Hostile, public ::testing::WithParamInterface<BadMessage> {};

// Each is refused in one line, the socket closes and the session goes on: a message of the wrong
// shape (every shape: api_input_test), a text the checks or the voice refuse, and no JSON at all.
TEST_P(HostileSocketMessage, IsRefusedAndTheSocketClosed) {
  net::io_context io;
  auto ws = server_->audioSocket(io, *id_);
  ws->text(true);
  ws->write(net::buffer(GetParam().message));
  EXPECT_THAT(readAnswer(*ws).value("error", ""), HasSubstr(GetParam().error));
  beast::flat_buffer buffer;
  beast::error_code ec;
  ws->read(buffer, ec);
  EXPECT_EQ(ec, websocket::error::closed);
  expectAllWell();
}

INSTANTIATE_TEST_SUITE_P(
    Messages, HostileSocketMessage,
    ::testing::Values(
        BadMessage{"EndNumber", R"({"end": 1})", "a text message must be"},
        BadMessage{"TextTooLong", nlohmann::json{{"text", std::string(5001, 'a')}}.dump(),
                   "at most 5000"},
        BadMessage{"UnreadableScript", R"({"text": "Привет, мир. "})", "cannot speak Cyrillic"},
        BadMessage{"NotJson", "hello", "PCM goes in binary messages"}),
    [](const auto& param) { return std::string(param.param.name); });

// Audio that decodes to far more than the 600 s a recording may last, in a few hundred KiB: it is
// refused as soon as that is known (its header, or decoding up to the limit), and the server's
// memory never holds more than the limit allows.
TEST_F(Hostile, UploadsAreHeldToTheirLengthNotTheirWeight) {
  const fs::path dir = scratchDir("serve-hostile-uploads");
  for (const std::string& input :
       {std::string("-f lavfi -i anullsrc=r=8000:cl=mono -t 7200 -c:a flac two-hours.flac"),
        std::string("-f lavfi -i anullsrc=r=100:cl=mono -t 17500 -c:a pcm_s16le slow.wav")}) {
    ASSERT_EQ(shell("cd '" + dir.string() + "' && ffmpeg -v error -y " + input).status, 0) << input;
  }
  for (const char* file : {"two-hours.flac", "slow.wav"}) {
    const Reply reply = server_->call(http::verb::post, "/v1/sessions/" + *id_ + "/speech",
                                      readFile(dir / file), {{"Content-Type", "audio/wav"}});
    EXPECT_EQ(reply.status, 413) << file << ": " << reply.body;
    EXPECT_THAT(reply.json().value("error", ""), HasSubstr("longer than 600 s"));
  }
  // Two hours at 16 kHz would be 460 MB of samples; 600 s are 38 MB.
  if (!kAddressSanitized) {
    EXPECT_LT(server_->peakKiB(), 400 * 1024) << "the decoder held more than the limit allows";
  }
  expectAllWell();
}

// Streamed speech over the WebSocket: PCM in binary messages, then {"end": true}, answered with
// the utterance and its length. A socket that drops in the middle of one, without {"end": true}:
// the utterance ends with what arrived, instead of holding the session's output for ever.
TEST_F(Hostile, StreamedPcmEndsWithItsEndOrWithItsSocket) {
  const std::vector<std::int16_t> pcm(8000, 1000);
  for (const bool drops : {false, true}) {
    net::io_context io;
    auto ws = server_->audioSocket(io, *id_);
    ws->binary(true);
    for (int k = 0; k < 3; ++k) ws->write(net::buffer(pcm.data(), pcm.size() * 2));
    if (!drops) {
      ws->text(true);
      ws->write(net::buffer(std::string(R"({"end": true})")));
      const nlohmann::json reply = readAnswer(*ws);
      EXPECT_DOUBLE_EQ(reply.value("duration", 0.0), 1.5) << reply.dump();
      EXPECT_GE(reply.value("utterance", 0), 1);
      ws->close(websocket::close_code::normal);
      continue;
    }
    EXPECT_TRUE(
        server_->awaitStatus(*id_, [](const auto& s) { return s.value("streaming", false); })
            .value("streaming", false));
    beast::error_code ignored;
    beast::get_lowest_layer(*ws).socket().close(ignored);  // gone, no closing handshake
  }
  const nlohmann::json status =
      server_->awaitStatus(*id_, [](const auto& s) { return !s.value("streaming", true); });
  EXPECT_FALSE(status.value("streaming", true)) << status.dump();
  expectAllWell();
}

// Hundreds of connections that send nothing: the probes still answer at once, the rest is told
// the server is full, and once the idle ones time out everything works again.
TEST_F(Hostile, IdleConnectionsNeitherStopTheProbesNorStayForEver) {
  std::vector<int> idle;
  for (int i = 0; i < 300; ++i) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(server_->port());
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) == 0) idle.push_back(fd);
  }
  for (const char* probe : {"/healthz", "/readyz"}) {
    const auto asked = Clock::now();
    const Reply reply = server_->call(http::verb::get, probe);
    EXPECT_EQ(reply.status, 200) << probe;
    EXPECT_LT(Clock::now() - asked, std::chrono::seconds(1)) << probe;
  }
  const Reply full = server_->call(http::verb::get, "/v1/avatars");
  EXPECT_EQ(full.status, 503) << full.body;
  EXPECT_EQ(full.json().value("reason", ""), "connections");
  // The idle ones get the header time (5 s), then their place goes back.
  std::this_thread::sleep_for(std::chrono::seconds(6));
  EXPECT_EQ(server_->call(http::verb::get, "/v1/avatars").status, 200);
  for (int fd : idle) ::close(fd);
  expectAllWell();
}

// Long texts said at once, each made on a worker while the I/O threads keep answering.
TEST_F(Hostile, SlowCallsNeverHoldTheProbesUp) {
  std::string text;
  for (int i = 0; i < 60; ++i) text += "This is a rather long sentence that takes a while. ";
  std::vector<std::future<Reply>> calls;
  for (int i = 0; i < 12; ++i) {
    calls.push_back(std::async(std::launch::async, [&] {
      return server_->postJson("/v1/sessions/" + *id_ + "/say", {{"text", text}});
    }));
  }
  std::chrono::milliseconds worst{0};
  for (int i = 0; i < 20; ++i) {
    const auto asked = Clock::now();
    EXPECT_EQ(server_->call(http::verb::get, "/healthz").status, 200);
    worst = std::max(worst,
                     std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - asked));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  EXPECT_LT(worst, std::chrono::milliseconds(1000));
  for (auto& call : calls) {
    const int status = call.get().status;
    EXPECT_TRUE(status == 202 || status == 409) << status;  // the queue holds 8
  }
  server_->call(http::verb::post, "/v1/sessions/" + *id_ + "/interrupt", "",
                {{"Content-Type", "application/json"}});
  expectAllWell();
}

// Every malformed request, and those of a page of another site, a name rebound to this address or
// a form: its status and a one-line JSON error before anything happens, while the session goes on.
struct BadRequest {
  const char* name;
  http::verb method;
  std::string target;  // "{id}": the live session
  std::string header;  // "Name: value", or nothing
  std::string body;
  int status;
  const char* error;
};

class HostileRequest : public Hostile, public ::testing::WithParamInterface<BadRequest> {};

TEST_P(HostileRequest, IsRefusedWithItsStatusAndOneLine) {
  const BadRequest& bad = GetParam();
  std::string target = bad.target;
  if (const auto at = target.find("{id}"); at != std::string::npos) target.replace(at, 4, *id_);
  std::map<std::string, std::string> headers;
  if (const std::size_t colon = bad.header.find(": "); colon != std::string::npos) {
    headers[bad.header.substr(0, colon)] = bad.header.substr(colon + 2);
  }
  const Reply reply = server_->call(bad.method, target, bad.body, headers);
  EXPECT_EQ(reply.status, bad.status) << reply.body;
  EXPECT_EQ(reply.header("Content-Type"), "application/json");
  EXPECT_EQ(std::count(reply.body.begin(), reply.body.end(), '\n'), 1) << reply.body;
  EXPECT_THAT(reply.json().value("error", ""), HasSubstr(bad.error));
  expectAllWell();
}

const std::string kJson = "Content-Type: application/json";
using V = http::verb;
INSTANTIATE_TEST_SUITE_P(
    Requests, HostileRequest,
    ::testing::Values(
        BadRequest{"NotAnId", V::delete_, "/v1/sessions/..%2f..%2fetc", "", "", 404,
                   "no such session"},
        BadRequest{"BadJson", V::post, "/v1/sessions", kJson, "{avatar", 400, "must be JSON"},
        BadRequest{"UnknownAvatar", V::post, "/v1/sessions", kJson, R"({"avatar":"zed"})", 404,
                   "no such avatar"},
        BadRequest{"OversizedJson", V::post, "/v1/sessions", kJson, std::string(20000, ' '), 413,
                   "larger than"},
        BadRequest{"UndecodableAudio", V::post, "/v1/sessions/{id}/speech",
                   "Content-Type: audio/wav", std::string(5000, 'x'), 415, "not audio"},
        BadRequest{"EmptySpeech", V::post, "/v1/sessions/{id}/speech", "Content-Type: audio/wav",
                   "", 400, "no audio"},
        BadRequest{"GarbageSdp", V::post, "/v1/sessions/{id}/whep", "Content-Type: application/sdp",
                   "v=0\r\nhello", 400, ""},
        BadRequest{"SdpAsJson", V::post, "/v1/sessions/{id}/whep", kJson, "{}", 415,
                   "application/sdp"},
        BadRequest{"TrickleAsText", V::patch, "/v1/sessions/{id}/whep/1",
                   "Content-Type: text/plain", "a=x", 415, "application/trickle-ice-sdpfrag"},
        BadRequest{"NoViewerToEnd", V::delete_, "/v1/sessions/{id}/whep/1", "", "", 404,
                   "no such viewer"},
        BadRequest{"NotAViewer", V::delete_, "/v1/sessions/{id}/whep/x", "", "", 404,
                   "no such viewer"},
        BadRequest{"ViewerWithPut", V::put, "/v1/sessions/{id}/whep/1", "", "", 405,
                   "use PATCH or DELETE"},
        BadRequest{"AudioWithoutUpgrade", V::get, "/v1/sessions/{id}/audio", "", "", 426,
                   "WebSocket"},
        BadRequest{"WrongMethod", V::put, "/v1/avatars", "", "", 405, "use GET"},
        BadRequest{"NoSuchPage", V::get, "/etc/passwd", "", "", 404, "no such page"},
        BadRequest{"NoSuchEndpoint", V::get, "/v1/things", "", "", 404, "no such endpoint"},
        BadRequest{"SayEmpty", V::post, "/v1/sessions/{id}/say", kJson, R"({"text": ""})", 400,
                   "the text is empty"},
        BadRequest{"SayTooLong", V::post, "/v1/sessions/{id}/say", kJson,
                   "{\"text\": \"" + std::string(5001, 'a') + "\"}", 413,
                   "has 5001 characters; at most 5000"},
        BadRequest{"SayUnspeakableScript", V::post, "/v1/sessions/{id}/say", kJson,
                   R"({"text": "Hello. Привет."})", 422,
                   "the voice en-us+f3 cannot speak Cyrillic script"},
        BadRequest{"SayWithGet", V::get, "/v1/sessions/{id}/say", "", "", 405, "use POST"},
        BadRequest{"FormCreatesASession", V::post, "/v1/sessions", "Content-Type: text/plain",
                   R"({"avatar":"ava"})", 415, "application/json"},
        BadRequest{"FormSays", V::post, "/v1/sessions/{id}/say",
                   "Content-Type: application/x-www-form-urlencoded", R"({"text":"hi"})", 415,
                   "application/json"},
        BadRequest{"FormPostsSpeech", V::post, "/v1/sessions/{id}/speech",
                   "Content-Type: multipart/form-data; boundary=x", "--x--", 415, "an audio file"},
        BadRequest{"OtherSitesPage", V::post, "/v1/sessions", "Origin: http://evil.example",
                   R"({"avatar":"ava"})", 403, "may not call this server"},
        BadRequest{"ReboundName", V::get, "/v1/avatars", "Host: evil.example:8080", "", 421,
                   "does not answer for the host"},
        BadRequest{"NoHost", V::get, "/v1/avatars", "Host: ", "", 400, "no Host"}),
    [](const auto& param) { return std::string(param.param.name); });

// A client that waits for `100 Continue` before it sends a recording gets it at once, unless the
// recording is larger than the server takes: then the refusal comes instead, and nothing is sent.
TEST_F(Hostile, ARecordingWaitsForContinueOrItsRefusal) {
  const std::string wav = speechWav(scratchDir("serve-hostile-continue"));
  for (const bool huge : {false, true}) {
    net::io_context io;
    beast::tcp_stream stream(io);
    stream.expires_after(std::chrono::seconds(20));
    stream.connect(tcp::endpoint(net::ip::make_address("127.0.0.1"), server_->port()));
    http::request<http::string_body> req{http::verb::post, "/v1/sessions/" + *id_ + "/speech", 11};
    req.set(http::field::host, "127.0.0.1");
    req.set(http::field::content_type, "audio/wav");
    req.set(http::field::expect, "100-continue");
    req.body() = wav;
    req.prepare_payload();
    if (huge) req.set(http::field::content_length, "41943040");  // 40 MiB announced
    http::request_serializer<http::string_body> out(req);
    http::write_header(stream, out);
    beast::flat_buffer buffer;
    http::response<http::string_body> first;
    const auto asked = Clock::now();
    http::read(stream, buffer, first);
    EXPECT_LT(Clock::now() - asked, std::chrono::milliseconds(500));
    if (huge) {
      EXPECT_EQ(first.result_int(), 413u) << first.body();
      EXPECT_THAT(first.body(), HasSubstr("larger than this endpoint takes"));
      continue;
    }
    EXPECT_EQ(first.result(), http::status::continue_);
    http::write(stream, out);
    http::response<http::string_body> res;
    http::read(stream, buffer, res);
    EXPECT_EQ(res.result_int(), 202u) << res.body();
  }
  server_->call(http::verb::post, "/v1/sessions/" + *id_ + "/interrupt", "",
                {{"Content-Type", "application/json"}});
  expectAllWell();
}

// A full server refuses the next session with the reason and when to come back, and says so to a
// balancer; a session that ends tells its sockets why and closes them, and its place is free at
// once.
TEST(HostileLifecycle, AnEndedSessionClosesItsSocketsAndFreesItsPlaceAtOnce) {
  Server server({"--max-sessions", "1"});
  const std::string id = server.readySession("ava").value("id", "");
  const Reply full = server.postJson("/v1/sessions", {{"avatar", "ava"}});
  EXPECT_EQ(full.status, 503);
  EXPECT_FALSE(full.header("Retry-After").empty());
  EXPECT_EQ(full.json().value("reason", ""), "max_sessions");
  const Reply ready = server.call(http::verb::get, "/readyz");
  EXPECT_EQ(ready.status, 503) << "a balancer sends the next session elsewhere";
  EXPECT_EQ(ready.json().value("reason", ""), "full");
  EXPECT_THAT(server.call(http::verb::get, "/metrics").body,
              HasSubstr("lumora2_sessions_refused_total{reason=\"max_sessions\"} 1"));
  net::io_context io;
  auto ws = server.audioSocket(io, id);
  beast::get_lowest_layer(*ws).expires_after(std::chrono::seconds(20));
  EXPECT_EQ(server.call(http::verb::delete_, "/v1/sessions/" + id).status, 204);
  EXPECT_EQ(server.postJson("/v1/sessions", {{"avatar", "ava"}}).status, 201)
      << "the deleted session still counted";
  nlohmann::json ended = nlohmann::json::object();
  for (int i = 0; i < 20 && ended.value("event", "") != "session_ended"; ++i) {
    beast::flat_buffer buffer;
    ws->read(buffer);
    ended = nlohmann::json::parse(beast::buffers_to_string(buffer.data()), nullptr, false);
  }
  EXPECT_EQ(ended.value("cause", ""), "deleted") << ended.dump();
  beast::flat_buffer buffer;
  beast::error_code ec;
  ws->read(buffer, ec);
  EXPECT_EQ(ec, websocket::error::closed);
}

// Reading a session's status is not using it: a session nobody speaks to ends at its idle time,
// however often its status is read; and a text that would speak for longer than five minutes is
// refused whole.
TEST(HostileLifecycle, PollingKeepsNothingAliveAndTextsHaveALength) {
  Server server({"--idle-timeout", "3"});
  const std::string id = server.readySession("ava").value("id", "");
  std::string text;  // 84 sentences of about 3.5 s each, with their pauses: over 5 minutes
  for (int i = 0; i < 84; ++i)
    text += "This sentence is long enough to take a few seconds to say. ";
  const Reply refused = server.postJson("/v1/sessions/" + id + "/say", {{"text", text}});
  EXPECT_EQ(refused.status, 413) << refused.body;
  EXPECT_THAT(refused.json().value("error", ""), HasSubstr("nothing of it is said"));
  EXPECT_EQ(
      server.call(http::verb::get, "/v1/sessions/" + id).json().value("utterances_queued", -1), 0);
  const nlohmann::json polled = server.awaitStatus(
      id, [](const auto& s) { return s.contains("error"); }, std::chrono::seconds(15));
  EXPECT_THAT(polled.value("error", ""), HasSubstr("idle for 3 s")) << polled.dump();
}

// What a server that was killed left behind is cleared by the next one; FIFOs where files are
// expected never hold the start-up; an IPv6 address is written in brackets.
TEST(HostileStart, StartsCleanWhateverIsLyingAround) {
  const fs::path tmp = scratchDir("serve-hostile-start");
  const fs::path stale = tmp / "lumora2-serve-999999-6F1C0A2E-0000-4000-8000-000000000000";
  fs::create_directories(stale / "lumora2-render-child-x");
  std::ofstream(stale / "upload-1.audio") << "left";
  const fs::path avatars = tmp / "avatars";
  fs::create_directories(avatars);
  for (const char* name : {"ava.avatar", "bram.avatar"}) {
    fs::copy_file(generatedFamily().root / name, avatars / name);
  }
  ASSERT_EQ(::mkfifo((avatars / "fifo.avatar").c_str(), 0600), 0);
  fs::copy_file(generatedFamily().root / "vivra.model", avatars / "vivra.model");
  {
    Server server({}, tmp, {}, avatars);
    EXPECT_EQ(server.call(http::verb::get, "/healthz").status, 200);
    EXPECT_FALSE(fs::exists(stale)) << "the killed server's directory stayed";
  }
  ASSERT_EQ(::mkfifo((tmp / "token").c_str(), 0600), 0);
  const Shell r = shell(
      "timeout 20 " +
          commandLine({LUMORA2_SERVE_BIN, "--engine", (avatars / "vivra.model").string(),
                       "--avatars", avatars.string(), "--token-file", (tmp / "token").string()}),
      tmp / "stderr");
  EXPECT_EQ(r.status, 1);
  EXPECT_THAT(readFile(tmp / "stderr"), HasSubstr("is not a regular file"));
  // How viewers reach the server, and the voice asked for, are judged before it serves: one
  // line, exit status 1.
  std::ofstream(tmp / "short") << "too short\n";
  for (const std::vector<std::string>& flags : std::vector<std::vector<std::string>>{
           {"--ice-server", "turn:relay.example"},
           {"--ice-server", "turn:relay", "--turn-secret-file", (tmp / "short").string()},
           {"--ice-server", "stun:relay?transport=tcp"},
           {"--udp-ports", "40010-40000"},
           {"--udp-ports", "80-90"},
           {"--public-address", "relay.example"},
           {"--voice", "nosuch"}}) {
    std::vector<std::string> args{LUMORA2_SERVE_BIN, "--engine", (avatars / "vivra.model").string(),
                                  "--avatars", avatars.string()};
    args.insert(args.end(), flags.begin(), flags.end());
    EXPECT_EQ(shell("timeout 20 " + commandLine(args), tmp / "stderr").status, 1) << flags[1];
    const std::string said = readFile(tmp / "stderr");
    EXPECT_TRUE(said.starts_with("error: ") && said.find('\n') + 1 == said.size()) << said;
  }
  if (::access("/proc/net/if_inet6", R_OK) == 0) {
    Server v6({"--listen", "[::1]:0"}, tmp, {}, avatars);
    EXPECT_THAT(v6.banner(), HasSubstr("http://[::1]:"));
  }
}

}  // namespace
}  // namespace lumora2::family::test
