// LiveSession: its life (construction, end), its viewer (connect, leaving, the grace period) and
// the speech it takes (recordings, streams). The threads' loops live in session_render.cpp,
// session_pacing.cpp and session_voice.cpp; what it reports in session_status.cpp.
#include "live_session.h"

#include <utility>

#include "client/frame_buffers.h"
#include "client/speech_text.h"
#include "client/utterances.h"
#include "media/webrtc_sender.h"

namespace lumora2::serve {

using Clock = std::chrono::steady_clock;

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

LiveSession::LiveSession(std::string id, Avatar avatar, ClipFuture idle, SessionOptions options)
    : id_(std::move(id)),
      avatar_(std::move(avatar)),
      options_(std::move(options)),
      voice_(avatar_.voice.empty() ? render::chooseVoice(avatar_.gender, avatar_.persona, "").name
                                   : avatar_.voice),
      clip_(std::move(idle)),
      idle_(std::make_unique<IdleSource>()),
      timeline_(*idle_),
      lastActivity_(Clock::now()),
      created_(Clock::now()) {
  {
    MutexLock hold(lock_);
    timeline_.setAheadCap(options_.maxFramesAhead);
  }
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
    if (!endedReason_.empty()) return;
    endedReason_ = reason;
    endedCause_ = cause;
    ended_ = true;
  }
  events_.publish("session_ended", {{"reason", reason}, {"cause", cause}});
  changed_.notify_all();
  sayQueued_.notify_all();
}

double LiveSession::idleSeconds() const {
  MutexLock hold(lock_);
  // Speech playing to a viewer, or being made, keeps a session busy, whoever called last.
  if ((viewer_ == Viewer::connected && timeline_.queuedItems() > 0) || !textJobs_.empty()) return 0;
  // Nor is a session idle while its render process warms up: its time starts once it can speak.
  if (childState_ == "warming") return 0;
  return std::chrono::duration<double>(Clock::now() - lastActivity_).count();
}

const char* LiveSession::viewerName(Viewer viewer) {
  switch (viewer) {
    case Viewer::none:
      return "none";
    case Viewer::connecting:
      return "connecting";
    case Viewer::connected:
      return "connected";
    case Viewer::left:
      return "left";
  }
  return "none";
}

LiveSession::Answer LiveSession::connect(const std::string& offer) {
  std::uint64_t generation = 0;
  {
    MutexLock hold(lock_);
    if (ended_) throw SessionError(409, "the session has ended");
    // An answered viewer that never connected gives its place up after a while.
    const bool stale =
        viewer_ == Viewer::connecting && Clock::now() - viewerSince_ > options_.viewerSetup;
    if ((viewer_ == Viewer::connecting && !stale) || viewer_ == Viewer::connected) {
      throw SessionError(409, "the session has a viewer already");
    }
    viewer_ = Viewer::connecting;
    viewerSince_ = Clock::now();
    lastActivity_ = Clock::now();
    generation = ++viewerGeneration_;
  }
  WebRtcSender::Events events;
  events.connected = [this, generation] {
    {
      MutexLock hold(lock_);
      if (viewer_ != Viewer::connecting || viewerGeneration_ != generation) return;
      viewer_ = Viewer::connected;
      viewerSince_ = Clock::now();
      ++viewers_;
    }
    events_.publish("viewer_connected", nlohmann::json::object());
    changed_.notify_all();
  };
  events.ended = [this, generation](const std::string& why) { viewerLeft(generation, why); };
  WebRtcSender::Options media;
  media.soundDelay = options_.soundDelay;
  media.recyclePicture = render::keepFrameBuffer;
  // A viewer not connected by the time its place would be given to another has no path.
  media.connectTimeout = options_.viewerSetup;
  const IceConfig& ice = *options_.ice;
  // The server's own agent is a client of the TURN servers too, with credentials of its own.
  const auto servers = ice.entries(id_, std::chrono::system_clock::now());
  media.stunServer = IceConfig::agentStunServer(servers);
  media.turnServers = IceConfig::agentTurnServers(servers);
  if (ice.udpPorts) {
    media.minPort = ice.udpPorts->min;
    media.maxPort = ice.udpPorts->max;
  }
  std::shared_ptr<WebRtcSender> sender;
  try {
    sender = WebRtcSender::create(offer, media, std::move(events));
  } catch (...) {
    MutexLock hold(lock_);
    if (viewerGeneration_ == generation) viewer_ = Viewer::none;
    try {
      throw;
    } catch (const NoCandidateError& e) {
      if (ice.udpPorts) throw SessionError(503, e.what(), "ports");
      throw SessionError(500, e.what());
    }
  }
  Answer answer{sender->answer(), generation};
  if (!ice.publicAddress.empty()) answer.sdp = announceAddress(answer.sdp, ice.publicAddress);
  std::shared_ptr<WebRtcSender> replaced;
  {
    MutexLock hold(lock_);
    replaced = std::move(sender_);  // a viewer that left: its pipeline goes
    sender_ = std::move(sender);
  }
  retire(std::move(replaced));
  changed_.notify_all();
  return answer;
}

