// LiveSession: one avatar talking live to one viewer at a time. It owns the session's
// render-stream child (started at once, so that it warms up while the viewer connects), its
// LiveTimeline, its viewer's WebRTC sender and its events, and runs three threads:
//   - the render thread (session_render.cpp) feeds the child the speech the timeline asks for and
//     hands its frames back; a child that dies is noticed even while the timeline holds enough;
//   - the pacing thread (session_pacing.cpp) sends one frame and its 50 ms of sound every 50 ms
//     while a viewer is connected, pausing both together when a rendered frame is due and not
//     there (a stall, counted); while nobody watches the session's clock holds;
//   - the voice thread (session_voice.cpp) speaks posted text with the avatar's voice, sentence by
//     sentence, into the timeline.
//
// A child that asks to be respawned (exit status 3) is replaced and the segment it was rendering
// sent again, once; a child that ends otherwise ends this session only, with a reason the status
// shows. A viewer whose connection fails or closes frees the session's viewer place at once; the
// session then waits `viewerGrace` for another (a reload, a new network) before it ends. Sessions
// are ended by end() from any thread (an API call, the grace running out, an idle time-out) and
// destroyed by their registry, never from one of their own threads.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "catalog.h"
#include "client/render_channel.h"
#include "client/speech_text.h"
#include "client/stream_child.h"
#include "client/voice.h"
#include "engine/thread_annotations.h"
#include "ice_servers.h"
#include "live_timeline.h"
#include "media/webrtc_sender.h"
#include "session_events.h"

namespace lumora2::serve {

class WebRtcSender;

// A request the session refuses; `status` is the HTTP status it maps to.
// `reason` is a word for programs (the JSON error's "reason"), empty when the status says all.
struct SessionError : std::runtime_error {
  SessionError(int httpStatus, const std::string& message, std::string why = {})
      : std::runtime_error(message), status(httpStatus), reason(std::move(why)) {}
  int status;
  std::string reason;
};

// Where sessions write their frame traces (LUMORA2_SERVE_TRACE): one line per write, from any
// thread.
class TraceFile {
 public:
  explicit TraceFile(const std::string& path);
  ~TraceFile();
  void write(const std::string& line);

 private:
  Mutex lock_;
  std::FILE* file_ LUMORA2_GUARDED_BY(lock_) = nullptr;
};

struct SessionOptions {
  render::StreamChild::Command command;  // avatar and engine filled in per session
  // Where sessions are rendered (shared processes, or a child each); none: a child each.
  std::shared_ptr<render::RenderPool> renderers;
  std::size_t maxQueuedItems = 8;  // speech items waiting or playing
  // Rendered frames held before the child is made to wait: five seconds of speech ahead, 45 MB of
  // 4:2:0 pictures per session (the largest part of a session's memory in the server).
  std::size_t maxFramesAhead = 100;
  std::size_t maxStreamSamples =
      16000 * 300;                       // an utterance (a stream, a text) lasts at most 5 min
  std::chrono::seconds viewerGrace{30};  // how long a session waits for a viewer to come back
  std::chrono::seconds viewerSetup{20};  // how long an answered viewer may take to connect
  std::shared_ptr<TraceFile> trace;      // frames sent, when asked for
  SoundDelay soundDelay;  // diagnostics (LUMORA2_SERVE_SOUND_DELAY_MS): a planted fault
  // STUN and TURN servers, the public address and the port range of every viewer's connection.
  std::shared_ptr<const IceConfig> ice = std::make_shared<IceConfig>();
};

// The avatar's idle clip, being read or read (shared by the avatar's sessions).
using ClipFuture = std::shared_future<std::shared_ptr<const IdleSource::Clip>>;

class LiveSession {
 public:
  LiveSession(std::string id, Avatar avatar, ClipFuture idle, SessionOptions options);
  ~LiveSession();
  LiveSession(const LiveSession&) = delete;
  LiveSession& operator=(const LiveSession&) = delete;

  const std::string& id() const { return id_; }
  const Avatar& avatar() const { return avatar_; }
  SessionEvents& events() { return events_; }

