// SessionEvents: what a session tells its callers happened (an utterance queued, started,
// finished or interrupted, a stall, the viewer coming and going, the end), numbered from 1 in the
// order they happened. The last 256 are kept, so that a caller that reconnects (Server-Sent
// Events' Last-Event-ID) resumes without a gap; listeners (an event stream, an audio WebSocket)
// get each new one as it is published.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "engine/thread_annotations.h"

namespace lumora2::serve {

struct SessionEvent {
  std::uint64_t id = 0;
  std::string name;     // "utterance_started", …
  nlohmann::json data;  // the event's fields, an object
  // `{"event": name, "id": id, …data}`: the form the audio WebSocket sends.
  nlohmann::json message() const;
};

class SessionEvents {
 public:
  static constexpr std::size_t kKept = 256;

  // Records an event and hands it to every listener, in order, on the calling thread.
  std::uint64_t publish(std::string name, nlohmann::json data) LUMORA2_EXCLUDES(lock_);

  // Called with each event; it must not block or call back into the events (it queues the event
  // for its connection and returns).
  using Listener = std::function<void(const SessionEvent&)>;
  // Unsubscribes when destroyed.
  class Subscription {
   public:
    Subscription(SessionEvents& events, std::uint64_t key) : events_(&events), key_(key) {}
    ~Subscription();
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

   private:
    SessionEvents* events_;
    std::uint64_t key_;
  };
  // Hands the listener every kept event after `after` (lastId() when called: none of the past),
  // then every new one.
  // `gap` is set when events after `after` were no longer kept.
  std::unique_ptr<Subscription> subscribe(std::uint64_t after, Listener listener,
                                          bool* gap = nullptr) LUMORA2_EXCLUDES(lock_);
  std::uint64_t lastId() const LUMORA2_EXCLUDES(lock_);

 private:
  mutable Mutex lock_;  // guards the fields below; held while listeners are called
  std::deque<SessionEvent> kept_ LUMORA2_GUARDED_BY(lock_);
  std::uint64_t nextId_ LUMORA2_GUARDED_BY(lock_) = 1;
  std::uint64_t nextKey_ LUMORA2_GUARDED_BY(lock_) = 1;
  std::map<std::uint64_t, Listener> listeners_ LUMORA2_GUARDED_BY(lock_);
};

}  // namespace lumora2::serve
