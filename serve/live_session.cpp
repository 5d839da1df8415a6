#include "live_session.h"

#include <cmath>
#include <exception>
#include <fstream>
#include <utility>

#include "client/audio_input.h"
#include "client/client_error.h"
#include "client/utterances.h"
#include "media/webrtc_sender.h"

namespace lumora2::serve {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kFramePeriod = std::chrono::milliseconds(50);
constexpr auto kReadSlice = std::chrono::milliseconds(5);

// Resident memory of a process in KiB (0 when it cannot be read).
long residentKiB(pid_t pid) {
  if (pid <= 0) return 0;
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string key;
  while (status >> key) {
    if (key == "VmRSS:") {
      long kib = 0;
      status >> kib;
      return kib;
    }
    status.ignore(4096, '\n');
  }
  return 0;
}

}  // namespace

TraceFile::TraceFile(const std::string& path) {
  MutexLock hold(lock_);
  file_ = std::fopen(path.c_str(), "w");
  if (file_ == nullptr) throw std::runtime_error("cannot write the trace " + path);
}

TraceFile::~TraceFile() {
  MutexLock hold(lock_);
  if (file_ != nullptr) std::fclose(file_);
}

void TraceFile::write(const std::string& line) {
  MutexLock hold(lock_);
  std::fputs(line.c_str(), file_);
  std::fflush(file_);
}

LiveSession::LiveSession(std::string id, Avatar avatar,
                         std::shared_ptr<const IdleSource::Clip> idle, SessionOptions options)
    : id_(std::move(id)),
      avatar_(std::move(avatar)),
      options_(std::move(options)),
      voice_(avatar_.voice.empty() ? render::chooseVoice(avatar_.gender, avatar_.persona, "").name
                                   : avatar_.voice),
      idle_(std::make_unique<IdleSource>(std::move(idle))),
      timeline_(*idle_),
      lastActivity_(Clock::now()),
      created_(Clock::now()) {
  render_ = std::thread([this] { renderLoop(); });
  pace_ = std::thread([this] { paceLoop(); });
  voiceThread_ = std::thread([this] { voiceLoop(); });
}

LiveSession::~LiveSession() {
  end("the session was closed", "closed");
  if (voiceThread_.joinable()) voiceThread_.join();
  if (pace_.joinable()) pace_.join();
  if (render_.joinable()) render_.join();
  std::shared_ptr<WebRtcSender> sender;
  {
    MutexLock hold(lock_);
    sender = std::move(sender_);
  }
  sender.reset();  // stops the media pipeline
}

void LiveSession::end(const std::string& reason, const char* cause) {
  {
    MutexLock hold(lock_);
    if (endedReason_.empty()) {
      endedReason_ = reason;
      endedCause_ = cause;
    }
  }
  ended_ = true;
  changed_.notify_all();
  sayQueued_.notify_all();
}

void LiveSession::touch() {
  MutexLock hold(lock_);
  lastActivity_ = Clock::now();
}

double LiveSession::idleSeconds() const {
  MutexLock hold(lock_);
  return std::chrono::duration<double>(Clock::now() - lastActivity_).count();
}

std::string LiveSession::connect(const std::string& offer) {
  {
    MutexLock hold(lock_);
    if (sender_) throw SessionError(409, "the session already has a viewer");
  }
  WebRtcSender::Events events;
  events.connected = [this] {
    {
      MutexLock hold(lock_);
      connected_ = true;
    }
    changed_.notify_all();
  };
  events.ended = [this](const std::string& why) {
    end("the viewer's connection ended: " + why, "viewer_left");
  };
  WebRtcSender::Options media;
  media.width = idle_->width();
  media.height = idle_->height();
  std::shared_ptr<WebRtcSender> sender = WebRtcSender::create(offer, media, std::move(events));
  const std::string answer = sender->answer();
  MutexLock hold(lock_);
  if (sender_) throw SessionError(409, "the session already has a viewer");
  sender_ = std::move(sender);
  lastActivity_ = Clock::now();
  return answer;
}

LiveSession::Receipt LiveSession::speak(std::vector<float> samples) {
  render::SilenceRule rule;
  std::vector<std::pair<std::size_t, std::size_t>> segments;
  for (const render::Utterance& u : render::splitUtterances(samples, rule)) {
    segments.emplace_back(u.firstFrame, u.endFrame);
  }
  const double seconds = double(samples.size()) / 16000.0;
  Receipt receipt;
  {
    MutexLock hold(lock_);
    checkRoom();
    receipt.utterance =
        timeline_.addRecording(std::move(samples), std::move(segments), Clock::now());
    receipt.seconds = seconds;
    lastActivity_ = Clock::now();
  }
  changed_.notify_all();
  return receipt;
}