  // The WHEP exchange: the viewer's SDP offer in, the answer out, with the number of the viewer
  // (its WHEP resource). Throws SessionError 409 when a viewer is connected or connecting, 503
  // (reason "ports") when no port of the range is free, MediaError for an offer that cannot be
  // answered.
  struct Answer {
    std::string sdp;
    std::uint64_t viewer = 0;
  };
  Answer connect(const std::string& offer) LUMORA2_EXCLUDES(lock_);
  // Ends viewer `viewer` (its WHEP resource deleted): the session's viewer place is free at once
  // and the session lives on. Throws SessionError 404 when that viewer is not the session's.
  void disconnect(std::uint64_t viewer) LUMORA2_EXCLUDES(lock_);
  // The late candidates of viewer `viewer` (an SDP fragment); how many were taken. Throws
  // SessionError 404 as disconnect does, MediaError for a fragment without candidates.
  std::size_t addCandidates(std::uint64_t viewer, const std::string& fragment)
      LUMORA2_EXCLUDES(lock_);

  struct Receipt {
    std::uint64_t utterance = 0;
    double seconds = 0;
  };
  // A whole recording (16 kHz mono), split into utterances by its silences; `interrupt` cuts what
  // plays and is queued first. Throws SessionError 409 when the queue is full or the session has
  // ended, 503 while draining.
  Receipt speak(std::vector<float> samples, bool interrupt = false) LUMORA2_EXCLUDES(lock_);
  // Streamed speech: samples are appended to the open streamed utterance (one is opened when
  // none is); endStream closes it. Throws SessionError 409 as speak does.
  void stream(const float* samples, std::size_t count) LUMORA2_EXCLUDES(lock_);
  // Ends the open streamed utterance, PCM or text; for text, `seconds` is the length made so far
  // (the rest is made from the words held).
  std::optional<Receipt> endStream() LUMORA2_EXCLUDES(lock_);
  // Streamed text: words appended to the open text utterance (one is opened when none is), each
  // sentence spoken as soon as it is complete; endStream() speaks the rest. Text and PCM never mix
  // within one utterance (SessionError 409). Throws TextError for words the voice refuses.
  void streamText(const std::string& words) LUMORA2_EXCLUDES(lock_);
  // The avatar's voice, for the caller's checks of a text before say().
  const render::Voice& voice() const { return voice_; }
  // Speaks checked text: one streamed item, its sentences synthesised one by one on the
  // session's voice thread and each fed to the timeline as soon as it is made, so that the first
  // is rendered while the rest are made. `posted` is when the text arrived (the item's arrival).
  // Returns once every sentence is made, with the item's length. Throws SessionError 409 as
  // speak does, also when the session ends before the text is all made, and 413 when the text
  // spoken is longer than an utterance may be (nothing of it is then spoken).
  Receipt say(std::vector<render::Sentence> sentences, std::chrono::steady_clock::time_point posted,
              bool interrupt = false) LUMORA2_EXCLUDES(lock_);
  // Cuts what plays and drops what is queued; what was cut, as JSON.
  nlohmann::json interrupt() LUMORA2_EXCLUDES(lock_);

  // Ends the session (idempotent): the threads stop, the child is ended; the registry destroys
  // it later. The first reason given is kept, with its cause: one word for the metrics
  // (deleted, viewer_left, idle, render_failed, shutdown, closed).
  void end(const std::string& reason, const char* cause) LUMORA2_EXCLUDES(lock_);
  bool ended() const { return ended_.load(); }
  // Seconds since the last call that changed something (speech, a viewer), or since the last
  // item finished playing.
  double idleSeconds() const LUMORA2_EXCLUDES(lock_);

  // Audio WebSockets open on the session: openSocket takes a place unless `limit` are open.
  bool openSocket(std::size_t limit) { return ++sockets_ <= limit || (--sockets_, false); }
  void closeSocket() { --sockets_; }

  nlohmann::json status() const LUMORA2_EXCLUDES(lock_);

