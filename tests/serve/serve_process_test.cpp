// lumora2-serve as a process, spoken to over real HTTP connections on 127.0.0.1: sessions on two
// avatars at once, each with its own render-stream child; a child killed ends its session only; a
// child that asks for a respawn gets one; a token asked for, and the voice. Bad requests and
// streamed speech are serve_hostile_test's; the end on SIGTERM is the drain of
// browser/operations.test.mjs.
#include <signal.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/asio.hpp>
#include <boost/beast.hpp>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "render_test_support.h"
#include "serve_support.h"

namespace lumora2::family::test {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

TEST(Serve, AskedForATokenRefusesEveryCallWithoutIt) {
  const fs::path dir = scratchDir("serve-token");
  std::ofstream(dir / "token") << "0123456789abcdef-secret\n";
  Server server({"--token-file", (dir / "token").string()});
  for (const auto& [token, status] : std::map<std::string, int>{
           {"", 401}, {"0123456789abcdef-secreT", 401}, {"0123456789abcdef-secret", 200}}) {
    std::map<std::string, std::string> headers;
    if (!token.empty()) headers["Authorization"] = "Bearer " + token;
    EXPECT_EQ(server.call(http::verb::get, "/v1/avatars", "", headers).status, status) << token;
  }
  for (const char* open : {"/healthz", "/readyz", "/metrics"}) {
    EXPECT_EQ(server.call(http::verb::get, open).status, 200) << open << " needs no token";
  }
}

// Two sessions on two avatars, each with a child of its own; killing one child ends its session
// alone, with the reason where the page asks.
TEST(Serve, AChildKilledEndsOnlyItsOwnSession) {
  Server server({"--render-processes", "per-session"});
  const nlohmann::json a = server.readySession("ava");
  const nlohmann::json b = server.readySession("bram");
  ASSERT_NE(a["id"], b["id"]);
  const pid_t childA = a.value("child_pid", -1), childB = b.value("child_pid", -1);
  ASSERT_TRUE(alive(childA));
  ASSERT_TRUE(alive(childB));
  ASSERT_NE(childA, childB);
  EXPECT_EQ(b.value("avatar", ""), "bram");
  // A child holds nothing of the server's: a client connection it inherited would outlive the
  // server's own end of it and swallow the requests sent on it.
  for (const pid_t child : {childA, childB}) {
    for (const auto& fd : fs::directory_iterator("/proc/" + std::to_string(child) + "/fd")) {
      std::error_code ec;
      EXPECT_THAT(fs::read_symlink(fd.path(), ec).string(), ::testing::Not(HasSubstr("socket:")))
          << "the child holds " << fd.path();
    }
  }

  ::kill(childA, SIGKILL);
  const nlohmann::json gone = server.awaitStatus(
      a.value("id", ""), [](const auto& s) { return s.contains("error"); },
      std::chrono::seconds(10));
  EXPECT_THAT(gone.value("error", ""), HasSubstr("the render process ended with exit status 137"))
      << "the session outlived its child";
  const Reply still = server.call(http::verb::get, "/v1/sessions/" + b.value("id", ""));
  EXPECT_EQ(still.status, 200);
  EXPECT_EQ(still.json().value("child", ""), "ready");
  EXPECT_TRUE(alive(childB));
  int sessions = 0;
  for (int i = 0;
       i < 100 &&
       (sessions = server.call(http::verb::get, "/healthz").json().value("sessions", 0)) != 1;
       ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  EXPECT_EQ(sessions, 1) << "the ended session is still counted";
}

// Text to say is taken at once with its utterance, spoken in the avatar's own voice (a female one
// for ava, a male one for bram), or in the one --voice gives every avatar.
TEST(Serve, SaysTextInTheAvatarsVoiceOrTheOneAskedFor) {
  using Voices = std::map<std::string, std::string>;
  for (const bool asked : {false, true}) {
    Server server(asked ? std::vector<std::string>{"--voice", "de"} : std::vector<std::string>{});
    Voices voices;
    const nlohmann::json avatars = server.call(http::verb::get, "/v1/avatars").json();
    for (const auto& a : avatars["avatars"]) voices[a.value("code", "")] = a.value("voice", "");
    const Voices expected = asked ? Voices{{"ava", "de"}, {"bram", "de"}}
                                  : Voices{{"ava", "en-us+f3"}, {"bram", "en-us+m3"}};
    EXPECT_EQ(voices, expected);
    const std::string id = server.readySession("ava").value("id", "");
    const Reply said = server.postJson("/v1/sessions/" + id + "/say", {{"text", "Hello there."}});
    ASSERT_EQ(said.status, 202) << said.body;
    EXPECT_GE(said.json().value("utterance", 0), 1);
    EXPECT_EQ(said.json().value("voice", ""), voices["ava"]);
  }
}

// A child that asks to be respawned (exit status 3: its engine failed two segments in a row) is
// replaced, and the session carries on.
TEST(Serve, AChildAskingForARespawnGetsOne) {
  const fs::path dir = scratchDir("serve-respawn");
  Server server({"--render-processes", "per-session"}, {}, {"LUMORA2_AUDIO_PREPROC=linear"},
                faultyFamily());
  const nlohmann::json session = server.readySession("ava");
  const std::string id = session.value("id", "");
  // Recordings the faulty student cannot take (NaN), each one utterance.
  std::vector<float> audio(40 * 800, 0.0f);
  std::fill_n(audio.begin() + 8000, 12000, std::nanf(""));
  writeWav(dir / "nan.wav", audio, true);
  const std::string nan = readFile(dir / "nan.wav");
  for (int k = 0; k < 2; ++k) {
    EXPECT_EQ(server.call(http::verb::post, "/v1/sessions/" + id + "/speech", nan).status, 202);
  }
  nlohmann::json status;
  const auto deadline = Clock::now() + std::chrono::seconds(60);
  while (Clock::now() < deadline) {
    status = server.call(http::verb::get, "/v1/sessions/" + id).json();
    if (status.value("respawns", 0) >= 1 && status.value("child", "") == "ready") break;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_GE(status.value("respawns", 0), 1) << status.dump();
  EXPECT_EQ(status.value("state", ""), "live") << status.dump();
  EXPECT_NE(status.value("child_pid", -1), session.value("child_pid", -1));
}

// Three sessions speaking on one shared render process, which is killed: each moves to a new
// process, its segment is sent again, and every frame of its speech comes.
TEST(Serve, ASharedRenderProcessKilledMovesItsSessions) {
  Server server({"--render-processes", "1"});
  std::vector<nlohmann::json> sessions;
  for (const char* avatar : {"ava", "bram", "ava"}) sessions.push_back(server.readySession(avatar));
  const pid_t shared = sessions[0].value("child_pid", -1);
  ASSERT_TRUE(alive(shared));
  const std::string speech = speechWav(scratchDir("serve-shared-kill"), 6.0);
  for (const auto& s : sessions) {
    const std::string target = "/v1/sessions/" + s.value("id", "") + "/speech";
    EXPECT_EQ(s.value("child_pid", -1), shared);
    EXPECT_EQ(server.call(http::verb::post, target, speech).status, 202);
  }
  ::kill(shared, SIGKILL);
  for (const auto& s : sessions) {
    // However slow the build: a minute for four seconds of frames.
    const nlohmann::json status = server.awaitStatus(
        s.value("id", ""),
        [](const auto& now) {
          return now.value("respawns", 0) >= 1 && now.value("frames_rendered", 0) >= 80;
        },
        std::chrono::seconds(60));
    EXPECT_EQ(status.value("state", ""), "live") << status.dump();
    EXPECT_EQ(status.value("child", ""), "ready") << status.dump();
    EXPECT_GE(status.value("frames_rendered", 0), 80) << status.dump();
    EXPECT_NE(status.value("child_pid", -1), shared);
    EXPECT_TRUE(alive(status.value("child_pid", -1)));
  }
}

}  // namespace
}  // namespace lumora2::family::test