void LiveSession::stream(const float* samples, std::size_t count) {
  {
    MutexLock hold(lock_);
    if (ended_) throw SessionError(409, "the session has ended");
    if (!openStream_) {
      checkRoom();  // a stream already open goes on while the server drains
      openStream_ = timeline_.beginStream(Clock::now());
      streamed_ = 0;
    }
    timeline_.appendStream(*openStream_, samples, count);
    streamed_ += count;
    // A stream that never ends would hold its samples for ever: it ends itself after a while.
    if (streamed_ >= options_.maxStreamSamples) {
      timeline_.endStream(*openStream_);
      openStream_.reset();
      streamed_ = 0;
    }
    lastActivity_ = Clock::now();
  }
  changed_.notify_all();
}

std::optional<LiveSession::Receipt> LiveSession::endStream() {
  std::optional<Receipt> receipt;
  {
    MutexLock hold(lock_);
    if (!openStream_) return std::nullopt;
    receipt = Receipt{*openStream_, double(timeline_.endStream(*openStream_)) / 16000.0};
    openStream_.reset();
    lastActivity_ = Clock::now();
  }
  changed_.notify_all();
  return receipt;
}

void LiveSession::checkRoom() const {
  if (ended_) throw SessionError(409, "the session has ended");
  if (!takingSpeech_) {
    throw SessionError(503, "the server is shutting down: what was said is spoken, nothing new",
                       "draining");
  }
  if (timeline_.queuedItems() >= options_.maxQueuedItems) {
    throw SessionError(409, "the session's speech queue is full (" +
                                std::to_string(options_.maxQueuedItems) + " items)");
  }
}

LiveSession::Receipt LiveSession::say(std::vector<render::Sentence> sentences,
                                      Clock::time_point posted) {
  auto job = std::make_shared<SayJob>();
  job->sentences = std::move(sentences);
  std::future<Receipt> receipt = job->done.get_future();
  {
    MutexLock hold(lock_);
    checkRoom();
    job->item = timeline_.beginStream(posted);
    sayTimes_ = SayTimes{job->item, posted, {}, {}, {}, {}};
    sayJobs_.push_back(job);
    lastActivity_ = Clock::now();
  }
  sayQueued_.notify_all();
  // Making speech runs hundreds of times faster than speaking it: a minute is far more than a
  // whole text takes, whatever else the voice is busy with.
  if (receipt.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
    throw SessionError(503, "the voice is busy; the text is spoken as it is made");
  }
  return receipt.get();
}

// Speaks the texts posted, one after another: each sentence goes into the text's streamed item
// as soon as it is made, and the item ends after the last.
void LiveSession::voiceLoop() {
  for (;;) {
    std::shared_ptr<SayJob> job;
    {
      MutexLock hold(lock_);
      while (!ended_ && sayJobs_.empty()) sayQueued_.wait(lock_);
      if (ended_) break;
      job = sayJobs_.front();
    }
    std::size_t made = 0;
    std::exception_ptr failure;
    try {
      made = voice_.speak(job->sentences, [&](const float* samples, std::size_t count) {
        {
          MutexLock hold(lock_);
          if (ended_) return false;
          if (sayTimes_ && sayTimes_->item == job->item && !sayTimes_->fed) {
            sayTimes_->fed = Clock::now();
          }
          timeline_.appendStream(job->item, samples, count);
          lastActivity_ = Clock::now();
        }
        changed_.notify_all();
        return true;
      });
    } catch (const std::exception& e) {
      // What was made is spoken; the caller hears why the rest is not.
      failure = std::make_exception_ptr(SessionError(500, e.what()));
    }
    {
      MutexLock hold(lock_);
      timeline_.endStream(job->item);
      sayJobs_.pop_front();
    }
    changed_.notify_all();
    if (ended_) failure = std::make_exception_ptr(SessionError(409, "the session has ended"));
    if (failure) {
      job->done.set_exception(failure);
    } else {
      job->done.set_value(Receipt{job->item, double(made) / double(render::kEngineRate)});
    }
  }
  std::deque<std::shared_ptr<SayJob>> left;
  {
    MutexLock hold(lock_);
    left.swap(sayJobs_);
  }
  for (const auto& job : left) {
    job->done.set_exception(std::make_exception_ptr(SessionError(409, "the session has ended")));
  }
}