  // What the session has done so far, for the server's metrics and its admission.
  struct Counters {
    std::uint64_t framesSent = 0, renderedSent = 0;  // frames sent; of them, rendered pictures
    std::uint64_t framesBehind = 0;    // pictures the encoder, behind, never saw (a stutter)
    std::uint64_t framesRendered = 0;  // frames the child has rendered
    std::uint64_t stalls = 0, respawns = 0, childDeaths = 0;
    std::uint64_t utterancesSpoken = 0;
    pid_t childPid = -1;  // while a warmed-up child runs
    double renderFps = 0;
    std::size_t speechQueued = 0, framesAhead = 0, textsQueued = 0;
    bool busy = false;  // has speech queued, playing, streaming or being made, and a viewer
    std::string cause;  // once ended
  };
  Counters counters() const LUMORA2_EXCLUDES(lock_);

  // The server drains: speech already taken is spoken, new speech is refused (503, "draining").
  void stopTakingSpeech() LUMORA2_EXCLUDES(lock_);

 private:
  // Where the viewer is.
  enum class Viewer { none, connecting, connected, left };
  static const char* viewerName(Viewer viewer);

  // session_render.cpp
  friend class SessionRenderer;
  void renderLoop();
  // session_pacing.cpp
  void paceLoop();
  // Sends frames to one viewer until it goes or the session ends.
  void paceViewer(const std::shared_ptr<WebRtcSender>& sender);
  void traceFrame(std::uint64_t index, std::chrono::nanoseconds pts, const LiveFrame& frame);
  void publishPlayback(const LiveFrame& frame, std::uint64_t clock, std::chrono::nanoseconds pts);
  // Waits for the idle clip; false when it could not be read (the session then ends).
  bool awaitIdleClip();
  // session_voice.cpp
  void voiceLoop();

  // Throws SessionError 409 when the session has ended or its speech queue is full.
  void checkRoom() const LUMORA2_REQUIRES(lock_);
  // The viewer of generation `generation` went (a later viewer is not affected).
  void viewerLeft(std::uint64_t generation, const std::string& why) LUMORA2_EXCLUDES(lock_);

  // A text utterance for the voice thread: its sentences as they come (all at once for say, as
  // they are completed for streamed text), made one by one into its timeline item.
  struct TextJob {
    std::uint64_t item = 0;
    std::deque<render::Sentence> pending;       // not yet made (guarded by lock_)
    bool closed = false;                        // no sentence will be added (guarded by lock_)
    std::optional<std::promise<Receipt>> done;  // say's caller waits for it
    std::atomic<bool> cancelled{false};         // interrupted: the rest is not made
    // The voice thread's own.
    bool first = true;
    std::size_t made = 0;
    bool tooLong = false;
  };
  // What of a text item has been made, for saying how much of it was heard: each sentence's text,
  // its samples within the item, and where its words begin.
  struct SpokenSentence {
    std::string text;
    std::size_t start = 0, end = 0;
    std::vector<render::Voice::WordMark> words;  // samples within the item
  };
  // The heard part of a text item cut after `samples` of it played.
  nlohmann::json heardOf(std::uint64_t item, std::size_t samples) const LUMORA2_REQUIRES(lock_);
  void finishTextJob(const std::shared_ptr<TextJob>& job) LUMORA2_EXCLUDES(lock_);
  // Queues a text job; throws SessionError as speak does.
  std::shared_ptr<TextJob> queueText(std::chrono::steady_clock::time_point arrived, bool written)
      LUMORA2_REQUIRES(lock_);

  // When the last spoken text arrived, had its first sentence made, had its first sound sent to
  // the child and its first frame back, and had its first rendered frame sent.
  struct SayTimes {
    std::uint64_t item = 0;
    std::chrono::steady_clock::time_point posted;
    std::optional<std::chrono::steady_clock::time_point> fed, toChild, fromChild;
    std::optional<double> firstFrameSent;  // seconds after `posted`
  };

  const std::string id_;
  const Avatar avatar_;
  const SessionOptions options_;
  const render::Voice voice_;
  ClipFuture clip_;
  std::unique_ptr<IdleSource> idle_;  // read by the timeline only, once the clip is there
  SessionEvents events_;
  std::atomic<std::size_t> sockets_{0};

