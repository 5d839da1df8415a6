#include "render_job.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "audio_input.h"
#include "client_error.h"
#include "idle_source.h"
#include "mp4_writer.h"
#include "stream_child.h"
#include "utterances.h"

namespace lumora2::render {
namespace {

using Clock = std::chrono::steady_clock;
using Frame = std::vector<std::uint8_t>;

// Mean absolute difference per colour byte.
double meanStep(const std::uint8_t* a, const std::uint8_t* b, std::size_t size) {
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < size; ++i) sum += std::uint64_t(std::abs(int(a[i]) - int(b[i])));
  return size == 0 ? 0 : double(sum) / double(size);
}

// (1 - alpha) * a + alpha * b. Each byte rounds at its own fixed threshold (a hash of its index),
// so that across a dissolve the bytes that differ by a level or two change at evenly spread
// moments instead of all at once at alpha = 1/2: every step of the dissolve moves the picture by
// about the same amount.
void mix(const std::uint8_t* a, const std::uint8_t* b, double alpha, std::uint8_t* out,
         std::size_t size) {
  const auto w = int(std::lround(alpha * 256));
  for (std::size_t i = 0; i < size; ++i) {
    const int threshold = int((std::uint32_t(i) * 2654435761u) >> 24);  // 0 .. 255
    out[i] = std::uint8_t((int(a[i]) * 256 + (int(b[i]) - int(a[i])) * w + threshold) >> 8);
  }
}

// Lays frames on the video's timeline in order and dissolves where idle and rendered pictures
// meet. A seam is dissolved over n frames when the jump across it is more than half the largest
// step between neighbouring rendered frames seen so far (the reference): n = ceil(2 * jump /
// reference) - 1, at most kMaxBlend, so each step of the dissolve moves half a reference or
// less. Entering an utterance, the last idle picture holds still while the rendered frames fade
// in over it; leaving one, the last rendered picture fades into the next idle frame, which holds
// still meanwhile. The idle clip stands still while rendered frames show, so the idle motion picks
// up where it left off and never jumps back.
class Composer {
 public:
  static constexpr std::size_t kMaxBlend = 20;  // one second
  // The reference never falls below this (mean absolute difference per byte): a jump this small
  // is not seen.
  static constexpr double kQuietStep = 0.05;

  Composer(Mp4Writer& writer, IdleSource& idle, std::size_t frameBytes)
      : writer_(writer), idle_(idle), bytes_(frameBytes), scratch_(frameBytes) {}

  // Output frames decided so far (written or held for an entry dissolve).
  std::size_t position() const { return written_ + entry_.size(); }

  // Idle frames up to output frame `end`, leaving a finished utterance through its exit dissolve.
  void idleUntil(std::size_t end) {
    settleEntry();
    while (position() < end) {
      if (exit_) {
        // The first idle frame after an utterance, held while the last rendered one fades.
        // With too little room before `end` the dissolve stops part way, its steps as small as
        // ever; an utterance that follows dissolves from there.
        const Frame& target = idle_.next();
        const std::size_t n = blendLength(meanStep(exit_->data(), target.data(), bytes_));
        const std::size_t room = end - position();
        for (std::size_t i = 1; i <= std::min(n, room); ++i) {
          mix(exit_->data(), target.data(), double(i) / double(n + 1), scratch_.data(), bytes_);
          put(scratch_.data(), Kind::Seam);
        }
        if (room > n) put(target.data(), Kind::Seam);
        exit_.reset();
        continue;
      }
      put(idle_.next().data(), Kind::Idle);
    }
  }

  void beginUtterance() {
    settleEntry();
    entering_ = written_ > 0;
    exit_.reset();
    previousRendered_.reset();
  }

  // The next rendered frame of the current utterance.
  void rendered(const std::uint8_t* rgb) {
    ++renderedCount_;
    if (previousRendered_) {
      largestRendered_ =
          std::max(largestRendered_, meanStep(previousRendered_->data(), rgb, bytes_));
    } else {
      previousRendered_.emplace(bytes_);
    }
    std::copy_n(rgb, bytes_, previousRendered_->data());
    if (entering_) {
      entry_.emplace_back(rgb, rgb + bytes_);
      if (entry_.size() == kMaxBlend + 1) settleEntry();
      return;
    }
    put(rgb, Kind::Rendered);
  }

