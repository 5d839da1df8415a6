// Talking with lumora2-serve as a voice agent does, over real connections on 127.0.0.1: its
// events in order and resumed after the last one seen, text streamed word by word and spoken
// sentence by sentence, interrupts that cut what is queued (and leak nothing, however many), and
// the bad input of each, answered in one line while the session goes on. What a viewer hears and
// when is the browser's test (browser/conversation.test.mjs).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "render_test_support.h"
#include "serve_support.h"

namespace lumora2::family::test {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

// A session's events as Server-Sent Events, read from a connection of its own.
class EventReader {
 public:
  EventReader(const Server& server, const std::string& id, const std::string& lastEventId = "")
      : stream_(io_) {
    stream_.expires_after(std::chrono::seconds(30));
    stream_.connect(tcp::endpoint(net::ip::make_address("127.0.0.1"), server.port()));
    std::string request = "GET /v1/sessions/" + id +
                          "/events HTTP/1.1\r\nHost: 127.0.0.1\r\nAccept: text/event-stream\r\n";
    if (!lastEventId.empty()) request += "Last-Event-ID: " + lastEventId + "\r\n";
    net::write(stream_, net::buffer(request + "\r\n"));
    // Subscribed once the answer's head is there: nothing published after that is missed.
    while (head_.empty() && fill()) {
      if (const std::size_t end = text_.find("\n\n"); end != std::string::npos) {
        head_ = text_.substr(0, end);
        text_.erase(0, end + 2);
      }
    }
  }
  // The next event, or null when none came within `limit` or the stream ended.
  nlohmann::json next(std::chrono::seconds limit = std::chrono::seconds(20)) {
    stream_.expires_after(limit);
    for (;;) {
      const std::size_t end = text_.find("\n\n");
      if (end == std::string::npos) {
        if (!fill()) return nullptr;
        continue;
      }
      const std::string block = text_.substr(0, end);
      text_.erase(0, end + 2);
      if (const std::size_t data = block.find("data: "); data != std::string::npos) {
        return nlohmann::json::parse(block.substr(data + 6, block.find('\n', data) - data - 6));
      }
    }
  }
  // The next event named `name` (those before it are kept in `seen`).
  nlohmann::json until(const std::string& name) {
    for (nlohmann::json e = next(); !e.is_null(); e = next()) {
      seen.push_back(e);
      if (e.value("event", "") == name) return e;
    }
    return nullptr;
  }
  const std::string& head() const { return head_; }
  std::vector<nlohmann::json> seen;

 private:
  // What came next, "\r\n" read as "\n" so that the header's blank line ends a block too.
  bool fill() {
    char chunk[4096];
    beast::error_code ec;
    const std::size_t n = stream_.read_some(net::buffer(chunk), ec);
    if (ec) return false;
    text_.append(chunk, n);
    for (std::size_t at; (at = text_.find("\r\n")) != std::string::npos;) text_.erase(at, 1);
    return true;
  }

