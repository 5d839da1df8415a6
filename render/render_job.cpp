#include "render_job.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <future>
#include <memory>
#include <optional>
#include <vector>

#include "client/audio_input.h"
#include "client/client_error.h"
#include "client/composer.h"
#include "client/idle_source.h"
#include "client/speech_text.h"
#include "client/stream_child.h"
#include "client/utterances.h"
#include "client/voice.h"
#include "container/archive.h"
#include "container/manifest.h"
#include "engine/log.h"
#include "mp4_writer.h"

namespace lumora2::render {
namespace {

using Clock = std::chrono::steady_clock;

// Progress on standard error: one line rewritten in place on a terminal, else one line per
// utterance.
class Progress {
 public:
  explicit Progress(double totalSeconds)
      : total_(totalSeconds), terminal_(::isatty(STDERR_FILENO) == 1), start_(Clock::now()) {}

  void frames(std::size_t done, std::size_t total) {
    if (!terminal_) return;
    const auto now = Clock::now();
    if (done < total && now - shown_ < std::chrono::milliseconds(250)) return;
    shown_ = now;
    const double elapsed = std::chrono::duration<double>(now - start_).count();
    const double fps = elapsed > 0 ? double(done) / elapsed : 0;
    const double left = fps > 0 ? double(total - done) / fps : 0;
    std::fprintf(stderr, "\rrendering: %.1f s of %.1f s audio, %.0f fps, %.0f s left   ",
                 std::min(double(done) / 20.0, total_), total_, fps, left);
    std::fflush(stderr);
  }

  // Starts the clock once the child is ready, so that rates and time left leave its warm-up out.
  void begin(bool rendering) {
    start_ = Clock::now();
    if (terminal_) {
      std::fprintf(stderr, rendering ? "render-stream ready; rendering\n"
                                     : "no speech in the audio: the idle clip only\n");
    }
  }

  void utterance(std::size_t index, std::size_t count, const Utterance& u, std::size_t done,
                 bool rendered) {
    if (terminal_) return;
    if (!rendered) {
      std::fprintf(stderr, "utterance %zu/%zu: %.2f s to %.2f s not rendered (idle clip shown)\n",
                   index + 1, count, double(u.firstFrame) / 20.0, double(u.endFrame) / 20.0);
      return;
    }
    const double elapsed = std::chrono::duration<double>(Clock::now() - start_).count();
    std::fprintf(
        stderr, "utterance %zu/%zu: %.2f s to %.2f s rendered (%.1f s of %.1f s, %.0f fps)\n",
        index + 1, count, double(u.firstFrame) / 20.0, double(u.endFrame) / 20.0,
        std::min(double(done) / 20.0, total_), total_, elapsed > 0 ? double(done) / elapsed : 0.0);
  }

  void warn(const std::string& line) {
    std::fprintf(stderr, "%swarning: %s\n", terminal_ ? "\n" : "", line.c_str());
  }

  void finish() {
    if (terminal_) std::fprintf(stderr, "\n");
  }

 private:
  const double total_;
  const bool terminal_;
  Clock::time_point start_;
  Clock::time_point shown_{};
};

// Removes the partial file on every path that does not rename it.
struct PartialFile {
  std::filesystem::path path;
  bool kept = false;
  ~PartialFile() {
    if (!kept) {
      std::error_code ignored;
      std::filesystem::remove(path, ignored);
    }
  }
};

void requireFile(const std::filesystem::path& path, const char* what) {
  std::error_code ec;
  if (!std::filesystem::is_regular_file(path, ec)) {
    throw ClientError(std::string(what) + " " + path.string() + " is not a readable file");
  }
}

// Sends the log lines of the engine parts used here (the idle clip reader) to the file asked for,
// or nowhere, while it lives: standard error carries lumora2-render's own lines only.
class EngineLogFile {
 public:
  explicit EngineLogFile(const std::filesystem::path& file) {
    setEngineLogProgram("lumora2-render");
    if (!file.empty()) {
      fd_ = ::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
      if (fd_ < 0) {
        throw ClientError("cannot open the log " + file.string() + ": " + std::strerror(errno));
      }
    }
    setEngineLogDestination(fd_);
  }
  ~EngineLogFile() {
    setEngineLogDestination(-1);
    if (fd_ >= 0) ::close(fd_);
  }
  EngineLogFile(const EngineLogFile&) = delete;
  EngineLogFile& operator=(const EngineLogFile&) = delete;

 private:
  int fd_ = -1;
};

// The render-stream child over a whole render: starts it, and when it asks to be respawned (exit
// status 3) starts a new one and sends the interrupted utterance again, once.
class StreamSession {
 public:
  StreamSession(StreamChild::Command command, std::unique_ptr<StreamChild> child,
                Progress& progress)
      : command_(std::move(command)),
        progress_(progress),
        child_(std::move(child)),
        geometry_(child_->geometry()) {}

  const StreamGeometry& geometry() const { return geometry_; }
  std::size_t respawns() const { return respawns_; }

