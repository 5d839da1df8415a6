// render-stream through the real lumora2-model and its render host on the packed reference
// family, driven the way a parent drives it: messages on standard input, frame records and
// markers read back from standard output, status and standard error checked at the end.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "family_fixture.h"

namespace lumora2::family::test {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

constexpr std::size_t kFrameBytes = 416 * 720 * 3;
constexpr std::uint32_t kMarker = 0xFFFFFFFF;

std::vector<std::uint8_t> word(std::uint32_t value) {
  return {static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8),
          static_cast<std::uint8_t>(value >> 16), static_cast<std::uint8_t>(value >> 24)};
}

template <typename... Parts>
std::vector<std::uint8_t> cat(const Parts&... parts) {
  std::vector<std::uint8_t> out;
  (out.insert(out.end(), parts.begin(), parts.end()), ...);
  return out;
}

// An audio message of `count` samples of a 220 Hz tone (NaN when `nan`).
std::vector<std::uint8_t> audio(std::uint32_t count, bool nan = false) {
  std::vector<std::uint8_t> out = word(count);
  for (std::uint32_t i = 0; i < count; ++i) {
    const float v = nan ? std::nanf("") : 0.3f * float(std::sin(2.0 * M_PI * 220.0 * i / 16000.0));
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&v);
    out.insert(out.end(), bytes, bytes + 4);
  }
  return out;
}

struct Record {
  std::uint32_t pos;
  std::vector<std::uint8_t> rgb;
};

