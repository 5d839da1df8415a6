#include "session_registry.h"

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

SessionRegistry::SessionRegistry(SessionOptions options, std::size_t maxSessions,
                                 std::chrono::seconds idleTimeout)
    : options_(std::move(options)), maxSessions_(maxSessions), idleTimeout_(idleTimeout) {
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
  {
    MutexLock hold(lock_);
    if (sessions_.size() >= maxSessions_) {
      throw SessionError(503, "the server is full (" + std::to_string(maxSessions_) +
                                  " sessions); try again later");
    }
  }
  SessionOptions options = options_;
  options.command.siblings = int(maxSessions_);
  // Reading the idle clip takes a moment: outside the lock.
  auto session = std::make_shared<LiveSession>(newId(), avatar, std::move(options));
  MutexLock hold(lock_);
  if (sessions_.size() >= maxSessions_) {
    throw SessionError(
        503, "the server is full (" + std::to_string(maxSessions_) + " sessions); try again later");
  }
  sessions_.emplace(session->id(), session);
  return session;
}

std::shared_ptr<LiveSession> SessionRegistry::find(const std::string& id) const {
  if (!looksLikeId(id)) return nullptr;
  MutexLock hold(lock_);
  const auto it = sessions_.find(id);
  if (it == sessions_.end() || it->second->ended()) return nullptr;
  return it->second;
}

bool SessionRegistry::remove(const std::string& id) {
  std::shared_ptr<LiveSession> session = find(id);
  if (!session) return false;
  session->end("the session was deleted");
  wake_.notify_all();
  return true;
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
  {
    MutexLock hold(lock_);
    all.swap(sessions_);
  }
  for (auto& [id, session] : all) session->end("the server is shutting down");
  all.clear();  // each destructor joins its threads and ends its child
}

void SessionRegistry::reap() {
  using Clock = std::chrono::steady_clock;
  Clock::time_point nextTrim = Clock::now();
  for (;;) {
    std::vector<std::shared_ptr<LiveSession>> done;
    {
      MutexLock hold(lock_);
      if (stopping_) return;
      wake_.wait_for(lock_, std::chrono::milliseconds(500));
      for (auto it = sessions_.begin(); it != sessions_.end();) {
        LiveSession& s = *it->second;
        if (!s.ended() && s.idleSeconds() > double(idleTimeout_.count())) {
          s.end("the session was idle for " + std::to_string(idleTimeout_.count()) + " s");
        }
        if (s.ended()) {
          endedReasons_[it->first] = s.status().value("ended_reason", "");
          endedOrder_.push_back(it->first);
          if (endedOrder_.size() > 256) {
            endedReasons_.erase(endedOrder_.front());
            endedOrder_.erase(endedOrder_.begin());
          }
          done.push_back(std::move(it->second));
          it = sessions_.erase(it);
        } else {
          ++it;
        }
      }
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