nlohmann::json LiveSession::status() const {
  // The sender's statistics are read outside the session's lock: the sender delivers its events,
  // which take that lock, while holding its own.
  std::shared_ptr<WebRtcSender> sender;
  {
    MutexLock hold(lock_);
    sender = sender_;
  }
  const std::uint64_t behind = sender ? sender->stats().framesBehind : 0;
  MutexLock hold(lock_);
  nlohmann::json j;
  j["id"] = id_;
  j["avatar"] = avatar_.code;
  j["state"] = ended_ ? "ended" : "live";
  j["ended_reason"] = ended_ ? nlohmann::json(endedReason_) : nlohmann::json(nullptr);
  j["child"] = childState_;
  j["connected"] = connected_;
  j["frames_sent"] = timeline_.framesOut();
  j["stalls"] = stalls_;
  j["frames_behind"] = behind;
  j["stalled_seconds"] = stalledSeconds_;
  if (lastStall_) {
    const auto& [wait, at] = *lastStall_;
    j["last_stall"] = {{"utterance", wait.utterance},
                       {"frame", wait.frame},
                       {"frames_received", wait.received},
                       {"after_connect_s", at}};
  } else {
    j["last_stall"] = nullptr;
  }
  j["utterances_queued"] = timeline_.queuedItems();
  j["utterances_spoken"] = timeline_.itemsSpoken();
  j["speaking"] = timeline_.speaking();
  j["respawns"] = respawns_;
  j["render_fps"] = timeline_.renderRate();
  j["render_first_frame_ms"] = timeline_.renderLatency() * 1000.0;
  j["speech_to_first_rendered_ms"] =
      timeline_.arrivalToFirstRendered() >= 0
          ? nlohmann::json(timeline_.arrivalToFirstRendered() * 1000.0)
          : nlohmann::json(nullptr);
  j["child_pid"] = childPid_;
  j["child_rss_kib"] = residentKiB(childPid_);
  j["speech_to_first_frame_ms"] =
      speechLatency_ ? nlohmann::json(*speechLatency_ * 1000.0) : nlohmann::json(nullptr);
  j["first_frame_after_connect_ms"] =
      firstFrameAfter_ ? nlohmann::json(*firstFrameAfter_ * 1000.0) : nlohmann::json(nullptr);
  // The last text spoken: posted → its first sentence made, its first sound sent to the child →
  // its first frame back (the engine's first chunk), and posted → its first rendered frame sent.
  auto ms = [](const auto& from, const auto& to) {
    return from && to
               ? nlohmann::json(std::chrono::duration<double, std::milli>(*to - *from).count())
               : nlohmann::json(nullptr);
  };
  const std::optional<Clock::time_point> posted =
      sayTimes_ ? std::optional(sayTimes_->posted) : std::nullopt;
  j["say_first_sentence_ms"] = ms(posted, sayTimes_ ? sayTimes_->fed : std::nullopt);
  j["say_child_first_frame_ms"] =
      sayTimes_ ? ms(sayTimes_->toChild, sayTimes_->fromChild) : nlohmann::json(nullptr);
  j["say_to_first_frame_ms"] = sayTimes_ && sayTimes_->firstFrameSent
                                   ? nlohmann::json(*sayTimes_->firstFrameSent * 1000.0)
                                   : nlohmann::json(nullptr);
  return j;
}

LiveSession::Counters LiveSession::counters() const {
  Counters c;
  std::shared_ptr<WebRtcSender> sender;
  {
    MutexLock hold(lock_);
    sender = sender_;
  }
  if (sender) c.framesBehind = sender->stats().framesBehind;  // outside the lock, as in status()
  MutexLock hold(lock_);
  c.framesSent = timeline_.framesOut();
  c.renderedSent = timeline_.renderedOut();
  c.framesRendered = framesRendered_;
  c.stalls = stalls_;
  c.respawns = respawns_;
  c.childDeaths = childDeaths_;
  c.utterancesSpoken = timeline_.itemsSpoken();
  c.childPid = childPid_;
  c.renderFps = timeline_.renderRate();
  c.speechQueued = timeline_.queuedItems();
  c.framesAhead = timeline_.framesAhead();
  c.textsQueued = sayJobs_.size();
  // Speech without a viewer never plays: it does not hold a drain up.
  c.busy =
      connected_ && (timeline_.queuedItems() > 0 || openStream_.has_value() || !sayJobs_.empty());
  c.cause = ended_ ? endedCause_ : "";
  return c;
}

