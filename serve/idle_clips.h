// IdleClips: the avatars' idle clips, decoded, shared by every session of an avatar and kept for
// the next one. A session never waits for a clip to start: it gets a future of it, and a clip not
// yet held is read on the reader thread, which yields to everything else (nice +10), so that a
// newcomer's second of decoding never takes processor time the sessions already speaking need.
// The server reads every avatar's clip ahead, at start, as far as its memory budget allows;
// clips no session uses are let go, least recently used first, when the budget is exceeded.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "catalog.h"
#include "client/idle_source.h"
#include "engine/thread_annotations.h"

namespace lumora2::serve {

using ClipFuture = std::shared_future<std::shared_ptr<const render::IdleSource::Clip>>;

class IdleClips {
 public:
  explicit IdleClips(std::size_t budgetBytes);
  ~IdleClips();  // stops reading; a clip being read is finished first
  IdleClips(const IdleClips&) = delete;
  IdleClips& operator=(const IdleClips&) = delete;

  // The avatar's clip, at once: held, being read, or queued for reading now.
  ClipFuture get(const Avatar& avatar) LUMORA2_EXCLUDES(lock_);
  // Queues these avatars' clips, in order, to be read before anyone asks; reading stops once the
  // clips held fill the budget.
  void preload(const std::vector<Avatar>& avatars) LUMORA2_EXCLUDES(lock_);
  // Bytes of the clips held.
  std::size_t heldBytes() const LUMORA2_EXCLUDES(lock_);

 private:
  struct Entry {
    ClipFuture future;
    std::shared_ptr<const render::IdleSource::Clip> held;  // kept for the next session
    std::weak_ptr<const render::IdleSource::Clip> shown;   // while sessions show it
    std::size_t bytes = 0;
    std::uint64_t lastUse = 0;
  };
  struct Job {
    std::string key;
    std::filesystem::path avatar;
    std::promise<std::shared_ptr<const render::IdleSource::Clip>> promise;
    bool preload = false;
  };
  void readLoop();
  // Lets clips go, least recently used first, until the held ones fit the budget.
  void trim() LUMORA2_REQUIRES(lock_);

  const std::size_t budget_;
  mutable Mutex lock_;  // guards the entries, the queue and the flags below
  std::condition_variable_any queued_;
  std::map<std::string, Entry> entries_ LUMORA2_GUARDED_BY(lock_);
  std::deque<Job> jobs_ LUMORA2_GUARDED_BY(lock_);
  std::uint64_t uses_ LUMORA2_GUARDED_BY(lock_) = 0;
  bool stopping_ LUMORA2_GUARDED_BY(lock_) = false;
  std::thread reader_;
};

}  // namespace lumora2::serve
