#include "session_registry.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <malloc.h>
#include <openssl/rand.h>

#include <cstdio>

namespace lumora2::serve {
namespace {

std::string newId() {
  unsigned char bytes[16];
  if (RAND_bytes(bytes, sizeof bytes) != 1) throw SessionError(500, "no random bytes for an id");
  std::string id;
  char hex[3];
  for (unsigned char b : bytes) {
    std::snprintf(hex, sizeof hex, "%02x", b);
    id += hex;
  }
  return id;
}

}  // namespace

SessionRegistry::SessionRegistry(SessionOptions options, Admission& admission,
                                 ServerMetrics& metrics, std::chrono::seconds idleTimeout,
                                 std::size_t clipBudget)
    : options_(std::move(options)),
      admission_(admission),
      metrics_(metrics),
      idleTimeout_(idleTimeout),
      clips_(clipBudget) {
  reaper_ = std::thread([this] { reap(); });
}

SessionRegistry::~SessionRegistry() {
  endAll();
  {
    MutexLock hold(lock_);
    stopping_ = true;
  }
  wake_.notify_all();
  reaper_.join();
}

bool SessionRegistry::looksLikeId(const std::string& text) {
  if (text.size() != 32) return false;
  for (char c : text)
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  return true;
}

std::shared_ptr<LiveSession> SessionRegistry::create(const Avatar& avatar) {
  auto admit = [this]() LUMORA2_REQUIRES(lock_) {
    const std::size_t active = sessions_.size();
    const Admission::Refusal refusal = admission_.check(active);
    if (refusal == Admission::Refusal::none) return;
    metrics_.refused(Admission::reasonName(refusal));
    throw SessionError(503, admission_.explain(refusal, active), Admission::reasonName(refusal));
  };
  {
    MutexLock hold(lock_);
    admit();
  }
  SessionOptions options = options_;
  // Each child's graphs get an equal share of the cores among as many sessions as fit.
  options.command.siblings = int(admission_.capacity());
  auto session =
      std::make_shared<LiveSession>(newId(), avatar, clips_.get(avatar), std::move(options));
  MutexLock hold(lock_);
  admit();
  sessions_.emplace(session->id(), session);
  metrics_.admitted();
  return session;
}

Admission::Refusal SessionRegistry::readiness() const {
  MutexLock hold(lock_);
  return admission_.check(sessions_.size());
}

std::vector<std::shared_ptr<LiveSession>> SessionRegistry::snapshot() const {
  std::vector<std::shared_ptr<LiveSession>> all;
  MutexLock hold(lock_);
  for (const auto& entry : sessions_) all.push_back(entry.second);
  return all;
}

SessionRegistry::Drained SessionRegistry::drain(std::chrono::steady_clock::time_point deadline,
                                                const std::function<bool()>& interrupted) {
  admission_.startDraining();
  std::map<std::string, std::uint64_t> spokenAtStart;
  Drained result;
  for (;;) {
    bool busy = false;
    result.spoken = 0;
    for (const std::shared_ptr<LiveSession>& session : snapshot()) {
      session->stopTakingSpeech();
      const LiveSession::Counters c = session->counters();
      const auto [at, fresh] = spokenAtStart.emplace(session->id(), c.utterancesSpoken);
      result.spoken += c.utterancesSpoken - at->second;
      busy = busy || (!session->ended() && c.busy);
    }
    result.complete = !busy;
    if (!busy || std::chrono::steady_clock::now() >= deadline || interrupted()) return result;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
}

std::shared_ptr<LiveSession> SessionRegistry::find(const std::string& id) const {
  if (!looksLikeId(id)) return nullptr;
  MutexLock hold(lock_);
  const auto it = sessions_.find(id);
  if (it == sessions_.end() || it->second->ended()) return nullptr;
  return it->second;
}

bool SessionRegistry::remove(const std::string& id) {
  if (!looksLikeId(id)) return false;
  {
    MutexLock hold(lock_);
    const auto it = sessions_.find(id);
    if (it == sessions_.end() || it->second->ended()) return false;
    it->second->end("the session was deleted", "deleted");
    retire(it);  // out of the count at once: its place is free for the next session
  }
  wake_.notify_all();
  return true;
}

void SessionRegistry::retire(std::map<std::string, std::shared_ptr<LiveSession>>::iterator it) {
  endedReasons_[it->first] = it->second->status().value("ended_reason", "");
  endedOrder_.push_back(it->first);
  if (endedOrder_.size() > 256) {
    endedReasons_.erase(endedOrder_.front());
    endedOrder_.erase(endedOrder_.begin());
  }
  retired_.push_back(std::move(it->second));
  sessions_.erase(it);
}

std::string SessionRegistry::endedReason(const std::string& id) const {
  MutexLock hold(lock_);
  const auto it = endedReasons_.find(id);
  if (it != endedReasons_.end()) return it->second;
  const auto live = sessions_.find(id);
  if (live != sessions_.end() && live->second->ended()) {
    return live->second->status().value("ended_reason", "");
  }
  return "";
}

std::size_t SessionRegistry::size() const {
  MutexLock hold(lock_);
  return sessions_.size();
}

void SessionRegistry::endAll() {
  std::map<std::string, std::shared_ptr<LiveSession>> all;
  std::vector<std::shared_ptr<LiveSession>> retired;
  {
    MutexLock hold(lock_);
    all.swap(sessions_);
    retired.swap(retired_);
  }
  for (auto& [id, session] : all) session->end("the server is shutting down", "shutdown");
  all.clear();  // each destructor joins its threads and ends its child
  retired.clear();
}

void SessionRegistry::reap() {
  using Clock = std::chrono::steady_clock;
  Clock::time_point nextTrim = Clock::now();
  Clock::time_point nextLook = Clock::now();
  for (;;) {
    std::vector<std::shared_ptr<LiveSession>> done;
    {
      MutexLock hold(lock_);
      if (stopping_) return;
      wake_.wait_for(lock_, std::chrono::milliseconds(250));
      for (auto it = sessions_.begin(); it != sessions_.end();) {
        LiveSession& s = *it->second;
        if (!s.ended() && s.idleSeconds() > double(idleTimeout_.count())) {
          s.end("the session was idle for " + std::to_string(idleTimeout_.count()) + " s", "idle");
        }
        const auto next = std::next(it);
        if (s.ended()) retire(it);
        it = next;
      }
      done.swap(retired_);
    }
    if (!done.empty() || Clock::now() >= nextLook) {
      observe(snapshot(), done);
      nextLook = Clock::now() + std::chrono::seconds(1);
    }
    done.clear();  // destroyed outside the lock
    // Pictures and frame records (0.4 to 0.9 MB) are made on one thread and freed on another for
    // every frame of every session; glibc keeps the freed pieces in its heaps, scattered, and the
    // resident set crept up by a tenth in ten minutes of one session. Giving the free pages back
    // every few seconds keeps it flat, at no cost per frame (mapping each block instead cost
    // about 1.5 ms a frame in page faults).
    if (Clock::now() >= nextTrim) {
      ::malloc_trim(0);
      nextTrim = Clock::now() + std::chrono::seconds(5);
    }
  }
}

}  // namespace lumora2::serve

namespace lumora2::serve {

void SessionRegistry::lookAt(LiveSession& session, bool last, Look& look) {
  const LiveSession::Counters c = session.counters();
  const auto [at, first] = seen_.try_emplace(session.id());
  Seen& seen = at->second;
  // A viewer connecting (ICE, DTLS, the encoder's start) costs the server time before its first
  // frame; a session unwatched for half a minute no longer holds the measurement up.
  seen.unsentLooks = c.framesSent == 0 ? seen.unsentLooks + 1 : 0;
  if (first || (seen.counters.framesSent == 0 && c.framesSent > 0) ||
      (c.framesSent == 0 && seen.unsentLooks <= 30)) {
    look.settled = false;
  }
  const LiveSession::Counters& was = seen.counters;
  const std::uint64_t sent = c.framesSent - was.framesSent;
  const std::uint64_t rendered = c.renderedSent - was.renderedSent;
  metrics_.framesSent(sent - std::min(sent, rendered), rendered);
  metrics_.framesRendered(c.framesRendered - was.framesRendered);
  metrics_.stalls(c.stalls - was.stalls);
  metrics_.framesBehind(c.framesBehind - was.framesBehind);
  metrics_.respawns(c.respawns - was.respawns);
  metrics_.childDeaths(c.childDeaths - was.childDeaths);
  look.framesSent += sent;
  // A render process's processor time counts from its second look on (its warm-up is not
  // rendering), once per look however many sessions it renders.
  const std::optional<ProcessUsage> child = processUsage(c.childPid);
  const bool firstOfProcess =
      child && look.childCpuNow.emplace(c.childPid, child->cpuSeconds).second;
  const auto before = childCpu_.find(c.childPid);
  if (child && before != childCpu_.end()) {
    if (firstOfProcess) childCpuSpan_ += std::max(0.0, child->cpuSeconds - before->second);
    if (c.childPid == was.childPid) look.framesRendered += c.framesRendered - was.framesRendered;
    look.childMeasured = true;
  }
  // A child warming up (or just warmed) spends its process's time on no frame; a session left
  // without one for half a minute has failed and no longer holds the measurement up.
  seen.coldLooks = c.childPid < 0 ? seen.coldLooks + 1 : 0;
  if (!last && (c.childPid != was.childPid || (c.childPid < 0 && seen.coldLooks <= 30))) {
    look.childSettled = false;
  }
  seen.counters = c;
  if (last) {
    metrics_.ended(c.cause.empty() ? "closed" : c.cause);
    seen_.erase(session.id());
    return;
  }
  if (firstOfProcess) look.gauges.childrenBytes += child->residentBytes;
  if (c.renderFps > 0 && (look.slowest == 0 || c.renderFps < look.slowest)) {
    look.slowest = c.renderFps;
  }
  look.gauges.speechQueued += c.speechQueued;
  look.gauges.framesAhead += c.framesAhead;
  look.gauges.textsQueued += c.textsQueued;
}

void SessionRegistry::measureChildren(const Look& look) {
  // Render processes work in bursts (a chunk of streamed speech at a time), so a span goes on
  // over looks with nothing rendered; ten such looks in a row end it: idle time is not a frame's.
  childIdleLooks_ = look.childMeasured && look.framesRendered > 0 ? 0 : childIdleLooks_ + 1;
  if (childIdleLooks_ > 10 || !look.childSettled) {
    childCpuSpan_ = 0;
    childFramesSpan_ = 0;
    if (!look.childSettled) return;  // this look's time and frames both left out
  }
  childFramesSpan_ += look.framesRendered;
  if (childFramesSpan_ >= admission_.options().minFrames) {
    admission_.childSample(childCpuSpan_, childFramesSpan_);
    childCpuSpan_ = 0;
    childFramesSpan_ = 0;
  }
}

void SessionRegistry::measureServer(Look& look) {
  const std::optional<ProcessUsage> self = processUsage(0);
  if (!self) return;
  if (serverCpu_ >= 0 && look.framesSent > 0 && look.settled) {
    serverCpuSpan_ += std::max(0.0, self->cpuSeconds - serverCpu_);
    serverFramesSpan_ += look.framesSent;
    if (serverFramesSpan_ >= admission_.options().minFrames) {
      admission_.serverSample(serverCpuSpan_, serverFramesSpan_);
      serverCpuSpan_ = 0;
      serverFramesSpan_ = 0;
    }
  } else {
    serverCpuSpan_ = 0;
    serverFramesSpan_ = 0;
  }
  serverCpu_ = self->cpuSeconds;
  look.gauges.serverBytes = self->residentBytes;
}

void SessionRegistry::observe(const std::vector<std::shared_ptr<LiveSession>>& live,
                              const std::vector<std::shared_ptr<LiveSession>>& ended) {
  Look look;
  look.settled = ended.empty();
  for (const auto& session : live) lookAt(*session, false, look);
  for (const auto& session : ended) lookAt(*session, true, look);
  childCpu_ = std::move(look.childCpuNow);
  measureChildren(look);
  measureServer(look);
  admission_.renderSpeed(look.slowest);

  const Admission::Estimate estimate = admission_.estimate();
  ServerMetrics::Gauges& gauges = look.gauges;
  gauges.active = live.size();
  gauges.capacity = admission_.capacity();
  gauges.renderFps = look.slowest;
  gauges.childMsPerFrame = estimate.childMs;
  gauges.serverMsPerFrame = estimate.serverMs;
  gauges.draining = admission_.draining();
  metrics_.set(gauges);
}

}  // namespace lumora2::serve
