// What a viewer sees where idle and speech meet, and how soon a render starts: the composer's
// seams on real rendered frames (whole picture and the eyes), the seam report against an idle
// clip made one luma level brighter, keyframes that do not pulse, no child for silence, the
// shortened warm-up leaving every rendered byte as it was, where the log lines go and the thread
// settings the child gets.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "client/audio_input.h"
#include "client/composer.h"
#include "client/idle_source.h"
#include "client/picture.h"
#include "client/stream_child.h"
#include "client/utterances.h"
#include "container/sha256.h"
#include "family/identity.h"
#include "family/portrait.h"
#include "family_fixture.h"
#include "render_test_support.h"

namespace lumora2::family::test {
namespace {

namespace fs = std::filesystem;
using render::Composer;
using render::Picture;

// The family's warm-up speech, cut into pieces of `seconds` with `gap` seconds of silence
// between them: utterances as a voice says them, with short and long pauses.
std::vector<float> speechWithPauses(const std::vector<double>& seconds, double gap) {
  const std::vector<float> warm = render::decodeAudio(generatedFamily().engine() / "warm.wav");
  std::vector<float> out(std::size_t(0.4 * kRate), 0.0f);
  std::size_t from = 0;
  for (double s : seconds) {
    const auto n = std::size_t(s * kRate);
    out.insert(out.end(), warm.begin() + long(from), warm.begin() + long(from + n));
    from += n;
    out.insert(out.end(), std::size_t(gap * kRate), 0.0f);
  }
  return out;
}

// A host in `dir` that notes each start in dir/starts before it runs the real lumora2-model:
// whether a render started a child at all.
std::string notingHost(const fs::path& dir) {
  std::ofstream(dir / "host.sh") << "#!/bin/sh\necho start >> '" << (dir / "starts").string()
                                 << "'\nexec '" << LUMORA2_MODEL_BIN << "' \"$@\"\n";
  fs::permissions(dir / "host.sh", fs::perms::owner_all);
  return " --host '" + (dir / "host.sh").string() + "'";
}

// Mean absolute luma difference inside a rectangle.
double cropStep(const Picture& a, const Picture& b, const Rect& r) {
  double sum = 0;
  for (int y = r.y0; y < r.y1; ++y) {
    for (int x = r.x0; x < r.x1; ++x) {
      const std::size_t i = std::size_t(y) * std::size_t(a.width) + std::size_t(x);
      sum += std::abs(int(a.bytes[i]) - int(b.bytes[i]));
    }
  }
  return sum / double(r.width() * r.height());
}

struct SeamCase {
  const char* name;
  const char* avatar;
  std::vector<double> utterances;  // seconds of speech each
  double gap;                      // seconds of silence between them
  // When set, each utterance is cut (an interrupt) this many rendered frames before its end.
  std::size_t cutBefore = 0;
  friend void PrintTo(const SeamCase& c, std::ostream* os) { *os << c.name; }
};

class Seams : public ::testing::TestWithParam<SeamCase> {};

// The recording's utterances rendered by a real child and laid out by the composer: no step at a
// seam exceeds the largest step between neighbouring frames the engine rendered, in the whole
// picture and around the eyes (where blending two different gazes would show as double irises).
// Cut short, the mouth is at rest within four frames of the cut, and the next utterance may land
// over what is left of that dissolve.
TEST_P(Seams, StepsAtSeamsStayWithinTheRenderedOnes) {
  const SeamCase& c = GetParam();
  ASSERT_TRUE(generatedFamily().packed);
  const fs::path avatar = generatedFamily().root / (std::string(c.avatar) + ".avatar");
  const std::vector<float> audio = speechWithPauses(c.utterances, c.gap);
  const std::vector<render::Utterance> utterances = render::splitUtterances(audio, {});
  ASSERT_GE(utterances.size(), c.utterances.size());

  render::IdleSource idle(avatar);
  const Rect eyes = faceRegions(identityByCode(c.avatar)).eyes;
  const Rect mouth = faceRegions(identityByCode(c.avatar)).mouth;
  double seamWhole = 0, seamEyes = 0, renderedWhole = 0, renderedEyes = 0;
  Picture last;
  std::size_t seams = 0;
  std::vector<Picture> out;  // kept where cuts are tried
  std::vector<std::size_t> cuts;
  Composer composer(
      [&](const Picture& p, Composer::Kind kind) {
        if (c.cutBefore > 0) {
          out.push_back(p);
        }
        if (!last.bytes.empty()) {
          const double whole = render::pictureStep(last, p), eye = cropStep(last, p, eyes);
          if (kind == Composer::Kind::seam) {
            seamWhole = std::max(seamWhole, whole);
            seamEyes = std::max(seamEyes, eye);
            ++seams;
          }
        }
        last = p;
      },
      idle);
  auto child = render::StreamChild::start({LUMORA2_MODEL_BIN, avatar, engineFile()});
  render::PictureConverter converter(idle.width(), idle.height(),
                                     render::PictureConverter::Layout::rgb24);
  Picture picture, previous;
  for (const render::Utterance& u : utterances) {
    previous.bytes.clear();
    composer.idleUntil(u.firstFrame);
    composer.beginUtterance();
    const std::size_t from = u.firstFrame * render::kSamplesPerFrame;
    const std::size_t to = std::min(audio.size(), u.endFrame * render::kSamplesPerFrame);
    ASSERT_TRUE(child->renderSegment(
        audio.data() + from, to - from, [&](std::uint32_t position, const std::uint8_t* rgb) {
          if (u.firstFrame + position + c.cutBefore >= u.endFrame) return;
          converter.convert(rgb, picture);
          if (!previous.bytes.empty()) {
            renderedWhole = std::max(renderedWhole, render::pictureStep(previous, picture));
            renderedEyes = std::max(renderedEyes, cropStep(previous, picture, eyes));
          }
          previous = picture;
          composer.rendered(picture);
        }));
    if (c.cutBefore > 0) {
      composer.cutUtterance();
      cuts.push_back(composer.position());
    } else {
      composer.endUtterance();
    }
  }
  composer.idleUntil((audio.size() + render::kSamplesPerFrame - 1) / render::kSamplesPerFrame);
  composer.finish();
  for (std::size_t k = 0; k < cuts.size(); ++k) {
    // Where no utterance lands first, the mouth is the clip frame's own by the fifth frame.
    const std::size_t at = cuts[k] + 4;
    if (k + 1 < utterances.size() && utterances[k + 1].firstFrame <= at) continue;
    const Picture& held = idle.frame(idle.nearest(idle.likeness(out[cuts[k] - 1])));
    EXPECT_LE(cropStep(out[at], held, mouth), 1.0) << "cut at frame " << cuts[k];
  }
  EXPECT_GT(seams, 2 * utterances.size());
  EXPECT_LE(seamWhole, renderedWhole);
  EXPECT_LE(seamEyes, renderedEyes);
  EXPECT_LE(composer.largestSeamStep(), composer.largestRenderedStep());
}

INSTANTIATE_TEST_SUITE_P(Recordings, Seams,
                         ::testing::Values(SeamCase{"AvaShortPauses", "ava", {1.6, 2.4, 1.2}, 0.8},
                                           SeamCase{"BramLongPauses", "bram", {2.0, 1.4}, 2.5},
                                           SeamCase{"AvaCutMidWord", "ava", {2.4, 2.4}, 0.8, 20},
                                           SeamCase{
                                               "BramCutNearTheEnd", "bram", {1.6, 2.0}, 0.7, 3}),
                         [](const auto& param) { return std::string(param.param.name); });

// The closing line of a render, as numbers: largest seam step, largest rendered step, largest
// gap between the idle and the rendered pictures.
struct Report {
  double seam = -1, rendered = -1, gap = -1;
};
Report reportOf(const std::string& line) {
  std::smatch m;
  Report r;
  static const std::regex pattern(
      R"(largest step ([0-9.]+) \(between rendered frames: up to ([0-9.]+); idle and rendered )"
      R"(pictures up to ([0-9.]+) apart\))");
  if (std::regex_search(line, m, pattern)) {
    r = {std::stod(m[1]), std::stod(m[2]), std::stod(m[3])};
  }
  return r;
}

// An avatar whose idle clip is one luma level brighter than the family's: the report sees the
// gap the dissolves had to hide, and the dissolves still keep every step small.
TEST(SeamReport, SeesAnIdleClipOneLevelBrighter) {
  ASSERT_TRUE(generatedFamily().packed);
  const fs::path dir = scratchDir("seam-report");
  const fs::path staging = dir / "ava";
  fs::copy(generatedFamily().avatar("ava"), staging, fs::copy_options::recursive);
  ASSERT_EQ(shell(commandLine({"ffmpeg", "-v", "error", "-y", "-i",
                               (generatedFamily().avatar("ava") / "idle.mp4").string(), "-vf",
                               "lutyuv=y=val+1", "-c:v", "libx264", "-qp", "0", "-pix_fmt",
                               "yuv420p", (staging / "idle.mp4").string()}))
                .status,
            0);
  const Identity ava = identityByCode("ava");
  ASSERT_EQ(shell(commandLine({LUMORA2_MODEL_BIN, "pack-avatar", staging.string(), "--code", "ava",
                               "--name", ava.name, "--gender", ava.gender, "--persona", ava.persona,
                               "-o", (dir / "bright.avatar").string()}))
                .status,
            0);
  writeWav(dir / "speech.wav", speechWithPauses({1.6, 2.0}, 1.5));
  auto render = [&](const fs::path& avatar) {
    const Shell r = shell(
        commandLine({renderBin().string(), avatar.string(), "--engine", engineFile().string(),
                     "--audio", (dir / "speech.wav").string(), "-o", (dir / "out.mp4").string()}));
    EXPECT_EQ(r.status, 0);
    return reportOf(r.out);
  };
  const Report plain = render(avatarFile());
  const Report bright = render(dir / "bright.avatar");
  ASSERT_GE(plain.gap, 0) << "no report line";
  ASSERT_GE(bright.gap, 0) << "no report line";
  EXPECT_GT(bright.gap, plain.gap + 0.5);
  EXPECT_LE(bright.seam, bright.rendered);
}

// Pure idle, 30 s: no child is started, the step into a sync sample (a seek point) stays within
// three times the median step between other frames (no pulse), and sync samples come at least
// every 10 s.
TEST(Keyframes, DoNotPulseAndStaySeekable) {
  const fs::path dir = scratchDir("keyframes");
  writeWav(dir / "silence.wav", std::vector<float>(30 * kRate, 0.0f));
  ASSERT_EQ(shell(renderCommand(dir / "silence.wav", dir / "idle.mp4") + notingHost(dir)).status,
            0);
  EXPECT_FALSE(fs::exists(dir / "starts")) << "a child for silence";
  // "pts,flags" per packet; the frames come out in presentation order.
  std::istringstream packets(
      shell("ffprobe -v error -select_streams v -show_entries packet=pts,flags -of csv=p=0 '" +
            (dir / "idle.mp4").string() + "'")
          .out);
  std::map<long, bool> sync;
  for (std::string line; std::getline(packets, line);) {
    const std::size_t comma = line.find(',');
    if (comma != std::string::npos) {
      sync[std::stol(line.substr(0, comma))] = line.find('K', comma) != std::string::npos;
    }
  }
  const std::string video = decodeVideo(dir / "idle.mp4", "yuv420p");
  std::vector<bool> key;
  for (const auto& [pts, isSync] : sync) key.push_back(isSync);
  const std::size_t bytes = Picture::pictureBytes(416, 720);
  ASSERT_EQ(key.size(), 600u);
  ASSERT_EQ(video.size(), key.size() * bytes);
  auto picture = [&](std::size_t f) {
    Picture p(416, 720);
    std::copy_n(video.begin() + long(f * bytes), bytes, p.bytes.begin());
    return p;
  };
  std::vector<double> others;
  double intoKey = 0;
  std::size_t lastKey = 0;
  for (std::size_t f = 1; f < key.size(); ++f) {
    const double step = render::pictureStep(picture(f - 1), picture(f));
    if (key[f]) {
      intoKey = std::max(intoKey, step);
      EXPECT_LE(f - lastKey, 200u);
      lastKey = f;
    } else {
      others.push_back(step);
    }
  }
  EXPECT_GT(lastKey, 0u);
  EXPECT_LE(key.size() - lastKey, 200u);
  std::nth_element(others.begin(), others.begin() + long(others.size() / 2), others.end());
  const double median = others[others.size() / 2];
  EXPECT_LE(intoKey, 3 * median) << "median step " << median;
}

// The full warm-up (both priming passes) and the default one leave the child rendering the same
// bytes for the same speech.
TEST(WarmUp, ShortenedRendersTheSameBytes) {
  const std::vector<float> audio = speechWithPauses({2.5}, 0.5);
  auto digest = [&](bool full) {
    if (full) ::setenv("LUMORA2_WARMUP", "full", 1);
    auto child = render::StreamChild::start({LUMORA2_MODEL_BIN, avatarFile(), engineFile()});
    ::unsetenv("LUMORA2_WARMUP");
    Sha256 hash;
    std::size_t frames = 0;
    EXPECT_TRUE(child->renderSegment(audio.data(), audio.size(),
                                     [&](std::uint32_t position, const std::uint8_t* rgb) {
                                       hash.update(&position, sizeof position);
                                       hash.update(rgb, kFrameBytes);
                                       ++frames;
                                     }));
    EXPECT_GT(frames, 40u);
    return hash.hex();
  };
  EXPECT_EQ(digest(false), digest(true));
}

// Speech starts a child; standard error carries lumora2-render's own lines only; the idle clip
// reader's log lines go to the file --log names, under lumora2-render's name.
TEST(RenderLog, StderrIsOurOwnAndTheEngineLogGoesToItsFile) {
  const fs::path dir = scratchDir("render-log");
  writeWav(dir / "in.wav", speechWithPauses({1.0}, 8.0));
  auto onlyOurs = [](const fs::path& err) {
    std::istringstream lines(readFile(err));
    for (std::string line; std::getline(lines, line);) {
      EXPECT_TRUE(line.rfind("utterance ", 0) == 0 || line.rfind("warning: ", 0) == 0) << line;
    }
  };
  ASSERT_EQ(
      shell(renderCommand(dir / "in.wav", dir / "a.mp4") + notingHost(dir), dir / "a.err").status,
      0);
  EXPECT_TRUE(fs::exists(dir / "starts"));
  onlyOurs(dir / "a.err");
  ASSERT_EQ(shell(renderCommand(dir / "in.wav", dir / "b.mp4") + " --log '" +
                      (dir / "log").string() + "'",
                  dir / "b.err")
                .status,
            0);
  onlyOurs(dir / "b.err");
  EXPECT_TRUE(std::regex_search(
      readFile(dir / "log"), std::regex(R"(lumora2-render\[[0-9]+\] \[lumora2-idle\] wrap 1:)")));
}

// The render process's OpenMP settings as its environment shows them: threads wait passively
// unless the user chose, and a parent of several children gives each its share of the cores
// unless the user set the count.
struct ThreadCase {
  const char* name;
  int siblings;
  const char* userPolicy;       // OMP_WAIT_POLICY in the parent's environment, or nullptr
  const char* userThreads;      // OMP_NUM_THREADS in the parent's environment, or nullptr
  std::string policy, threads;  // what the child sees ("" for unset)
  friend void PrintTo(const ThreadCase& c, std::ostream* os) { *os << c.name; }
};

class RenderThreads : public ::testing::TestWithParam<ThreadCase> {};

TEST_P(RenderThreads, ReachTheChild) {
  const ThreadCase& c = GetParam();
  auto set = [](const char* name, const char* value) {
    value != nullptr ? ::setenv(name, value, 1) : ::unsetenv(name);
  };
  set("OMP_WAIT_POLICY", c.userPolicy);
  set("OMP_NUM_THREADS", c.userThreads);
  auto child =
      render::StreamChild::start({LUMORA2_MODEL_BIN, avatarFile(), engineFile(), c.siblings});
  ::unsetenv("OMP_WAIT_POLICY");
  ::unsetenv("OMP_NUM_THREADS");
  const std::string env = '\0' + readFile("/proc/" + std::to_string(child->pid()) + "/environ");
  auto value = [&](const std::string& name) -> std::string {
    const std::size_t at = env.find('\0' + name + '=');
    return at == std::string::npos ? "" : env.c_str() + at + name.size() + 2;
  };
  EXPECT_EQ(value("OMP_WAIT_POLICY"), c.policy);
  EXPECT_EQ(value("OMP_NUM_THREADS"), c.threads);
}

const std::string kShare = std::to_string(std::max(1u, std::thread::hardware_concurrency() / 4));
INSTANTIATE_TEST_SUITE_P(
    Settings, RenderThreads,
    ::testing::Values(ThreadCase{"Alone", 1, nullptr, nullptr, "PASSIVE", ""},
                      ThreadCase{"FourSiblings", 4, nullptr, nullptr, "PASSIVE", kShare},
                      ThreadCase{"UserChose", 4, "ACTIVE", "3", "ACTIVE", "3"}),
    [](const auto& param) { return std::string(param.param.name); });

}  // namespace
}  // namespace lumora2::family::test
