// SessionRegistry: the server's live sessions by id. Ids are 128 random bits in hex, so a caller
// can reach only the sessions it was told about. A reaper thread destroys sessions that have
// ended (their peer went away, their child died, DELETE) or been idle too long, outside the
// registry's lock, so that ending one session never holds up another or a request.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "engine/thread_annotations.h"
#include "live_session.h"

namespace lumora2::serve {

class SessionRegistry {
 public:
  SessionRegistry(SessionOptions options, std::size_t maxSessions,
                  std::chrono::seconds idleTimeout);
  ~SessionRegistry();  // ends every session and waits for them

  // Throws SessionError 503 when the server holds maxSessions already.
  std::shared_ptr<LiveSession> create(const Avatar& avatar) LUMORA2_EXCLUDES(lock_);
  // The live session with that id, or null (unknown, ended, or not an id at all).
  std::shared_ptr<LiveSession> find(const std::string& id) const LUMORA2_EXCLUDES(lock_);
  // Why the session of that id ended, while the registry remembers it (the last 256 ended
  // sessions); empty otherwise.
  std::string endedReason(const std::string& id) const LUMORA2_EXCLUDES(lock_);
  // Ends the session; false when there is none of that id.
  bool remove(const std::string& id) LUMORA2_EXCLUDES(lock_);
  std::size_t size() const LUMORA2_EXCLUDES(lock_);
  std::size_t maxSessions() const { return maxSessions_; }
  // Ends every session and waits until each is destroyed.
  void endAll() LUMORA2_EXCLUDES(lock_);

  static bool looksLikeId(const std::string& text);

 private:
  void reap();

  const SessionOptions options_;
  const std::size_t maxSessions_;
  const std::chrono::seconds idleTimeout_;
  mutable Mutex lock_;  // guards sessions_ and stopping_
  std::condition_variable_any wake_;
  std::map<std::string, std::shared_ptr<LiveSession>> sessions_ LUMORA2_GUARDED_BY(lock_);
  bool stopping_ LUMORA2_GUARDED_BY(lock_) = false;
  std::map<std::string, std::string> endedReasons_ LUMORA2_GUARDED_BY(lock_);
  std::vector<std::string> endedOrder_ LUMORA2_GUARDED_BY(lock_);
  std::thread reaper_;
};

}  // namespace lumora2::serve