  net::io_context io_;
  beast::tcp_stream stream_;
  std::string text_, head_;
};

std::vector<std::string> names(const std::vector<nlohmann::json>& events) {
  std::vector<std::string> out;
  for (const auto& e : events) out.push_back(e.value("event", ""));
  return out;
}

Reply interrupt(const Server& server, const std::string& id) {
  return server.call(http::verb::post, "/v1/sessions/" + id + "/interrupt", "",
                     {{"Content-Type", "application/json"}});
}

// Queued speech, a text made, an interrupt that drops both, the end: in that order, numbered, the
// same on a stream opened late with Last-Event-ID; an ended session's events are a 404 that says
// why.
TEST(Conversation, EventsComeInOrderAndResumeAfterTheLastOneSeen) {
  Server server({});
  const std::string id = server.readySession("ava").value("id", "");
  EventReader events(server, id);
  const std::string speech = speechWav(scratchDir("serve-conversation-events"));
  EXPECT_EQ(server.call(http::verb::post, "/v1/sessions/" + id + "/speech", speech).status, 202);
  EXPECT_EQ(
      server.postJson("/v1/sessions/" + id + "/say", {{"text", "Hello there. Goodbye."}}).status,
      202);
  const nlohmann::json made = events.until("utterance_made");
  ASSERT_FALSE(made.is_null());
  const Reply cut = interrupt(server, id);
  ASSERT_EQ(cut.status, 200) << cut.body;
  EXPECT_FALSE(cut.json().value("interrupted", true)) << "nothing played: no viewer";
  EXPECT_EQ(cut.json()["dropped"].size(), 2u) << cut.body;
  ASSERT_FALSE(events.until("utterance_interrupted").is_null());
  EXPECT_THAT(names(events.seen),
              ElementsAre("utterance_queued", "utterance_queued", "sentence_made", "sentence_made",
                          "utterance_made", "utterance_interrupted"));
  for (std::size_t k = 0; k < events.seen.size(); ++k) {
    EXPECT_EQ(events.seen[k].value("id", 0u), k + 1);
  }
  EXPECT_EQ(events.seen[2].value("text", ""), "Hello there.");

  EventReader resumed(server, id, "4");
  const nlohmann::json fifth = resumed.next();
  EXPECT_THAT(resumed.head(), HasSubstr("text/event-stream"));
  EXPECT_EQ(fifth.value("id", 0), 5) << fifth.dump();
  EXPECT_EQ(fifth.value("event", ""), "utterance_made");

  EXPECT_EQ(server.call(http::verb::delete_, "/v1/sessions/" + id).status, 204);
  const nlohmann::json ended = events.until("session_ended");
  EXPECT_EQ(ended.value("cause", ""), "deleted");
  EXPECT_TRUE(events.next(std::chrono::seconds(5)).is_null()) << "the stream ends with the session";
  const Reply gone = server.call(http::verb::get, "/v1/sessions/" + id + "/events");
  EXPECT_EQ(gone.status, 404);
  EXPECT_THAT(gone.json().value("error", ""), HasSubstr("the session was deleted"));
}

// An agent's words, one every 50 ms: each sentence is made as soon as a later word shows it is
// complete, before the end; {"end": true} speaks the rest; the sentences made are the text sent,
// in order, nothing dropped or repeated.
TEST(Conversation, StreamedTextIsSpokenSentenceBySentenceAsItIsWritten) {
  Server server({});
  const std::string id = server.readySession("bram").value("id", "");
  EventReader events(server, id);
  net::io_context io;
  auto ws = server.audioSocket(io, id);
  const std::string text =
      "Hello there. I am an agent, and I write as I think. Each sentence goes out when it is "
      "done. This one ends the text";
  std::vector<std::string> words;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t space = std::min(text.find(' ', at), text.size());
    words.push_back(text.substr(at, space + 1 - at));
    at = space + 1;
  }
  ws->text(true);
  bool firstBeforeEnd = false;
  for (const std::string& word : words) {
    ws->write(net::buffer(nlohmann::json{{"text", word}}.dump()));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    if (word == "I " && !firstBeforeEnd) {
      // "Hello there." is complete once the next word came.
      const nlohmann::json first = events.until("sentence_made");
      firstBeforeEnd = first.value("text", "") == "Hello there.";
    }
  }
  EXPECT_TRUE(firstBeforeEnd) << "the first sentence waited for the end";
  ws->write(net::buffer(std::string(R"({"end": true})")));
  const nlohmann::json answer = readAnswer(*ws);
  EXPECT_GE(answer.value("utterance", 0), 1) << answer.dump();
  ASSERT_FALSE(events.until("utterance_made").is_null());
  std::string said;
  std::size_t previousEnd = 0;
  for (const auto& e : events.seen) {
    if (e.value("event", "") != "sentence_made") continue;
    if (!said.empty()) said += ' ';
    said += e.value("text", "");
    EXPECT_EQ(e.value("start", 0u), previousEnd) << "a gap or an overlap before " << e.dump();
    previousEnd = e.value("end", 0u);
  }
  EXPECT_EQ(said, text);
  EXPECT_EQ(events.seen.front().value("kind", ""), "text_stream");
}