  // Renders utterance k (numbered from 0 in messages as k + 1); false when no frame of it came
  // from the engine. Throws ClientError when the child ends in any way but asking for a respawn.
  bool render(std::size_t k, const float* samples, std::size_t count,
              const StreamChild::FrameFn& onFrame, const Composer& composer) {
    std::size_t placed = 0;  // frames of this utterance from the engine, over both attempts
    for (int attempt = 0; attempt < 2; ++attempt) {
      if (!child_) {
        child_ = StreamChild::start(command_);
        if (child_->geometry().width != geometry_.width ||
            child_->geometry().height != geometry_.height) {
          throw ClientError("the respawned render-stream changed its frame size");
        }
      }
      const std::size_t before = composer.renderedFrames();
      bool served = child_->renderSegment(samples, count, onFrame);
      const bool none = composer.renderedFrames() == before;
      placed += composer.renderedFrames() - before;
      // A segment the engine failed ends with a marker and no frames; the child leaves right
      // after such a marker when it wants to be respawned. Shutting its engine down takes a
      // moment, longer on a busy machine, so it gets a few seconds; failed segments are rare.
      if (served && none && child_->exitsWithin(std::chrono::seconds(3))) served = false;
      if (served) return placed > 0;
      const int status = child_->exitStatus();
      const std::string tail = child_->stderrTail();
      child_.reset();
      if (status != 3) {
        throw ClientError("render-stream ended with exit status " + std::to_string(status) +
                          " during utterance " + std::to_string(k + 1) + "; its last lines:\n" +
                          tail);
      }
      ++respawns_;
      progress_.warn("render-stream asked to be respawned during utterance " +
                     std::to_string(k + 1) +
                     (attempt == 0 ? "; sending it again to a new one" : ""));
    }
    return placed > 0;
  }

 private:
  const StreamChild::Command command_;
  Progress& progress_;
  std::unique_ptr<StreamChild> child_;  // null between a respawn request and the next utterance
  const StreamGeometry geometry_;
  std::size_t respawns_ = 0;
};

// The voice asked for, or the avatar's own: from its manifest's gender and persona.
Voice avatarVoice(const RenderOptions& options) {
  AvatarManifest manifest;
  try {
    manifest = ManifestJSON::decodeAvatar(Archive::readManifest(options.avatar));
  } catch (const std::exception& e) {
    throw ClientError("cannot read the avatar " + options.avatar.string() + ": " + e.what());
  }
  const VoiceChoice choice = chooseVoice(manifest.gender, manifest.persona, options.voice);
  if (!choice.warning.empty()) std::fprintf(stderr, "warning: %s\n", choice.warning.c_str());
  return Voice(choice.name);
}

}  // namespace

std::filesystem::path partialNameFor(const std::filesystem::path& output) {
  std::string name = ".";
  name += output.filename().string();
  name += ".partial-";
  name += std::to_string(::getpid());
  return output.parent_path() / name;
}

namespace {

void checkOptions(const RenderOptions& options) {
  requireFile(options.avatar, "avatar");
  requireFile(options.engine, "engine");
  if (::access(options.host.c_str(), X_OK) != 0) {
    throw ClientError("render host " + options.host.string() +
                      " is not an executable (choose one with --host)");
  }
  if (!(options.gapSeconds > 0)) throw ClientError("--gap must be a positive number of seconds");
}

// The child's engine warms up for a few seconds: it starts as soon as the audio holds a sample
// loud enough to belong to an utterance, and warms up while the rest of the audio is decoded and
// analysed and the idle clip is read. Audio with no such sample has no utterance, and then no
// child is started at all.
class EarlyChild {
 public:
  EarlyChild(StreamChild::Command command, float loudEnough)
      : command_(std::move(command)), loudEnough_(loudEnough) {}

  void start() {
    if (starting_.valid()) return;
    starting_ = std::async(std::launch::async,
                           [command = command_] { return StreamChild::start(command); });
  }

  void startOnSound(const float* samples, std::size_t count) {
    if (starting_.valid()) return;
    for (std::size_t i = 0; i < count; ++i) {
      if (std::fabs(samples[i]) >= loudEnough_) return start();
    }
  }

  std::unique_ptr<StreamChild> take() {
    start();
    return starting_.get();
  }

  const StreamChild::Command& command() const { return command_; }

