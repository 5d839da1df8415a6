#include "serve_support.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <thread>

#include "render_test_support.h"

extern char** environ;

namespace lumora2::family::test {

namespace fs = std::filesystem;

std::string Reply::header(const std::string& name) const {
  const auto it = headers.find(name);
  return it == headers.end() ? "" : it->second;
}

Server::Server(const std::vector<std::string>& extra, const fs::path& tmp,
               const std::vector<std::string>& env, const fs::path& family) {
  std::vector<std::string> args = {
      LUMORA2_SERVE_BIN, "--engine",      (family / "vivra.model").string(),
      "--avatars",       family.string(), "--listen",
      "127.0.0.1:0",     "--host",        LUMORA2_MODEL_BIN};
  args.insert(args.end(), extra.begin(), extra.end());
  int out[2];
  EXPECT_EQ(::pipe(out), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_addclose(&actions, out[0]);
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  std::vector<std::string> environment(env);
  for (char** e = environ; *e != nullptr; ++e) {
    if (tmp.empty() || std::strncmp(*e, "TMPDIR=", 7) != 0) environment.emplace_back(*e);
  }
  if (!tmp.empty()) environment.push_back("TMPDIR=" + tmp.string());
  std::vector<char*> envp;
  for (std::string& e : environment) envp.push_back(e.data());
  envp.push_back(nullptr);
  EXPECT_EQ(posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data()), 0);
  posix_spawn_file_actions_destroy(&actions);
  ::close(out[1]);
  // "lumora2-serve: listening on http://127.0.0.1:PORT/ …"
  char c = 0;
  while (::read(out[0], &c, 1) == 1 && c != '\n') banner_ += c;
  out_ = out[0];
  const std::size_t colon = banner_.rfind(':', banner_.find("/ "));
  if (banner_.find("listening on") != std::string::npos && colon != std::string::npos) {
    port_ = static_cast<unsigned short>(std::stoi(banner_.substr(colon + 1)));
  }
  EXPECT_NE(port_, 0) << "lumora2-serve did not start: " << banner_;
}

Server::~Server() {
  if (pid_ > 0) {
    ::kill(pid_, SIGTERM);
    if (waitFor(std::chrono::seconds(30)) < 0) {
      ::kill(pid_, SIGKILL);
      waitFor(std::chrono::seconds(5));
    }
  }
  if (out_ >= 0) ::close(out_);
}

int Server::waitFor(std::chrono::seconds limit) {
  const auto deadline = Clock::now() + limit;
  int raw = 0;
  while (Clock::now() < deadline) {
    if (::waitpid(pid_, &raw, WNOHANG) == pid_) {
      pid_ = -1;
      return WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return -1;
}

Reply Server::call(http::verb method, const std::string& target, const std::string& body,
                   const std::map<std::string, std::string>& headers) const {
  net::io_context io;
  beast::tcp_stream stream(io);
  stream.expires_after(std::chrono::seconds(30));
  Reply reply;
  beast::error_code ec;
  stream.connect(tcp::endpoint(net::ip::make_address("127.0.0.1"), port_), ec);
  if (ec) return reply;
  http::request<http::string_body> req{method, target, 11};
  req.set(http::field::host, "127.0.0.1");
  for (const auto& [k, v] : headers) req.set(k, v);
  req.body() = body;
  req.prepare_payload();
  http::write(stream, req, ec);
  beast::flat_buffer buffer;
  http::response<http::string_body> res;
  http::read(stream, buffer, res, ec);
  if (ec) return reply;
  reply.status = int(res.result_int());
  reply.body = res.body();
  for (const auto& field : res) reply.headers[std::string(field.name_string())] = field.value();
  return reply;
}

Reply Server::postJson(const std::string& target, const nlohmann::json& body) const {
  return call(http::verb::post, target, body.dump(), {{"Content-Type", "application/json"}});
}

nlohmann::json Server::readySession(const std::string& avatar) const {
  const Reply created = postJson("/v1/sessions", {{"avatar", avatar}});
  EXPECT_EQ(created.status, 201) << created.body;
  const nlohmann::json status = awaitStatus(
      created.json().value("id", ""), [](const auto& s) { return s.value("child", "") == "ready"; },
      std::chrono::seconds(60));
  EXPECT_EQ(status.value("child", ""), "ready") << status.dump();
  return status;
}

nlohmann::json Server::awaitStatus(const std::string& id,
                                   const std::function<bool(const nlohmann::json&)>& done,
                                   std::chrono::seconds limit) const {
  const auto deadline = Clock::now() + limit;
  nlohmann::json status;
  while (Clock::now() < deadline) {
    status = call(http::verb::get, "/v1/sessions/" + id).json();
    if (done(status)) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return status;
}

std::unique_ptr<WebSocket> Server::audioSocket(net::io_context& io, const std::string& id) const {
  auto ws = std::make_unique<WebSocket>(io);
  beast::get_lowest_layer(*ws).expires_after(std::chrono::seconds(20));
  beast::get_lowest_layer(*ws).connect(tcp::endpoint(net::ip::make_address("127.0.0.1"), port_));
  beast::get_lowest_layer(*ws).expires_never();
  ws->set_option(websocket::stream_base::timeout::suggested(beast::role_type::client));
  ws->handshake("127.0.0.1", "/v1/sessions/" + id + "/audio");
  return ws;
}

long Server::peakKiB() const {
  const std::string status = readFile("/proc/" + std::to_string(pid_) + "/status");
  const std::size_t at = status.find("VmHWM:");
  return at == std::string::npos ? 0 : std::stol(status.substr(at + 6));
}

bool alive(pid_t pid) { return pid > 0 && ::kill(pid, 0) == 0; }

std::string speechWav(const fs::path& dir, double seconds) {
  std::vector<float> audio(std::size_t(seconds * kRate), 0.0f);
  for (std::size_t i = kRate / 4; i < audio.size() * 3 / 4; ++i) {
    audio[i] = float(0.3 * std::sin(2 * M_PI * 220.0 * double(i) / kRate));
  }
  writeWav(dir / "speech.wav", audio);
  return readFile(dir / "speech.wav");
}

nlohmann::json readAnswer(WebSocket& ws) {
  for (int i = 0; i < 100; ++i) {
    beast::flat_buffer buffer;
    ws.read(buffer);
    nlohmann::json message =
        nlohmann::json::parse(beast::buffers_to_string(buffer.data()), nullptr, false);
    if (!message.is_object() || !message.contains("event")) return message;
  }
  return nullptr;
}

}  // namespace lumora2::family::test
