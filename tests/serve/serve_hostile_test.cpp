// lumora2-serve against what a hostile or careless client does, over real connections on
// 127.0.0.1: WebSocket messages of the wrong type, uploads that decode to far more than they
// weigh, sockets that drop, connections held open by the hundred, slow calls in numbers, pages of
// other sites. Each ends with a clear answer while the server and every session go on.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
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

// Each is refused in one line, the socket closes and the session goes on. The first six once
// aborted the whole server: a value of the wrong type where {"end": true} is read.
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

constexpr const char* kWrongType = "a text message must be";
INSTANTIATE_TEST_SUITE_P(
    Messages, HostileSocketMessage,
    ::testing::Values(
        BadMessage{"EndNumber", R"({"end": 1})", kWrongType},
        BadMessage{"EndWord", R"({"end": "yes"})", kWrongType},
        BadMessage{"EndNull", R"({"end": null})", kWrongType},
        BadMessage{"ArrayOfTrue", "[true]", kWrongType},
        BadMessage{"InterruptList", R"({"interrupt": [1]})", kWrongType},
        BadMessage{"Empty", "{}", kWrongType},
        BadMessage{"TextTooLong", nlohmann::json{{"text", std::string(5001, 'a')}}.dump(),
                   "at most 5000"},
        BadMessage{"UnreadableScript", R"({"text": "Привет, мир. "})", "cannot speak Cyrillic"},
        BadMessage{"ControlCharacter", R"({"text": "hi\u0007"})", "control character"},
        BadMessage{"TextNotAString", R"({"text": ["hi"]})", "\"text\" must be a string"},
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
  EXPECT_LT(server_->peakKiB(), 400 * 1024) << "the decoder held more than the limit allows";
  expectAllWell();
}

// A socket that drops in the middle of a streamed utterance, without {"end": true}: the utterance
// ends with what arrived, instead of holding the session's output for ever.
TEST_F(Hostile, ASocketThatDropsEndsItsUtterance) {
  {
    net::io_context io;
    auto ws = server_->audioSocket(io, *id_);
    std::vector<std::int16_t> pcm(16000, 1000);
    ws->binary(true);
    ws->write(net::buffer(pcm.data(), pcm.size() * 2));
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
  const fs::path dir = scratchDir("serve-hostile-slow");
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

struct Foreign {
  const char* name;
  http::verb method;
  std::string target;  // "{id}": the live session
  std::map<std::string, std::string> headers;
  std::string body;
  int status;
  const char* error;
};

class HostileCaller : public Hostile, public ::testing::WithParamInterface<Foreign> {};

// A page of another site, a name rebound to this address, a form's body: refused before anything
// happens.
TEST_P(HostileCaller, IsRefusedBeforeAnythingHappens) {
  const Foreign& f = GetParam();
  std::string target = f.target;
  if (const auto at = target.find("{id}"); at != std::string::npos) target.replace(at, 4, *id_);
  const Reply reply = server_->call(f.method, target, f.body, f.headers);
  EXPECT_EQ(reply.status, f.status) << reply.body;
  EXPECT_THAT(reply.json().value("error", ""), HasSubstr(f.error));
  expectAllWell();
}

INSTANTIATE_TEST_SUITE_P(
    Callers, HostileCaller,
    ::testing::Values(
        Foreign{"FormCreatesASession",
                http::verb::post,
                "/v1/sessions",
                {{"Content-Type", "text/plain"}},
                R"({"avatar":"ava"})",
                415,
                "application/json"},
        Foreign{"FormSays",
                http::verb::post,
                "/v1/sessions/{id}/say",
                {{"Content-Type", "application/x-www-form-urlencoded"}},
                R"({"text":"hi"})",
                415,
                "application/json"},
        Foreign{"FormPostsSpeech",
                http::verb::post,
                "/v1/sessions/{id}/speech",
                {{"Content-Type", "multipart/form-data; boundary=x"}},
                "--x--",
                415,
                "an audio file"},
        Foreign{"OtherSitesPage",
                http::verb::post,
                "/v1/sessions",
                {{"Content-Type", "application/json"}, {"Origin", "http://evil.example"}},
                R"({"avatar":"ava"})",
                403,
                "may not call this server"},
        Foreign{"ReboundName",
                http::verb::get,
                "/v1/avatars",
                {{"Host", "evil.example:8080"}},
                "",
                421,
                "does not answer for the host"},
        Foreign{"NoHost", http::verb::get, "/v1/avatars", {{"Host", ""}}, "", 400, "no Host"}),
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

// A session that ends tells its sockets why and closes them; its place is free at once.
TEST(HostileLifecycle, AnEndedSessionClosesItsSocketsAndFreesItsPlaceAtOnce) {
  Server server({"--max-sessions", "1"});
  const std::string id = server.readySession("ava").value("id", "");
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
  Reply polled;
  const auto deadline = Clock::now() + std::chrono::seconds(15);
  while (Clock::now() < deadline) {
    polled = server.call(http::verb::get, "/v1/sessions/" + id);
    if (polled.status == 404) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
  }
  EXPECT_EQ(polled.status, 404);
  EXPECT_THAT(polled.json().value("error", ""), HasSubstr("idle for 3 s"));
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
  // How viewers reach the server is judged whole before it serves: one line, exit status 1.
  std::ofstream(tmp / "short") << "too short\n";
  for (const std::vector<std::string>& flags : std::vector<std::vector<std::string>>{
           {"--ice-server", "turn:relay.example"},
           {"--ice-server", "turn:relay", "--turn-secret-file", (tmp / "short").string()},
           {"--ice-server", "stun:relay?transport=tcp"},
           {"--udp-ports", "40010-40000"},
           {"--udp-ports", "80-90"},
           {"--public-address", "relay.example"}}) {
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