// One render-stream child with pipes on all three standard streams.
class Child {
 public:
  // Serves ava of the packed family in `familyRoot` (the shared reference family by default);
  // `preproc`, when given, is the child's LUMORA2_AUDIO_PREPROC.
  explicit Child(const fs::path& tmp, const fs::path& familyRoot = generatedFamily().root,
                 const char* preproc = nullptr) {
    int in[2], out[2], err[2];
    if (pipe(in) != 0 || pipe(out) != 0 || pipe(err) != 0) throw std::runtime_error("pipe");
    const std::string avatar = (familyRoot / "ava.avatar").string();
    const std::string engine = (familyRoot / "vivra.model").string();
    pid_ = fork();
    if (pid_ == 0) {
      dup2(in[0], 0);
      dup2(out[1], 1);
      dup2(err[1], 2);
      for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) close(fd);
      setenv("TMPDIR", tmp.c_str(), 1);
      if (preproc != nullptr) setenv("LUMORA2_AUDIO_PREPROC", preproc, 1);
      execl(LUMORA2_MODEL_BIN, LUMORA2_MODEL_BIN, "render-stream", avatar.c_str(), "--engine",
            engine.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    in_ = in[1];
    out_ = out[0];
    err_ = err[0];
    for (char c = 0; ::read(out_, &c, 1) == 1 && c != '\n';) header += c;
  }
  ~Child() {
    if (in_ >= 0) close(in_);
    if (out_ >= 0) close(out_);
    close(err_);
    if (pid_ > 0 && status_ < 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }

  // Sends the bytes, `chunk` at a time (every byte boundary with 1).
  void send(const std::vector<std::uint8_t>& bytes, std::size_t chunk = 1 << 20) {
    for (std::size_t at = 0; at < bytes.size(); at += chunk) {
      const std::size_t n = std::min(chunk, bytes.size() - at);
      ASSERT_EQ(::write(in_, bytes.data() + at, n), static_cast<ssize_t>(n));
    }
  }
  void closeInput() {
    close(in_);
    in_ = -1;
  }
  // Sends from a thread of its own, for messages larger than the child takes while its frames are
  // not read.
  std::thread sendInBackground(std::vector<std::uint8_t> bytes) {
    return std::thread([this, bytes = std::move(bytes)] {
      for (std::size_t at = 0; at < bytes.size();) {
        const ssize_t n = ::write(in_, bytes.data() + at, bytes.size() - at);
        if (n <= 0) return;  // the child has gone
        at += std::size_t(n);
      }
    });
  }
  // The parent stops listening: the child's next write finds no reader.
  void closeOutput() {
    close(out_);
    out_ = -1;
  }
  // Frame records up to and including the next marker (the marker itself is not returned).
  std::vector<Record> segment() {
    std::vector<Record> records;
    for (;;) {
      std::uint8_t w[4];
      if (!readExactly(w, 4)) throw std::runtime_error("standard output ended inside a segment");
      const std::uint32_t value =
          w[0] | w[1] << 8 | w[2] << 16 | static_cast<std::uint32_t>(w[3]) << 24;
      if (value == kMarker) return records;
      Record r{value, std::vector<std::uint8_t>(kFrameBytes)};
      if (!readExactly(r.rgb.data(), kFrameBytes)) throw std::runtime_error("short frame record");
      records.push_back(std::move(r));
    }
  }
  // The rest of standard output (byte count) and standard error, then the exit status.
  int finish(std::size_t* restOfOutput = nullptr) {
    std::vector<std::uint8_t> rest(1 << 16);
    std::size_t total = 0;
    for (ssize_t n; (n = ::read(out_, rest.data(), rest.size())) > 0;) total += n;
    if (restOfOutput != nullptr) *restOfOutput = total;
    char buffer[4096];
    for (ssize_t n; (n = ::read(err_, buffer, sizeof buffer)) > 0;) stderr_.append(buffer, n);
    int status = 0;
    waitpid(pid_, &status, 0);
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return status_;
  }
  const std::string& errorText() const { return stderr_; }
  pid_t pid() const { return pid_; }
  // Sends `seconds` of audio and a flush from a thread of its own, and returns once the first
  // frame record has begun.
  std::thread rendering(int seconds) {
    std::thread sender = sendInBackground(cat(audio(seconds * 16000), word(kMarker)));
    std::uint8_t first[4];
    EXPECT_EQ(::read(out_, first, 4), 4) << "no frame record began";
    return sender;
  }
  std::string header;  // the READY line

 private:
  bool readExactly(std::uint8_t* into, std::size_t size) {
    while (size > 0) {
      const ssize_t n = ::read(out_, into, size);
      if (n <= 0) return false;
      into += n;
      size -= static_cast<std::size_t>(n);
    }
    return true;
  }

  pid_t pid_ = -1;
  int in_ = -1, out_ = -1, err_ = -1;
  int status_ = -1;
  std::string stderr_;
};

class RenderStream : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!generatedFamily().packed) GTEST_SKIP() << "the family is packed only with the host built";
    ::setenv("LUMORA2_MLMODELC_CACHE", (generatedFamily().root / "stream-cache").c_str(), 1);
  }
  void TearDown() override {
    EXPECT_TRUE(fs::is_empty(tmp)) << "a working directory was left behind";
  }
  fs::path tmp = scratchDir("render-stream-tmp");
};

TEST_F(RenderStream, ServesUtterancesAsFramesOfRealAudioThenAMarker) {
  Child child(tmp);
  EXPECT_EQ(child.header,
            "READY {\"fps\":20,\"width\":416,\"height\":720,\"sample_rate\":16000,"
            "\"decoder\":\"dec_p2_v3/all\"}");
  for (int utterance = 0; utterance < 2; ++utterance) {
    child.send(cat(audio(30000), word(kMarker)));
    const std::vector<Record> frames = child.segment();
    // Exactly the frames whose centre lies in the 30,000 samples: positions 0 to 36.
    ASSERT_EQ(frames.size(), 37u) << "utterance " << utterance;
    for (std::size_t i = 0; i < frames.size(); ++i) EXPECT_EQ(frames[i].pos, i);
    EXPECT_EQ(frames[0].rgb, frames[1].rgb);
    EXPECT_NE(frames[1].rgb, frames[2].rgb);
    // Pixels come in R, G, B order: ava's teal shirt (46, 122, 106) at the bottom left.
    const std::uint8_t* shirt = frames[2].rgb.data() + (710 * 416 + 100) * 3;
    EXPECT_NEAR(shirt[0], 46, 12);
    EXPECT_NEAR(shirt[1], 122, 12);
    EXPECT_NEAR(shirt[2], 106, 12);
  }
  child.send(word(kMarker));  // a flush with nothing new: only a marker
  EXPECT_TRUE(child.segment().empty());
  child.send(word(0));
  std::size_t rest = 0;
  EXPECT_EQ(child.finish(&rest), 0) << child.errorText();
  EXPECT_EQ(rest, 0u);
  EXPECT_THAT(child.errorText(), HasSubstr("[render-stream] stdin closed — exiting (produced "));
}