void LiveSession::stopTakingSpeech() {
  MutexLock hold(lock_);
  takingSpeech_ = false;
}

bool LiveSession::startChild(std::unique_ptr<render::StreamChild>& child) {
  {
    MutexLock hold(lock_);
    childState_ = "warming";
    childPid_ = -1;
  }
  try {
    render::StreamChild::Command command = options_.command;
    command.avatar = avatar_.file;
    child = render::StreamChild::start(command);
  } catch (const std::exception& e) {
    end(std::string("the render process did not start: ") + e.what(), "render_failed");
    MutexLock hold(lock_);
    childState_ = "failed";
    ++childDeaths_;
    return false;
  }
  MutexLock hold(lock_);
  childState_ = "ready";
  childPid_ = child->pid();
  return true;
}

// Feeds the child the segment the timeline asks for, one at a time, and hands its frames back.
void LiveSession::renderLoop() {
  std::unique_ptr<render::StreamChild> child;
  if (!startChild(child)) return;
  render::PictureConverter converter(child->geometry().width, child->geometry().height,
                                     render::PictureConverter::Layout::rgb24);
  struct Current {
    std::uint64_t item = 0;
    std::size_t segment = 0;
    std::size_t sent = 0;
    bool flushed = false;
    bool resent = false;
    std::size_t received = 0;
  };
  // The segment the child is rendering; `busy` says whether there is one (a plain flag: GCC 12
  // misreads an optional of it as maybe uninitialised).
  Current current;
  bool busy = false;
  while (!ended_) {
    // 1. The sound the child has not had yet.
    std::optional<LiveTimeline::RenderWork> work;
    bool holdBack = false;
    {
      MutexLock hold(lock_);
      if (busy && !current.flushed) work = timeline_.renderWork(current.sent);
      if (!busy) work = timeline_.renderWork(0);
      holdBack = timeline_.framesAhead() >= options_.maxFramesAhead;
    }
    if (work && (!busy || current.item != work->item || current.segment != work->segment)) {
      current = Current{work->item, work->segment};
      busy = true;
    }
    if (work && busy && !current.flushed) {
      if (!work->samples.empty()) {
        child->sendAudio(work->samples.data(), work->samples.size());
        if (current.sent == 0) {
          MutexLock hold(lock_);
          if (sayTimes_ && sayTimes_->item == current.item && !sayTimes_->toChild) {
            sayTimes_->toChild = Clock::now();
          }
        }
        current.sent += work->samples.size();
      }
      if (work->complete) {
        child->sendFlush();
        current.flushed = true;
        MutexLock hold(lock_);
        timeline_.audioSent(current.item, current.segment, Clock::now());
      }
    }
    // 2. What the child answers, unless the timeline holds enough already.
    if (holdBack) {
      MutexLock hold(lock_);
      changed_.wait_for(lock_, kReadSlice);
      continue;
    }
    const render::StreamChild::Event event = child->next(Clock::now() + kReadSlice);
    switch (event.kind) {
      case render::StreamChild::Event::Kind::late:
        if (!busy) {
          MutexLock hold(lock_);
          if (!ended_ && !timeline_.renderWork(0)) changed_.wait_for(lock_, kReadSlice);
        }
        break;
      case render::StreamChild::Event::Kind::frame:
        if (busy) {
          Picture picture(child->geometry().width, child->geometry().height);
          converter.convert(event.rgb, picture);
          ++current.received;
          {
            MutexLock hold(lock_);
            ++framesRendered_;
            if (current.received == 1 && sayTimes_ && sayTimes_->item == current.item &&
                !sayTimes_->fromChild) {
              sayTimes_->fromChild = Clock::now();
            }
            timeline_.addFrame(current.item, current.segment, event.position, std::move(picture),
                               Clock::now());
          }
          changed_.notify_all();
        }
        break;
      case render::StreamChild::Event::Kind::marker: {
        // A segment the engine failed ends with a marker and no frames; the child leaves right
        // after it when it wants to be respawned.
        if (busy && current.received == 0 && child->exitsWithin(std::chrono::seconds(3))) {
          break;  // the next read says `ended`
        }
        if (busy) {
          {
            MutexLock hold(lock_);
            timeline_.segmentDone(current.item, current.segment, Clock::now());
          }
          changed_.notify_all();
        }
        busy = false;
        break;
      }
      case render::StreamChild::Event::Kind::ended: {
        if (ended_) break;
        const int status = child->exitStatus();
        const std::string tail = child->stderrTail();
        child.reset();
        if (status != 3) {
          end("the render process ended with exit status " + std::to_string(status),
              "render_failed");
          MutexLock hold(lock_);
          childState_ = "failed";
          ++childDeaths_;
          childPid_ = -1;
          return;
        }
        {
          MutexLock hold(lock_);
          ++respawns_;
        }
        if (busy && current.resent) {
          // Failed twice: the idle clip covers the rest of the segment.
          MutexLock hold(lock_);
          timeline_.segmentDone(current.item, current.segment, Clock::now());
          busy = false;
        } else if (busy) {
          current.sent = 0;
          current.flushed = false;
          current.resent = true;
          current.received = 0;
        }
        if (!startChild(child)) return;
        break;
      }
    }
  }
}