// Text and PCM never mix within one utterance, whichever comes first; each refusal is one line,
// the socket closes, the session goes on.
TEST(Conversation, TextAndPcmNeverMixInOneUtterance) {
  Server server({});
  const std::vector<std::int16_t> pcm(1600, 500);
  std::string id;
  for (const bool textFirst : {false, true}) {
    // A session each: the first socket's stream ends only once its close reaches the server.
    id = server.readySession("ava").value("id", "");
    net::io_context io;
    auto ws = server.audioSocket(io, id);
    ws->text(textFirst);
    if (textFirst) {
      ws->write(net::buffer(std::string(R"({"text": "Hello. How"})")));
      ws->binary(true);
      ws->write(net::buffer(pcm.data(), pcm.size() * 2));
    } else {
      ws->binary(true);
      ws->write(net::buffer(pcm.data(), pcm.size() * 2));
      ws->text(true);
      ws->write(net::buffer(std::string(R"({"text": "Hello."})")));
    }
    EXPECT_THAT(readAnswer(*ws).value("error", ""),
                HasSubstr(textFirst ? "the open utterance is text" : "the open utterance is PCM"));
  }
  EXPECT_EQ(server.call(http::verb::get, "/v1/sessions/" + id).json().value("state", ""), "live");
}

// What a process holds: threads, open descriptors, children, resident memory (KiB).
struct Holdings {
  long threads = 0, descriptors = 0, children = 0, residentKiB = 0;
};

Holdings holdings(pid_t pid) {
  Holdings h;
  const std::string proc = "/proc/" + std::to_string(pid);
  for (const auto& task : fs::directory_iterator(proc + "/task")) {
    ++h.threads;
    std::ifstream children(task.path() / "children");
    for (long child; children >> child;) ++h.children;
  }
  for (const auto& e : fs::directory_iterator(proc + "/fd")) h.descriptors += e.exists() ? 1 : 0;
  const std::string status = readFile(proc + "/status");
  h.residentKiB = std::stol(status.substr(status.find("VmRSS:") + 6));
  return h;
}

// An interrupt with nothing playing changes nothing; two hundred in a row, each cutting a text
// just said, leave the server's threads, descriptors, children and memory where they were, and
// the session and its child as they were.
TEST(Conversation, TwoHundredInterruptsLeakNothing) {
  Server server({});
  const nlohmann::json session = server.readySession("ava");
  const std::string id = session.value("id", "");
  const Reply idle = interrupt(server, id);
  EXPECT_EQ(idle.status, 200);
  EXPECT_FALSE(idle.json().value("interrupted", true));
  EXPECT_TRUE(idle.json()["dropped"].empty());
  // The allocator's arenas and the event ring reach their size within the first tens of rounds:
  // growth is counted after them.
  for (int warm = 0; warm < 50; ++warm) {
    server.postJson("/v1/sessions/" + id + "/say", {{"text", "Warming up."}});
    interrupt(server, id);
  }
  // The server reads every avatar's idle clip at start, behind the rendering: the count begins
  // once no clip file is open.
  auto readingAClip = [&] {
    for (const auto& fd : fs::directory_iterator("/proc/" + std::to_string(server.pid()) + "/fd")) {
      std::error_code ec;
      if (fs::read_symlink(fd.path(), ec).filename() == "idle.mp4") return true;
    }
    return false;
  };
  for (int i = 0; i < 600 && readingAClip(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  std::this_thread::sleep_for(std::chrono::seconds(1));
  const Holdings before = holdings(server.pid());
  for (int i = 0; i < 200; ++i) {
    server.postJson("/v1/sessions/" + id + "/say", {{"text", "Hi there, one more time."}});
    ASSERT_EQ(interrupt(server, id).status, 200);
  }
  // A leak holds more for good; a request's thread still ending goes within seconds, and one
  // closed meanwhile (a connection ending) is no fault.
  Holdings after;
  for (int i = 0; i < 100; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    after = holdings(server.pid());
    if (i >= 20 && after.threads <= before.threads && after.descriptors <= before.descriptors &&
        after.children <= before.children) {
      break;
    }
  }
  EXPECT_LE(after.threads, before.threads);
  EXPECT_LE(after.descriptors, before.descriptors);
  EXPECT_LE(after.children, before.children);
  if (!kAddressSanitized) {
    EXPECT_LT(after.residentKiB, before.residentKiB + 16 * 1024);
  }
  const nlohmann::json status = server.call(http::verb::get, "/v1/sessions/" + id).json();
  EXPECT_EQ(status.value("state", ""), "live");
  EXPECT_EQ(status.value("respawns", -1), 0);
  EXPECT_EQ(status.value("child_pid", 0), session.value("child_pid", -1));
  EXPECT_EQ(status.value("utterances_queued", -1), 0);
}

}  // namespace
}  // namespace lumora2::family::test
