// lumora2-render and render-stream when things go wrong: inputs that cannot be rendered, outputs
// that must not be replaced, containers swapped or damaged, a full disk, a child that stops
// answering, a TERM signal. Each ends with one `error:` line and exit status 1 (the signal with
// the signal's own status), the inputs untouched and nothing left behind.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <fstream>
#include <functional>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "family_fixture.h"
#include "render_test_support.h"

namespace lumora2::family::test {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Clock = std::chrono::steady_clock;

// A 220 Hz tone whose loudness swings 2.5 times a second (the mouth moves, the video does not
// compress to nothing), `seconds` long, then `pause` seconds of silence, `repeats` times.
std::vector<float> speech(double seconds, double pause = 0, int repeats = 1) {
  std::vector<float> audio;
  for (int r = 0; r < repeats; ++r) {
    for (std::size_t i = 0; i < std::size_t(seconds * kRate); ++i) {
      const double t = double(i) / kRate;
      audio.push_back(float((0.2 + 0.8 * std::abs(std::sin(2 * M_PI * 2.5 * t))) * 0.5 *
                            std::sin(2 * M_PI * 220.0 * t)));
    }
    audio.resize(audio.size() + std::size_t(pause * kRate), 0.0f);
  }
  return audio;
}

std::vector<std::string> errorLines(const std::string& err) {
  std::vector<std::string> lines;
  std::istringstream in(err);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("error: ", 0) == 0) lines.push_back(line);
  }
  return lines;
}