// The same short utterance arrives whole and split at every byte boundary, with a no-op and a
// reset first: the answer is the same two frames and a marker.
TEST_F(RenderStream, MessagesSplitAtEveryByteBoundaryReadTheSame) {
  Child child(tmp);
  const std::vector<std::uint8_t> message =
      cat(word(0xFFFFFFFD), word(12345), word(0xFFFFFFFE), audio(2000), word(kMarker));
  for (const std::size_t chunk : {message.size(), std::size_t{1}}) {
    child.send(message, chunk);
    const std::vector<Record> frames = child.segment();
    ASSERT_EQ(frames.size(), 2u) << "chunk " << chunk;
    EXPECT_EQ(frames[0].pos, 0u);
    EXPECT_EQ(frames[1].pos, 1u);
  }
  // Standard input ending inside a payload: the partial audio is dropped, status 0.
  std::vector<std::uint8_t> partial = audio(1000);
  partial.resize(partial.size() / 2);
  child.send(partial);
  child.closeInput();
  EXPECT_EQ(child.finish(), 0) << child.errorText();
}

// The family's faulty student refuses non-finite audio (the linear preprocessing lets NaN reach
// it), so NaN utterances end in failed segments. A good segment between two failed ones resets
// the count; two failed segments in a row end the process with status 3 after the second marker,
// leaving the working directory for the respawned child's parent to see.
TEST_F(RenderStream, TwoFailedSegmentsInARowAskForARespawn) {
  Child child(tmp, faultyFamily(), "linear");
  const std::vector<std::uint8_t> nan = audio(25600, true);
  auto segment = [&](const std::vector<std::uint8_t>& message) {
    child.send(cat(message, word(kMarker)));
    return child.segment();
  };
  EXPECT_TRUE(segment(nan).empty());             // failed: 1
  child.send(word(0xFFFFFFFE));                  // a reset does not save the process
  EXPECT_EQ(segment(audio(30000)).size(), 37u);  // a good segment resets the count
  child.send(word(0xFFFFFFFE));
  EXPECT_TRUE(segment(nan).empty());  // failed: 1 again
  child.send(word(0xFFFFFFFE));
  EXPECT_TRUE(segment(nan).empty());  // failed: 2, marker written, then status 3
  EXPECT_EQ(child.finish(), 3) << child.errorText();
  EXPECT_THAT(child.errorText(), HasSubstr("FAILED (transient ANE error survived retry) — 1 "
                                           "consecutive; recovers on next reset"));
  EXPECT_THAT(child.errorText(), HasSubstr("— 2 consecutive; recovers on next reset"));
  EXPECT_THAT(child.errorText(),
              HasSubstr("[render-stream] engine failed 2 consecutive segments — exiting for a "
                        "fresh respawn"));
  fs::remove_all(tmp);  // the working directory stays on this path, by design
  fs::create_directories(tmp);
}