 private:
  const StreamChild::Command command_;
  const float loudEnough_;
  std::future<std::unique_ptr<StreamChild>> starting_;
};

// The whole input as 16 kHz samples: the decoded audio file, or the text spoken sentence by
// sentence (the child warming up while the rest is spoken).
std::vector<float> readSpeech(const RenderOptions& options, EarlyChild& child) {
  auto onSamples = [&child](const float* samples, std::size_t count) {
    child.startOnSound(samples, count);
  };
  if (!options.text) return decodeAudio(options.audio, onSamples);
  std::vector<float> audio;
  const Voice voice = avatarVoice(options);
  voice.checkScripts(*options.text);
  const std::vector<Sentence> sentences = splitSentences(*options.text);
  voice.speak(sentences, [&](const float* samples, std::size_t count) {
    audio.insert(audio.end(), samples, samples + count);
    onSamples(samples, count);
    return true;
  });
  std::fprintf(stderr, "voice %s: %zu sentence%s, %.2f s of speech\n", voice.name().c_str(),
               sentences.size(), sentences.size() == 1 ? "" : "s",
               double(audio.size()) / kEngineRate);
  return audio;
}

void checkGeometry(const StreamGeometry& geometry, const IdleSource& idle,
                   const std::filesystem::path& avatar) {
  if (geometry.width == idle.width() && geometry.height == idle.height()) return;
  throw ClientError("render-stream renders " + std::to_string(geometry.width) + " x " +
                    std::to_string(geometry.height) + " frames, the idle clip of " +
                    avatar.string() + " is " + std::to_string(idle.width()) + " x " +
                    std::to_string(idle.height()));
}

// Lays each utterance's rendered frames on the composer's timeline, idle frames between them.
// An utterance the child cannot render (after its respawn) is covered by the idle clip.
void composeUtterances(const std::vector<Utterance>& utterances, const std::vector<float>& audio,
                       StreamSession* session, Composer& composer, Progress& progress,
                       RenderReport& report, int width, int height) {
  PictureConverter converter(width, height, PictureConverter::Layout::rgb24);
  Picture picture(width, height);
  for (std::size_t k = 0; k < utterances.size(); ++k) {
    const Utterance& u = utterances[k];
    composer.idleUntil(u.firstFrame);
    progress.frames(composer.written(), report.frames);
    composer.beginUtterance();
    const std::size_t from = u.firstFrame * kSamplesPerFrame;
    const std::size_t to = std::min(audio.size(), u.endFrame * kSamplesPerFrame);
    // Frames arrive in position order; after a respawn the utterance is sent again and the
    // positions already placed are skipped. Positions past the utterance are dropped.
    auto onFrame = [&](std::uint32_t position, const std::uint8_t* rgb) {
      const std::size_t at = u.firstFrame + position;
      if (at < composer.position() || at >= u.endFrame) return;
      if (at > composer.position()) composer.idleUntil(at);
      converter.convert(rgb, picture);
      composer.rendered(picture);
      progress.frames(composer.written(), report.frames);
    };
    const bool rendered = session->render(k, audio.data() + from, to - from, onFrame, composer);
    if (!rendered) {
      ++report.failedUtterances;
      progress.warn("utterance " + std::to_string(k + 1) +
                    " could not be rendered; the idle clip covers it");
    }
    composer.endUtterance();
    progress.utterance(k, utterances.size(), u, composer.position(), rendered);
  }
}

}  // namespace

RenderReport renderToMp4(const RenderOptions& options) {
  checkOptions(options);
  const EngineLogFile engineLog(options.logFile);
  SilenceRule rule;
  rule.gapSeconds = options.gapSeconds;
  EarlyChild child({options.host, options.avatar, options.engine}, rule.absoluteFloor);
  const std::vector<float> audio = readSpeech(options, child);
  const std::vector<Utterance> utterances = splitUtterances(audio, rule);

  RenderReport report;
  report.samples = audio.size();
  report.frames = (audio.size() + kSamplesPerFrame - 1) / kSamplesPerFrame;
  report.utterances = utterances.size();

  Progress progress(double(audio.size()) / kEngineRate);
  IdleSource idle(options.avatar);
  std::optional<StreamSession> session;
  if (!utterances.empty()) {
    session.emplace(child.command(), child.take(), progress);
    checkGeometry(session->geometry(), idle, options.avatar);
  }

  PartialFile partial{partialNameFor(options.output)};
  Mp4Writer writer(partial.path, idle.width(), idle.height(), kEngineRate / int(kSamplesPerFrame),
                   audio, kEngineRate);
  Composer composer([&writer](const Picture& picture, Composer::Kind) { writer.addFrame(picture); },
                    idle);
  progress.begin(session.has_value());
  composeUtterances(utterances, audio, session ? &*session : nullptr, composer, progress, report,
                    idle.width(), idle.height());
  composer.idleUntil(report.frames);
  composer.finish();
  progress.frames(composer.written(), report.frames);
  writer.finish();
  progress.finish();

  std::error_code ec;
  std::filesystem::rename(partial.path, options.output, ec);
  if (ec) throw ClientError("cannot write " + options.output.string() + ": " + ec.message());
  partial.kept = true;
  report.renderedFrames = composer.renderedFrames();
  report.respawns = session ? session->respawns() : 0;
  report.largestSeamStep = composer.largestSeamStep();
  report.largestRenderedStep = composer.largestRenderedStep();
  report.largestSeamGap = composer.largestSeamGap();
  return report;
}

}  // namespace lumora2::render
