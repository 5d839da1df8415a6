#include "session_events.h"

namespace lumora2::serve {

nlohmann::json SessionEvent::message() const {
  nlohmann::json out = data.is_object() ? data : nlohmann::json::object();
  out["event"] = name;
  out["id"] = id;
  return out;
}

std::uint64_t SessionEvents::publish(std::string name, nlohmann::json data) {
  MutexLock hold(lock_);
  SessionEvent& event = kept_.emplace_back();
  event.id = nextId_++;
  event.name = std::move(name);
  event.data = std::move(data);
  for (const auto& [key, listener] : listeners_) listener(event);
  const std::uint64_t id = event.id;
  if (kept_.size() > kKept) kept_.pop_front();
  return id;
}

std::unique_ptr<SessionEvents::Subscription> SessionEvents::subscribe(std::uint64_t after,
                                                                      Listener listener,
                                                                      bool* gap) {
  MutexLock hold(lock_);
  if (gap != nullptr) *gap = after > 0 && !kept_.empty() && kept_.front().id > after + 1;
  for (const SessionEvent& event : kept_) {
    if (event.id > after) listener(event);
  }
  const std::uint64_t key = nextKey_++;
  listeners_.emplace(key, std::move(listener));
  return std::make_unique<Subscription>(*this, key);
}

SessionEvents::Subscription::~Subscription() {
  MutexLock hold(events_->lock_);
  events_->listeners_.erase(key_);
}

std::uint64_t SessionEvents::lastId() const {
  MutexLock hold(lock_);
  return nextId_ - 1;
}

}  // namespace lumora2::serve