// A reset ends the utterance at once: the frames already rendered are written, and no marker; the
// next utterance starts again at position 0, and one marker follows it.
TEST_F(RenderStream, AResetWritesTheReadyFramesWithoutAMarker) {
  Child child(tmp);
  std::thread sender =
      child.sendInBackground(cat(audio(30000), word(0xFFFFFFFE), audio(30000), word(kMarker)));
  const std::vector<Record> frames = child.segment();
  sender.join();
  ASSERT_GE(frames.size(), 37u);
  const std::size_t cut = frames.size() - 37;  // the frames the reset found ready
  EXPECT_LE(cut, 37u);
  for (std::size_t i = 0; i < cut; ++i) EXPECT_EQ(frames[i].pos, i);
  for (std::size_t i = 0; i < 37; ++i) EXPECT_EQ(frames[cut + i].pos, i);
  child.closeInput();
  std::size_t rest = 0;
  EXPECT_EQ(child.finish(&rest), 0) << child.errorText();
  EXPECT_EQ(rest, 0u) << "output after the one marker";
}

// A parent that stops reading holds the child back: it stops taking audio (the sender blocks) and
// drops nothing; when the parent reads again, every frame arrives in order.
TEST_F(RenderStream, AParentThatStopsReadingHoldsTheChildBackAndLosesNothing) {
  Child child(tmp);
  std::vector<std::uint8_t> bytes;  // 20 s in messages of half a second
  for (int i = 0; i < 40; ++i) bytes = cat(bytes, audio(8000));
  bytes = cat(bytes, word(kMarker));
  std::atomic<bool> sent{false};
  std::thread sender([&] {
    child.sendInBackground(std::move(bytes)).join();
    sent = true;
  });
  std::this_thread::sleep_for(std::chrono::seconds(3));
  EXPECT_FALSE(sent) << "the child took 20 s of audio while nobody read its frames";
  const std::vector<Record> frames = child.segment();
  sender.join();
  ASSERT_EQ(frames.size(), 400u);
  for (std::size_t i = 0; i < frames.size(); ++i) ASSERT_EQ(frames[i].pos, i);
  child.closeInput();
  EXPECT_EQ(child.finish(), 0) << child.errorText();
}

// A parent that goes away while frames are being written: the child ends quietly with one line,
// status 0, and removes its working directory (the fixture checks).
TEST_F(RenderStream, AParentThatGoesAwayEndsTheChildQuietly) {
  Child child(tmp);
  std::thread sender = child.rendering(4);
  child.closeOutput();
  sender.join();  // ends once the child has gone
  child.closeInput();
  EXPECT_EQ(child.finish(), 0) << child.errorText();
  EXPECT_THAT(child.errorText(),
              HasSubstr("[render-stream] standard output closed (the parent went away) — exiting"));
}

// Each signal, while the child waits for audio and while it renders, ends it with 128 + n after
// one line, its working directory removed.
class RenderStreamSignal : public RenderStream,
                           public ::testing::WithParamInterface<std::tuple<int, bool>> {};

TEST_P(RenderStreamSignal, EndsWith128PlusTheSignalAndRemovesItsDirectory) {
  const auto [signal, rendering] = GetParam();
  Child child(tmp);
  std::thread sender = rendering ? child.rendering(10) : std::thread();
  kill(child.pid(), signal);
  EXPECT_EQ(child.finish(), 128 + signal) << child.errorText();
  if (sender.joinable()) sender.join();
  EXPECT_THAT(child.errorText(), HasSubstr("[render-stream] signal " + std::to_string(signal)));
}

INSTANTIATE_TEST_SUITE_P(Signals, RenderStreamSignal,
                         ::testing::Combine(::testing::Values(SIGTERM, SIGINT, SIGHUP),
                                            ::testing::Bool()),
                         [](const auto& p) {
                           return "signal" + std::to_string(std::get<0>(p.param)) +
                                  (std::get<1>(p.param) ? "_rendering" : "_idle");
                         });

}  // namespace
}  // namespace lumora2::family::test