  void endUtterance() {
    settleEntry();
    exit_ = std::move(previousRendered_);
    previousRendered_.reset();
  }

  std::size_t renderedFrames() const { return renderedCount_; }
  double largestSeamStep() const { return largestSeam_; }
  double largestRenderedStep() const { return largestRendered_; }

 private:
  enum class Kind { Idle, Rendered, Seam };

  std::size_t blendLength(double jump) const {
    const double reference = std::max(largestRendered_, kQuietStep);
    if (2 * jump <= reference) return 0;
    return std::min(kMaxBlend, std::size_t(std::ceil(2 * jump / reference)) - 1);
  }

  // Writes the frames held for the entry dissolve. Frame i shows (1 - alpha_i) * P + alpha_i *
  // R_i over the last idle frame P, with alpha_i the largest weight (not below alpha_(i-1)) that
  // keeps the step from the previous output within the reference. Keeping the weight always
  // fits (the step is then alpha times a rendered step), so the dissolve never jumps; one that has
  // not reached the rendered picture when the held frames run out completes there.
  void settleEntry() {
    if (!entering_) return;
    entering_ = false;
    const Frame held = last_;
    const double reference = std::max(largestRendered_, kQuietStep);
    double alpha = 0;
    bool arrived = false;  // a frame has shown the rendered picture alone
    for (std::size_t i = 0; i < entry_.size(); ++i) {
      const std::uint8_t* r = entry_[i].data();
      if (alpha < 1 && i + 1 < entry_.size()) {
        auto stepAt = [&](double a) {
          mix(held.data(), r, a, scratch_.data(), bytes_);
          return meanStep(last_.data(), scratch_.data(), bytes_);
        };
        if (stepAt(1) <= reference) {
          alpha = 1;
        } else {
          double lo = alpha, hi = 1;
          for (int k = 0; k < 8; ++k) {
            const double mid = (lo + hi) / 2;
            (stepAt(mid) <= reference ? lo : hi) = mid;
          }
          alpha = lo;
        }
      } else {
        alpha = 1;
      }
      if (alpha < 1) {
        mix(held.data(), r, alpha, scratch_.data(), bytes_);
        put(scratch_.data(), Kind::Seam);
      } else {
        put(r, arrived ? Kind::Rendered : Kind::Seam);
        arrived = true;
      }
    }
    entry_.clear();
  }

  void put(const std::uint8_t* rgb, Kind kind) {
    if (written_ > 0 && kind == Kind::Seam) {
      largestSeam_ = std::max(largestSeam_, meanStep(last_.data(), rgb, bytes_));
    }
    writer_.addFrame(rgb);
    if (last_.empty()) last_.resize(bytes_);
    std::copy_n(rgb, bytes_, last_.data());
    ++written_;
  }

  Mp4Writer& writer_;
  IdleSource& idle_;
  const std::size_t bytes_;
  Frame scratch_;
  Frame last_;  // the last frame written
  std::size_t written_ = 0;
  std::size_t renderedCount_ = 0;
  bool entering_ = false;
  std::vector<Frame> entry_;  // rendered frames held until the entry dissolve is decided
  std::optional<Frame> previousRendered_;  // the utterance's latest rendered frame
  std::optional<Frame> exit_;              // the last rendered frame, to fade out
  double largestSeam_ = 0;
  double largestRendered_ = 0;
};

// Progress on standard error: one line rewritten in place on a terminal, else one line per
// utterance.
class Progress {
 public:
  explicit Progress(double totalSeconds)
      : total_(totalSeconds), terminal_(::isatty(STDERR_FILENO) == 1), start_(Clock::now()) {
    if (terminal_) std::fprintf(stderr, "starting render-stream (its engine warms up first)\n");
  }

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
  void begin() {
    start_ = Clock::now();
    if (terminal_) std::fprintf(stderr, "render-stream ready; rendering\n");
  }