  mutable Mutex lock_;                     // guards the timeline and the session's state below
  std::condition_variable_any changed_;    // anything below changed
  std::condition_variable_any sayQueued_;  // a text was queued for the voice thread, or the end
  LiveTimeline timeline_ LUMORA2_GUARDED_BY(lock_);
  std::optional<std::uint64_t> openStream_ LUMORA2_GUARDED_BY(lock_);
  std::size_t streamed_ LUMORA2_GUARDED_BY(lock_) = 0;  // samples in the open stream
  std::string endedReason_ LUMORA2_GUARDED_BY(lock_);
  const char* endedCause_ LUMORA2_GUARDED_BY(lock_) = "";
  bool takingSpeech_ LUMORA2_GUARDED_BY(lock_) = true;
  std::uint64_t framesRendered_ LUMORA2_GUARDED_BY(lock_) = 0;
  std::uint64_t childDeaths_ LUMORA2_GUARDED_BY(lock_) = 0;
  std::string childState_ LUMORA2_GUARDED_BY(lock_) = "warming";
  pid_t childPid_ LUMORA2_GUARDED_BY(lock_) = -1;
  std::uint64_t stalls_ LUMORA2_GUARDED_BY(lock_) = 0;
  // The pacer is stalled, waiting for a rendered frame: the render loop wakes it with each one.
  // Otherwise frames wait for their time, and their arrival wakes nobody.
  bool pacerStarved_ LUMORA2_GUARDED_BY(lock_) = false;
  double stalledSeconds_ LUMORA2_GUARDED_BY(lock_) = 0;
  // The latest stall: what it waited for, and when (seconds of the session's clock).
  std::optional<std::pair<LiveTimeline::Wait, double>> lastStall_ LUMORA2_GUARDED_BY(lock_);
  std::uint64_t respawns_ LUMORA2_GUARDED_BY(lock_) = 0;
  Viewer viewer_ LUMORA2_GUARDED_BY(lock_) = Viewer::none;
  std::chrono::steady_clock::time_point viewerSince_ LUMORA2_GUARDED_BY(lock_);
  std::uint64_t viewers_ LUMORA2_GUARDED_BY(lock_) = 0;           // viewers that connected so far
  std::uint64_t viewerGeneration_ LUMORA2_GUARDED_BY(lock_) = 0;  // answers given so far
  std::chrono::steady_clock::time_point lastActivity_ LUMORA2_GUARDED_BY(lock_);
  std::chrono::steady_clock::time_point created_;
  std::optional<double> firstFrameAfter_ LUMORA2_GUARDED_BY(lock_);  // connect → first frame
  // The last item's arrival → its first rendered frame sent, in seconds.
  std::optional<double> speechLatency_ LUMORA2_GUARDED_BY(lock_);
  std::shared_ptr<WebRtcSender> sender_ LUMORA2_GUARDED_BY(lock_);
  // Pictures the encoders of viewers gone before dropped (the current one counts its own).
  std::uint64_t framesBehindEarlier_ LUMORA2_GUARDED_BY(lock_) = 0;
  // Drops a viewer's sender outside the lock, keeping its count of frames behind.
  void retire(std::shared_ptr<WebRtcSender> sender) LUMORA2_EXCLUDES(lock_);
  std::deque<std::shared_ptr<TextJob>> textJobs_ LUMORA2_GUARDED_BY(lock_);
  std::shared_ptr<TextJob> openText_ LUMORA2_GUARDED_BY(lock_);  // streamed text still open
  std::string textBuffer_ LUMORA2_GUARDED_BY(lock_);  // its words after its last full sentence
  std::map<std::uint64_t, std::vector<SpokenSentence>> spoken_ LUMORA2_GUARDED_BY(lock_);
  std::optional<SayTimes> sayTimes_ LUMORA2_GUARDED_BY(lock_);
  std::atomic<bool> ended_{false};

  std::thread render_;
  std::thread pace_;
  std::thread voiceThread_;
};

}  // namespace lumora2::serve