// One line per frame sent: the session, the frame's index and time stamp (ms), its sound's RMS,
// and the mean luma of a 4 x 8 grid of the picture, row by row. A diagnostic: what left the
// server, to set beside what a viewer got.
void LiveSession::traceFrame(std::uint64_t index, std::chrono::nanoseconds pts,
                             const LiveFrame& frame) {
  double squares = 0;
  for (float v : frame.samples) squares += double(v) * double(v);
  std::string line = id_ + " " + std::to_string(index) + " " +
                     std::to_string(double(pts.count()) / 1e6) + " " +
                     std::to_string(std::sqrt(squares / double(frame.samples.size())));
  const Picture& p = frame.picture;
  for (int row = 0; row < 8; ++row) {
    for (int col = 0; col < 4; ++col) {
      double sum = 0;
      const int y0 = row * p.height / 8, y1 = (row + 1) * p.height / 8;
      const int x0 = col * p.width / 4, x1 = (col + 1) * p.width / 4;
      for (int y = y0; y < y1; ++y) {
        const std::uint8_t* at = p.bytes.data() + std::size_t(y) * std::size_t(p.width);
        for (int x = x0; x < x1; ++x) sum += at[x];
      }
      // Appended piece by piece: GCC 12 misreads `" " + std::to_string(...)` (its -Wrestrict
      // false positive, bug 105651).
      line += ' ';
      line += std::to_string(int(sum / double((y1 - y0) * (x1 - x0)) * 100) / 100.0);
    }
  }
  line += "\n";
  options_.trace->write(line);
}

// One frame and its sound every 50 ms from the moment the peer is connected.
void LiveSession::paceLoop() {
  std::shared_ptr<WebRtcSender> sender;
  {
    MutexLock hold(lock_);
    while (!ended_ && !connected_) changed_.wait_for(lock_, std::chrono::milliseconds(100));
    sender = sender_;
  }
  if (ended_ || !sender) return;
  const auto start = Clock::now();
  Clock::duration paused{};  // stalls so far: the clock stands still while stalled
  std::uint64_t sent = 0;
  bool stalled = false;
  LiveFrame frame;
  while (!ended_) {
    const auto due = start + paused + sent * kFramePeriod;
    {
      MutexLock hold(lock_);
      while (!ended_ && Clock::now() < due) changed_.wait_until(lock_, due);
      if (ended_) break;
      if (!timeline_.next(frame, Clock::now())) {
        if (!stalled) {
          ++stalls_;
          lastStall_.emplace(timeline_.lastWait(),
                             std::chrono::duration<double>(due - start).count());
        }
        stalled = true;
        changed_.wait_for(lock_, std::chrono::milliseconds(5));
        const auto late = Clock::now() - due;
        if (late > Clock::duration::zero()) {
          paused += late;
          stalledSeconds_ += std::chrono::duration<double>(late).count();
        }
        continue;
      }
      stalled = false;
      if (frame.itemArrived) {
        speechLatency_ = std::chrono::duration<double>(Clock::now() - *frame.itemArrived).count();
        if (sayTimes_ && sayTimes_->item == frame.item) sayTimes_->firstFrameSent = speechLatency_;
      }
      if (!firstFrameAfter_) {
        firstFrameAfter_ = std::chrono::duration<double>(Clock::now() - start).count();
      }
    }
    const auto pts =
        std::chrono::duration_cast<std::chrono::nanoseconds>(paused + sent * kFramePeriod);
    if (options_.trace) traceFrame(sent, pts, frame);
    sender->push(pts, frame.picture.bytes.data(), frame.samples.data(), frame.samples.size());
    ++sent;
  }
}

}  // namespace lumora2::serve
