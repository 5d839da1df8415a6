// What a LiveSession reports: its status for the API and its counters for the metrics and the
// admission.
#include <fstream>

#include "live_session.h"
#include "media/webrtc_sender.h"

namespace lumora2::serve {
namespace {

using Clock = std::chrono::steady_clock;

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

nlohmann::json LiveSession::status() const {
  // The sender's statistics are read outside the session's lock: the sender delivers its events,
  // which take that lock, while holding its own.
  std::shared_ptr<WebRtcSender> sender;
  {
    MutexLock hold(lock_);
    sender = sender_;
  }
  const std::uint64_t current = sender ? sender->stats().framesBehind : 0;
  MutexLock hold(lock_);
  const std::uint64_t behind = framesBehindEarlier_ + current;
  nlohmann::json j;
  j["id"] = id_;
  j["avatar"] = avatar_.code;
  j["state"] = ended_ ? "ended" : "live";
  j["ended_reason"] = ended_ ? nlohmann::json(endedReason_) : nlohmann::json(nullptr);
  j["child"] = childState_;
  j["connected"] = viewer_ == Viewer::connected;
  j["viewer"] = viewerName(viewer_);
  j["viewers"] = viewers_;
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
  j["streaming"] = openStream_.has_value() || openText_ != nullptr;
  j["utterances_spoken"] = timeline_.itemsSpoken();
  j["speaking"] = timeline_.speaking();
  j["respawns"] = respawns_;
  j["frames_rendered"] = framesRendered_;
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
  c.framesBehind += framesBehindEarlier_;
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
  c.textsQueued = textJobs_.size();
  // Speech without a viewer never plays: it does not hold a drain up.
  c.busy = viewer_ == Viewer::connected &&
           (timeline_.queuedItems() > 0 || openStream_.has_value() || !textJobs_.empty());
  c.cause = ended_ ? endedCause_ : "";
  return c;
}

}  // namespace lumora2::serve