// Runs lumora2-render with `args` in a process of its own: TMPDIR is `tmp`, standard output and
// error go to files in `logs`, and `prepare` runs in that process just before the exec.
pid_t startRender(const std::vector<std::string>& args, const fs::path& tmp, const fs::path& logs,
                  const std::function<void()>& prepare = {}) {
  std::vector<std::string> argv = {renderBin().string()};
  argv.insert(argv.end(), args.begin(), args.end());
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::setenv("TMPDIR", tmp.c_str(), 1);
    ::dup2(::open((logs / "stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
    ::dup2(::open((logs / "stderr").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
    if (prepare) prepare();
    std::vector<char*> raw;
    for (std::string& a : argv) raw.push_back(a.data());
    raw.push_back(nullptr);
    ::execv(raw[0], raw.data());
    ::_exit(127);
  }
  return pid;
}

int statusOf(int raw) { return WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw); }

// A render's working directory: the inputs (copies of the family's containers, so that a broken
// refusal can only ever replace these), the child's TMPDIR and the logs.
class RenderRobustness : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(generatedFamily().packed);
    ::setenv("LUMORA2_MLMODELC_CACHE", (generatedFamily().root / "render-cache").c_str(), 1);
    dir_ = scratchDir("render-robust");
    tmp_ = scratchDir("render-robust-tmp");
    logs_ = scratchDir("render-robust-logs");
    fs::copy_file(avatarFile(), dir_ / "ava.avatar");
    fs::copy_file(engineFile(), dir_ / "vivra.model");
    writeWav(dir_ / "in.wav", speech(1.0));
  }

  std::vector<std::string> args(const fs::path& out, const fs::path& audio) const {
    const std::string avatar = dir_ / "ava.avatar", engine = dir_ / "vivra.model";
    return {avatar, "--engine", engine, "--audio", audio, "-o", out};
  }

  // Snapshots the inputs for expectCleanFailure().
  void remember() {
    before_ = namesIn(dir_);
    for (const char* f : {"ava.avatar", "vivra.model", "in.wav"}) {
      contents_.push_back(readFile(dir_ / f));
    }
  }

  // Exit status 1, exactly one `error:` line (the last) holding `message`, the inputs as they
  // were, no new file beside them and an empty TMPDIR.
  void expectCleanFailure(int status, const std::string& message) {
    const std::string err = readFile(logs_ / "stderr");
    EXPECT_EQ(status, 1) << err;
    const std::vector<std::string> errors = errorLines(err);
    ASSERT_EQ(errors.size(), 1u) << err;
    EXPECT_THAT(errors[0], HasSubstr(message));
    EXPECT_THAT(err, ::testing::EndsWith(errors[0] + "\n"));
    EXPECT_EQ(namesIn(dir_), before_);
    std::size_t i = 0;
    for (const char* f : {"ava.avatar", "vivra.model", "in.wav"}) {
      EXPECT_EQ(readFile(dir_ / f), contents_[i++]) << f << " changed";
    }
    EXPECT_THAT(namesIn(tmp_), IsEmpty()) << "left in TMPDIR";
  }

  int run(const std::vector<std::string>& arguments, const std::function<void()>& prepare = {}) {
    remember();
    int raw = 0;
    ::waitpid(startRender(arguments, tmp_, logs_, prepare), &raw, 0);
    return statusOf(raw);
  }

  // Starts a render of ten utterances; returns once its partial file stands beside the inputs.
  pid_t startWriting() {
    writeWav(dir_ / "in.wav", speech(1.0, 2.5, 10));
    remember();
    const pid_t render = startRender(args(dir_ / "out.mp4", dir_ / "in.wav"), tmp_, logs_);
    auto partial = [&] {
      const std::set<std::string> names = namesIn(dir_);
      return std::any_of(names.begin(), names.end(),
                         [](const std::string& n) { return n.find(".partial-") != n.npos; });
    };
    for (int i = 0; i < 2400 && !partial() && ::waitpid(render, nullptr, WNOHANG) == 0; ++i) {
      ::usleep(50'000);
    }
    EXPECT_TRUE(partial()) << readFile(logs_ / "stderr");
    return render;
  }

  fs::path dir_, tmp_, logs_;
  std::set<std::string> before_;
  std::vector<std::string> contents_;
};

// Refused before a child is started: the host is a script that leaves a mark when it runs.
struct Refusal {
  const char* name;
  // Changes the arguments: [0] the avatar, [2] the engine, [4] the audio, [6] the output.
  std::function<void(std::vector<std::string>& args, const fs::path& dir)> change;
  const char* message;
  std::function<void(const fs::path& dir)> setup = {};  // makes what the case needs in `dir`
  bool unprivileged = false;  // run as "nobody" when root (root may write anywhere)
};

void PrintTo(const Refusal& refusal, std::ostream* out) { *out << refusal.name; }

class RenderRefusal : public RenderRobustness, public ::testing::WithParamInterface<Refusal> {};

TEST_P(RenderRefusal, BeforeAnyWork) {
  const fs::path host = logs_ / "host.sh";
  std::ofstream(host) << "#!/bin/sh\ntouch '" << (logs_ / "spawned").string() << "'\nexit 1\n";
  fs::permissions(host, fs::perms::all);
  if (GetParam().setup) GetParam().setup(dir_);
  std::vector<std::string> a = args(dir_ / "out.mp4", dir_ / "in.wav");
  GetParam().change(a, dir_);
  a.insert(a.end(), {"--host", host.string()});
  const bool drop = GetParam().unprivileged && ::geteuid() == 0;
  const int status = run(a, [drop] {
    if (drop && (::setgid(65534) != 0 || ::setuid(65534) != 0)) ::_exit(99);
  });
  expectCleanFailure(status, GetParam().message);
  EXPECT_FALSE(fs::exists(logs_ / "spawned")) << "a child was started";
  struct stat null {};
  ASSERT_EQ(::stat("/dev/null", &null), 0);
  EXPECT_TRUE(S_ISCHR(null.st_mode)) << "/dev/null was replaced";
}

// The output replaced by `out` (relative to the directory unless absolute).
std::function<void(std::vector<std::string>&, const fs::path&)> outputAs(std::string out) {
  return [out](std::vector<std::string>& a, const fs::path& d) { a[6] = (d / out).string(); };
}

// The audio replaced by `audio` (relative to the directory unless absolute).
std::function<void(std::vector<std::string>&, const fs::path&)> audioAs(std::string audio) {
  return [audio](std::vector<std::string>& a, const fs::path& d) { a[4] = (d / audio).string(); };
}

// The audio replaced by `words` (--text …); "{dir}" stands for the directory.
std::function<void(std::vector<std::string>&, const fs::path&)> instead(
    std::vector<std::string> words) {
  return [words](std::vector<std::string>& a, const fs::path& d) {
    a.erase(a.begin() + 3, a.begin() + 5);
    for (std::string w : words) {
      if (const auto at = w.find("{dir}"); at != std::string::npos) w.replace(at, 5, d.string());
      a.push_back(w);
    }
  };
}

// Words added to the arguments.
std::function<void(std::vector<std::string>&, const fs::path&)> adding(
    std::vector<std::string> words) {
  return [words](std::vector<std::string>& a, const fs::path&) {
    a.insert(a.end(), words.begin(), words.end());
  };
}

// A file `name` in the directory, holding `text`.
std::function<void(const fs::path&)> writing(std::string name, std::string text) {
  return [name, text](const fs::path& d) { std::ofstream(d / name) << text; };
}

using Args = std::vector<std::string>;
INSTANTIATE_TEST_SUITE_P(
    Cases, RenderRefusal,
    ::testing::Values(
        Refusal{"AudioWithoutASoundTrack",
                [](Args& a, const fs::path&) {
                  a[4] = (generatedFamily().avatar("ava") / "idle.mp4").string();
                },
                "has no audio stream"},
        Refusal{"AudioUnreadable", audioAs("notes.txt"), "cannot read audio",
                writing("notes.txt", "not audio at all\n")},
        Refusal{"AudioEmpty", audioAs("empty.wav"), "holds no audio samples",
                [](const fs::path& d) { writeWav(d / "empty.wav", {}); }},
        Refusal{"TextTooLong", instead({"--text-file", "{dir}/long.txt"}),
                "long.txt: the text has 100001 characters; at most 100000",
                writing("long.txt", std::string(100001, 'a'))},
        Refusal{"TextInAScriptTheVoiceCannotSpeak", instead({"--text", "Hello. Привет."}),
                "the voice en-us+f3 cannot speak Cyrillic script"},
        Refusal{"TextFileMissing", instead({"--text-file", "{dir}/absent.txt"}),
                "is not a readable file"},
        Refusal{"UnknownVoice", instead({"--text", "Hi.", "--voice", "nosuch"}), "no voice called"},
        Refusal{"AudioAndText", adding({"--text", "Hi."}), "exclude each other"},
        Refusal{"VoiceWithAudio", adding({"--voice", "ru"}), "goes with --text or --text-file"},
        // The same file by another name: a hard link.
        Refusal{"OutputIsTheAudio", outputAs("link.wav"), "is the audio file",
                [](const fs::path& d) { fs::create_hard_link(d / "in.wav", d / "link.wav"); }},
        Refusal{"OutputIsTheAvatar", outputAs("./ava.avatar"), "is the avatar file"},
        Refusal{"OutputIsTheEngine", outputAs("vivra.model"), "is the engine file"},
        Refusal{"OutputIsADirectory", outputAs("sub"), "sub is a directory",
                [](const fs::path& d) { fs::create_directory(d / "sub"); }},
        Refusal{"OutputIsADevice", outputAs("/dev/null"),
                "/dev/null exists and is not a regular file"},
        Refusal{"OutputDirectoryIsMissing", outputAs("absent/out.mp4"), "absent does not exist"},
        Refusal{"OutputDirectoryIsAFile", outputAs("in.wav/out.mp4"), "in.wav is not a directory"},
        Refusal{"OutputDirectoryIsNotWritable", outputAs("ro/out.mp4"), "ro is not writable",
                [](const fs::path& d) {
                  fs::permissions(d, fs::perms::others_read | fs::perms::others_exec,
                                  fs::perm_options::add);
                  fs::create_directory(d / "ro");
                  fs::permissions(d / "ro", fs::perms::owner_read | fs::perms::owner_exec |
                                                fs::perms::others_read | fs::perms::others_exec);
                },
                true},
        Refusal{"EngineAndAvatarSwapped", [](Args& a, const fs::path&) { std::swap(a[0], a[2]); },
                "ava.avatar is an avatar file, not an engine file; "},
        Refusal{"EngineGivenAsTheAvatar", [](Args& a, const fs::path&) { a[0] = a[2]; },
                "vivra.model is an engine file, not an avatar file"}),
    [](const auto& p) { return std::string(p.param.name); });

// A member with one byte flipped: render-stream digests every member before warming up, refuses
// with one line and removes its working directory; lumora2-render quotes that line.
TEST_F(RenderRobustness, DamagedMemberIsRefusedByTheChild) {
  {
    std::fstream f(dir_ / "ava.avatar", std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(1000);  // inside canon.f32, the first member
    f.put('\x7f');
  }
  const int status = run(args(dir_ / "out.mp4", dir_ / "in.wav"));
  const std::string err = readFile(logs_ / "stderr");
  EXPECT_EQ(status, 1) << err;
  const std::vector<std::string> errors = errorLines(err);
  ASSERT_EQ(errors.size(), 2u) << err;
  EXPECT_EQ(errors[0],
            "error: render-stream ended before it was ready (exit status 1); its last lines:");
  EXPECT_THAT(errors[1],
              ::testing::StartsWith("error: checksum problems: canon: sha mismatch (canon.f32)"));
  EXPECT_EQ(namesIn(dir_), before_);
  EXPECT_THAT(namesIn(tmp_), IsEmpty()) << "the child left its working directory";
}

// A full disk while frames arrive: RLIMIT_FSIZE on lumora2-render alone (the host script lifts it
// for the child, which unpacks megabytes), with SIGXFSZ ignored so that the write fails with
// EFBIG inside the frame callback of a single long utterance.
TEST_F(RenderRobustness, WriteErrorEndsTheChildAndLeavesNothing) {
  const fs::path host = logs_ / "host.sh";
  std::ofstream(host) << "#!/bin/sh\nulimit -f unlimited\nexec '" LUMORA2_MODEL_BIN "' \"$@\"\n";
  fs::permissions(host, fs::perms::all);
  writeWav(logs_ / "long.wav", speech(60.0));
  std::vector<std::string> a = args(dir_ / "out.mp4", logs_ / "long.wav");
  a.insert(a.end(), {"--host", host.string()});
  const int status = run(a, [] {
    const rlimit limit{192 * 1024, RLIM_INFINITY};  // above the extracted idle clip's size
    ::setrlimit(RLIMIT_FSIZE, &limit);
    ::signal(SIGXFSZ, SIG_IGN);
  });
  expectCleanFailure(status, "File too large");
  EXPECT_THAT(readFile(logs_ / "stderr"), ::testing::Not(HasSubstr("terminate")));
}

// The child stopped (SIGSTOP) once it is rendering: the client gives up within the segment's
// limit (about 16 s for these two-second utterances), kills and reaps the child and removes
// everything.
TEST_F(RenderRobustness, StalledChildIsEndedWithinTheSegmentLimit) {
  const pid_t render = startWriting();
  ASSERT_FALSE(HasFailure());
  int raw = 0;
  pid_t child = -1;
  for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(render) + "/task")) {
    std::ifstream children(task.path() / "children");
    if (pid_t p = 0; children >> p) child = p;
  }
  ASSERT_GT(child, 0);
  ASSERT_EQ(::kill(child, SIGSTOP), 0);
  const auto stopped = Clock::now();
  while (::waitpid(render, &raw, WNOHANG) == 0 &&
         Clock::now() - stopped < std::chrono::minutes(1)) {
    ::usleep(50'000);
  }
  const double waited = std::chrono::duration<double>(Clock::now() - stopped).count();
  if (::kill(child, 0) == 0) {  // never leave a stopped process behind
    ::kill(child, SIGKILL);
    ::kill(render, SIGKILL);
    ::waitpid(render, &raw, 0);
    ADD_FAILURE() << "the stopped child was not ended";
  }
  EXPECT_LT(waited, 25.0);
  expectCleanFailure(statusOf(raw), "render-stream stopped answering");
}

// Interrupted while it writes: the partial file goes with the process, and nothing is left in the
// output's directory or in TMPDIR.
TEST_F(RenderRobustness, TermRemovesThePartialFile) {
  const pid_t render = startWriting();
  ASSERT_FALSE(HasFailure());
  ::kill(render, SIGTERM);
  int raw = 0;
  ::waitpid(render, &raw, 0);
  EXPECT_EQ(statusOf(raw), 128 + SIGTERM);
  EXPECT_EQ(namesIn(dir_), before_);
  EXPECT_THAT(namesIn(tmp_), IsEmpty()) << "left in TMPDIR";
}

}  // namespace
}  // namespace lumora2::family::test