void LiveSession::disconnect(std::uint64_t viewer) {
  std::shared_ptr<WebRtcSender> gone;
  {
    MutexLock hold(lock_);
    if (viewer != viewerGeneration_ || viewer_ == Viewer::none) {
      throw SessionError(404, "no such viewer: it has ended, or a later one took its place");
    }
    gone = std::move(sender_);
    viewer_ = Viewer::none;
    viewerSince_ = Clock::now();
    lastActivity_ = Clock::now();
  }
  retire(std::move(gone));
  events_.publish("viewer_left", {{"reason", "the viewer ended its stream"}});
  changed_.notify_all();
}

std::size_t LiveSession::addCandidates(std::uint64_t viewer, const std::string& fragment) {
  std::shared_ptr<WebRtcSender> sender;
  {
    MutexLock hold(lock_);
    if (viewer != viewerGeneration_ || viewer_ == Viewer::none || viewer_ == Viewer::left ||
        !sender_) {
      throw SessionError(404, "no such viewer: it has ended, or a later one took its place");
    }
    sender = sender_;
  }
  return sender->addCandidates(fragment);
}

void LiveSession::retire(std::shared_ptr<WebRtcSender> sender) {
  if (!sender) return;
  const std::uint64_t behind = sender->stats().framesBehind;
  {
    MutexLock hold(lock_);
    framesBehindEarlier_ += behind;
  }
  sender.reset();
}

// Called from the sender's own thread: the sender is dropped by the pacing thread, never here.
void LiveSession::viewerLeft(std::uint64_t generation, const std::string& why) {
  {
    MutexLock hold(lock_);
    if (viewerGeneration_ != generation) return;
    if (viewer_ != Viewer::connected && viewer_ != Viewer::connecting) return;
    viewer_ = Viewer::left;
    viewerSince_ = Clock::now();
  }
  events_.publish("viewer_left", {{"reason", why}});
  changed_.notify_all();
}

LiveSession::Receipt LiveSession::speak(std::vector<float> samples, bool interrupt) {
  if (interrupt) this->interrupt();
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
  events_.publish("utterance_queued",
                  {{"utterance", receipt.utterance}, {"kind", "recording"}, {"duration", seconds}});
  changed_.notify_all();
  return receipt;
}

void LiveSession::stream(const float* samples, std::size_t count) {
  std::optional<std::uint64_t> opened;
  {
    MutexLock hold(lock_);
    if (ended_) throw SessionError(409, "the session has ended");
    if (openText_) {
      throw SessionError(409, "the open utterance is text: end it ({\"end\": true}) before PCM");
    }
    if (!openStream_) {
      checkRoom();  // a stream already open goes on while the server drains
      openStream_ = timeline_.beginStream(Clock::now());
      opened = openStream_;
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
  if (opened) events_.publish("utterance_queued", {{"utterance", *opened}, {"kind", "stream"}});
  changed_.notify_all();
}

std::optional<LiveSession::Receipt> LiveSession::endStream() {
  std::optional<Receipt> receipt;
  {
    MutexLock hold(lock_);
    if (openText_) {
      // The words after the last full sentence are its last sentence.
      for (render::Sentence& s : render::splitSentences(textBuffer_)) {
        openText_->pending.push_back(std::move(s));
      }
      textBuffer_.clear();
      openText_->closed = true;
      receipt = Receipt{openText_->item, double(openText_->made) / 16000.0};
      openText_.reset();
      lastActivity_ = Clock::now();
      sayQueued_.notify_all();
      return receipt;
    }
    if (!openStream_) return std::nullopt;
    receipt = Receipt{*openStream_, double(timeline_.endStream(*openStream_)) / 16000.0};
    openStream_.reset();
    lastActivity_ = Clock::now();
  }
  changed_.notify_all();
  return receipt;
}

nlohmann::json LiveSession::interrupt() {
  LiveTimeline::Cut cut;
  nlohmann::json result;
  {
    MutexLock hold(lock_);
    if (ended_) throw SessionError(409, "the session has ended");
    cut = timeline_.interrupt();
    // A stream or a text still arriving is cut with the rest: more of it opens a new utterance.
    openStream_.reset();
    streamed_ = 0;
    openText_.reset();
    textBuffer_.clear();
    for (const auto& job : textJobs_) job->cancelled = true;
    lastActivity_ = Clock::now();
    result = {{"interrupted", cut.playing != 0},
              {"utterance", cut.playing != 0 ? nlohmann::json(cut.playing) : nullptr},
              {"samples_played", cut.framesHeard * kFrameSamples},
              {"dropped", cut.dropped}};
    if (cut.playing != 0) {
      const nlohmann::json heard =
          heardOf(cut.playing, timeline_.madeSamples(cut.playing, cut.framesHeard * kFrameSamples));
      if (!heard.is_null()) result.update(heard);
    }
    spoken_.erase(cut.playing);
    for (std::uint64_t item : cut.dropped) spoken_.erase(item);
  }
  changed_.notify_all();
  sayQueued_.notify_all();
  if (cut.playing != 0 || !cut.dropped.empty()) events_.publish("utterance_interrupted", result);
  return result;
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

void LiveSession::stopTakingSpeech() {
  MutexLock hold(lock_);
  takingSpeech_ = false;
}

}  // namespace lumora2::serve
