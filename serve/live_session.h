// LiveSession: one viewer's talking avatar. It owns the session's render-stream child (started at
// once, so that it warms up while the viewer connects), its LiveTimeline, and its WebRTC sender,
// and runs three threads: the render thread feeds the child the speech the timeline asks for and
// hands its frames back, the pacing thread sends one frame and its 50 ms of sound every 50 ms
// from the moment the viewer's peer is connected, pausing both together when a rendered frame is
// due and not there (a stall, counted), and the voice thread speaks posted text with the
// avatar's voice, sentence by sentence, into the timeline.
//
// A child that asks to be respawned (exit status 3) is replaced and the segment it was rendering
// sent again, once; a child that ends otherwise ends this session only, with a reason the status
// shows. Sessions are ended by end() from any thread (an API call, the peer going away, an idle
// time-out) and destroyed by their registry, never from one of their own threads.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "catalog.h"
#include "client/speech_text.h"
#include "client/stream_child.h"
#include "client/voice.h"
#include "engine/thread_annotations.h"
#include "live_timeline.h"

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
  std::size_t maxQueuedItems = 8;        // speech items waiting or playing
  std::size_t maxFramesAhead = 200;      // rendered frames held before the child is made to wait
  std::size_t maxStreamSamples = 16000 * 300;  // a streamed utterance ends itself after 5 minutes
  std::shared_ptr<TraceFile> trace;            // frames sent, when asked for
};

class LiveSession {
 public:
  // `idle` is the avatar's idle clip, read before (and shared by its sessions).
  LiveSession(std::string id, Avatar avatar, std::shared_ptr<const IdleSource::Clip> idle,
              SessionOptions options);
  ~LiveSession();
  LiveSession(const LiveSession&) = delete;
  LiveSession& operator=(const LiveSession&) = delete;

  const std::string& id() const { return id_; }
  const Avatar& avatar() const { return avatar_; }

  // The WHEP exchange: the viewer's SDP offer in, the answer out. Throws SessionError 409 when the
  // session already has a peer, MediaError for an offer that cannot be answered.
  std::string connect(const std::string& offer) LUMORA2_EXCLUDES(lock_);

  struct Receipt {
    std::uint64_t utterance = 0;
    double seconds = 0;
  };
  // A whole recording (16 kHz mono), split into utterances by its silences. Throws SessionError
  // 409 when the queue is full or the session has ended.
  Receipt speak(std::vector<float> samples) LUMORA2_EXCLUDES(lock_);
  // Streamed speech: samples are appended to the open streamed utterance (one is opened when
  // none is); endStream closes it. Throws SessionError 409 as speak does.
  void stream(const float* samples, std::size_t count) LUMORA2_EXCLUDES(lock_);
  std::optional<Receipt> endStream() LUMORA2_EXCLUDES(lock_);
  // The avatar's voice, for the caller's checks of a text before say().
  const render::Voice& voice() const { return voice_; }
  // Speaks checked text: one streamed item, its sentences synthesised one by one on the
  // session's voice thread and each fed to the timeline as soon as it is made, so that the first
  // is rendered while the rest are made. `posted` is when the text arrived (the item's arrival).
  // Returns once every sentence is made, with the item's length. Throws SessionError 409 as
  // speak does, also when the session ends before the text is all made.
  Receipt say(std::vector<render::Sentence> sentences, std::chrono::steady_clock::time_point posted)
      LUMORA2_EXCLUDES(lock_);

  // Ends the session (idempotent): the threads stop, the child is ended; the registry destroys
  // it later. The first reason given is kept, with its cause: one word for the metrics
  // (deleted, viewer_left, idle, render_failed, shutdown, closed).
  void end(const std::string& reason, const char* cause) LUMORA2_EXCLUDES(lock_);
  bool ended() const { return ended_.load(); }
  // Seconds since the last API call or spoken item.
  double idleSeconds() const LUMORA2_EXCLUDES(lock_);
  void touch() LUMORA2_EXCLUDES(lock_);

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
    bool busy = false;  // has speech queued, playing, streaming or being made
    std::string cause;  // once ended
  };
  Counters counters() const LUMORA2_EXCLUDES(lock_);

  // The server drains: speech already taken is spoken, new speech is refused (503, "draining").
  void stopTakingSpeech() LUMORA2_EXCLUDES(lock_);

 private:
  void renderLoop();
  void paceLoop();
  void voiceLoop();
  // Throws SessionError 409 when the session has ended or its speech queue is full.
  void checkRoom() const LUMORA2_REQUIRES(lock_);
  void traceFrame(std::uint64_t index, std::chrono::nanoseconds pts, const LiveFrame& frame);
  bool startChild(std::unique_ptr<render::StreamChild>& child);

  // A text waiting for the voice thread, and the caller waiting for its receipt.
  struct SayJob {
    std::uint64_t item = 0;
    std::vector<render::Sentence> sentences;
    std::promise<Receipt> done;
  };
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
  std::unique_ptr<IdleSource> idle_;  // read by the timeline only

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
  double stalledSeconds_ LUMORA2_GUARDED_BY(lock_) = 0;
  // The latest stall: what it waited for, and when (seconds after the viewer connected).
  std::optional<std::pair<LiveTimeline::Wait, double>> lastStall_ LUMORA2_GUARDED_BY(lock_);
  std::uint64_t respawns_ LUMORA2_GUARDED_BY(lock_) = 0;
  bool connected_ LUMORA2_GUARDED_BY(lock_) = false;
  std::chrono::steady_clock::time_point lastActivity_ LUMORA2_GUARDED_BY(lock_);
  std::chrono::steady_clock::time_point created_;
  std::optional<double> firstFrameAfter_ LUMORA2_GUARDED_BY(lock_);  // connect → first frame
  // The last item's arrival → its first rendered frame sent, in seconds.
  std::optional<double> speechLatency_ LUMORA2_GUARDED_BY(lock_);
  std::shared_ptr<WebRtcSender> sender_ LUMORA2_GUARDED_BY(lock_);
  std::deque<std::shared_ptr<SayJob>> sayJobs_ LUMORA2_GUARDED_BY(lock_);
  std::optional<SayTimes> sayTimes_ LUMORA2_GUARDED_BY(lock_);
  std::atomic<bool> ended_{false};

  std::thread render_;
  std::thread pace_;
  std::thread voiceThread_;
};

}  // namespace lumora2::serve