  void utterance(std::size_t index, std::size_t count, const Utterance& u, std::size_t done) {
    if (terminal_) return;
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

// The render-stream child over a whole render: starts it, and when it asks to be respawned (exit
// status 3) starts a new one and sends the interrupted utterance again, once.
class StreamSession {
 public:
  StreamSession(StreamChild::Command command, Progress& progress)
      : command_(std::move(command)),
        progress_(progress),
        child_(StreamChild::start(command_)),
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

}  // namespace

std::filesystem::path partialNameFor(const std::filesystem::path& output) {
  std::string name = ".";
  name += output.filename().string();
  name += ".partial-";
  name += std::to_string(::getpid());
  return output.parent_path() / name;
}

RenderReport renderToMp4(const RenderOptions& options) {
  requireFile(options.avatar, "avatar");
  requireFile(options.engine, "engine");
  if (::access(options.host.c_str(), X_OK) != 0) {
    throw ClientError("render host " + options.host.string() +
                      " is not an executable (choose one with --host)");
  }
  if (!(options.gapSeconds > 0)) throw ClientError("--gap must be a positive number of seconds");

  const std::vector<float> audio = decodeAudio(options.audio);
  SilenceRule rule;
  rule.gapSeconds = options.gapSeconds;
  const std::vector<Utterance> utterances = splitUtterances(audio, rule);

  RenderReport report;
  report.samples = audio.size();
  report.frames = (audio.size() + kSamplesPerFrame - 1) / kSamplesPerFrame;
  report.utterances = utterances.size();

  Progress progress(double(audio.size()) / kEngineRate);
  StreamSession session({options.host, options.avatar, options.engine}, progress);
  const StreamGeometry& geometry = session.geometry();
  const std::size_t frameBytes = std::size_t(geometry.width) * std::size_t(geometry.height) * 3;
  IdleSource idle(options.avatar, geometry.width, geometry.height);

  PartialFile partial{partialNameFor(options.output)};
  Mp4Writer writer(partial.path, geometry.width, geometry.height, geometry.fps, audio, kEngineRate);
  Composer composer(writer, idle, frameBytes);
  progress.begin();

  for (std::size_t k = 0; k < utterances.size(); ++k) {
    const Utterance& u = utterances[k];
    composer.idleUntil(u.firstFrame);
    progress.frames(composer.position(), report.frames);
    composer.beginUtterance();
    const std::size_t from = u.firstFrame * kSamplesPerFrame;
    const std::size_t to = std::min(audio.size(), u.endFrame * kSamplesPerFrame);
    // Frames arrive in position order; after a respawn the utterance is sent again and the
    // positions already placed are skipped. Positions past the utterance are dropped.
    auto onFrame = [&](std::uint32_t position, const std::uint8_t* rgb) {
      const std::size_t at = u.firstFrame + position;
      if (at < composer.position() || at >= u.endFrame) return;
      if (at > composer.position()) composer.idleUntil(at);
      composer.rendered(rgb);
      progress.frames(composer.position(), report.frames);
    };
    if (!session.render(k, audio.data() + from, to - from, onFrame, composer)) {
      ++report.failedUtterances;
      progress.warn("utterance " + std::to_string(k + 1) +
                    " could not be rendered; the idle clip covers it");
    }
    composer.endUtterance();
    progress.utterance(k, utterances.size(), u, composer.position());
  }
  composer.idleUntil(report.frames);
  progress.frames(composer.position(), report.frames);
  writer.finish();
  progress.finish();

  std::error_code ec;
  std::filesystem::rename(partial.path, options.output, ec);
  if (ec) throw ClientError("cannot write " + options.output.string() + ": " + ec.message());
  partial.kept = true;
  report.renderedFrames = composer.renderedFrames();
  report.respawns = session.respawns();
  report.largestSeamStep = composer.largestSeamStep();
  report.largestRenderedStep = composer.largestRenderedStep();
  return report;
}

}  // namespace lumora2::render
