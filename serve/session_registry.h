// SessionRegistry: the server's live sessions by id. Ids are 128 random bits in hex, so a caller
// can reach only the sessions it was told about. New sessions pass the server's Admission first.
// A reaper thread destroys sessions that have ended (their peer went away, their child died,
// DELETE) or been idle too long, outside the registry's lock, so that ending one session never
// holds up another or a request; once a second it also looks at every session's counters and
// processes, for the metrics and for the admission's measurements.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "admission.h"
#include "engine/thread_annotations.h"
#include "idle_clips.h"
#include "live_session.h"
#include "server_metrics.h"

namespace lumora2::serve {

class SessionRegistry {
 public:
  // `clipBudget`: bytes of decoded idle clips kept for sessions to come (IdleClips).
  SessionRegistry(SessionOptions options, Admission& admission, ServerMetrics& metrics,
                  std::chrono::seconds idleTimeout, std::size_t clipBudget);
  ~SessionRegistry();  // ends every session and waits for them

  // Throws SessionError 503 (with the refusal's reason) when the admission refuses a session.
  // Returns at once: the child warms up and the idle clip is read while the viewer connects.
  std::shared_ptr<LiveSession> create(const Avatar& avatar) LUMORA2_EXCLUDES(lock_);
  // Reads the avatars' idle clips ahead of their first session (as far as the budget allows).
  void preload(const std::vector<Avatar>& avatars) { clips_.preload(avatars); }
  // The live session with that id, or null (unknown, ended, or not an id at all).
  std::shared_ptr<LiveSession> find(const std::string& id) const LUMORA2_EXCLUDES(lock_);
  // Why the session of that id ended, while the registry remembers it (the last 256 ended
  // sessions); empty otherwise.
  std::string endedReason(const std::string& id) const LUMORA2_EXCLUDES(lock_);
  // Ends the session and takes it out of the count at once; false when there is none of that id.
  bool remove(const std::string& id) LUMORA2_EXCLUDES(lock_);
  std::size_t size() const LUMORA2_EXCLUDES(lock_);
  // Ends every session and waits until each is destroyed.
  void endAll() LUMORA2_EXCLUDES(lock_);

  // Whether a session may start now, and why not.
  Admission::Refusal readiness() const LUMORA2_EXCLUDES(lock_);
  std::size_t capacity() const { return admission_.capacity(); }

  // Stops admitting and taking new speech, then waits until every session with a viewer has
  // spoken what it had taken, or `deadline` passed, or `interrupted()` said so.
  struct Drained {
    bool complete = false;     // nothing was left unspoken
    std::uint64_t spoken = 0;  // utterances that finished while it waited
  };
  Drained drain(std::chrono::steady_clock::time_point deadline,
                const std::function<bool()>& interrupted) LUMORA2_EXCLUDES(lock_);

  static bool looksLikeId(const std::string& text);

 private:
  void reap();
  // What the sessions did since the last look (the reaper thread's own state below).
  void observe(const std::vector<std::shared_ptr<LiveSession>>& live,
               const std::vector<std::shared_ptr<LiveSession>>& ended);
  // One look's findings, gathered session by session.
  struct Look {
    ServerMetrics::Gauges gauges;
    std::uint64_t framesSent = 0, framesRendered = 0;
    bool childMeasured = false;           // some render process was looked at twice
    std::map<pid_t, double> childCpuNow;  // each render process's processor seconds now
    // No session appeared, began sending or ended since the last look: the span's server time
    // holds no one-off costs (a viewer's connection, an encoder's start), only frames'.
    bool settled = true;
    // No session's engine warmed up in a render process since the last look: the span's render
    // time holds no warm-up (which a shared process spends beside the frames of its others).
    bool childSettled = true;
    double slowest = 0;  // the slowest render speed, frames a second
  };
  void lookAt(LiveSession& session, bool last, Look& look);
  // The render processes' and the server's processor time per frame, for admission.
  void measureChildren(const Look& look);
  void measureServer(Look& look);
  std::vector<std::shared_ptr<LiveSession>> snapshot() const LUMORA2_EXCLUDES(lock_);
  // Takes an ended session out of the map (the reaper destroys it); its reason is remembered.
  void retire(std::map<std::string, std::shared_ptr<LiveSession>>::iterator it)
      LUMORA2_REQUIRES(lock_);

  const SessionOptions options_;
  Admission& admission_;
  ServerMetrics& metrics_;
  const std::chrono::seconds idleTimeout_;
  mutable Mutex lock_;  // guards sessions_, stopping_ and the ended reasons
  std::condition_variable_any wake_;
  std::map<std::string, std::shared_ptr<LiveSession>> sessions_ LUMORA2_GUARDED_BY(lock_);
  bool stopping_ LUMORA2_GUARDED_BY(lock_) = false;
  std::map<std::string, std::string> endedReasons_ LUMORA2_GUARDED_BY(lock_);
  std::vector<std::string> endedOrder_ LUMORA2_GUARDED_BY(lock_);
  // Ended sessions out of the map, waiting for the reaper to destroy them (and report them).
  std::vector<std::shared_ptr<LiveSession>> retired_ LUMORA2_GUARDED_BY(lock_);
  IdleClips clips_;

  // The reaper thread's alone: each session's counters and child at the last look, and the
  // processor time and frames gathered towards the next measurement.
  struct Seen {
    LiveSession::Counters counters;
    int coldLooks = 0;    // looks in a row without a warmed-up child
    int unsentLooks = 0;  // looks in a row before the first frame was sent
  };
  std::map<std::string, Seen> seen_;
  std::map<pid_t, double> childCpu_;  // each render process's processor seconds at the last look
  double serverCpu_ = -1;
  double childCpuSpan_ = 0, serverCpuSpan_ = 0;
  std::uint64_t childFramesSpan_ = 0, serverFramesSpan_ = 0;
  int childIdleLooks_ = 0;  // looks in a row in which no child rendered

  std::thread reaper_;
};

}  // namespace lumora2::serve
