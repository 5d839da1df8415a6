#include "idle_clips.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace lumora2::serve {
namespace {

std::size_t clipBytes(const render::IdleSource::Clip& clip) {
  std::size_t bytes = clip.distances.size() * sizeof(double);
  for (const render::Picture& p : clip.frames) bytes += p.bytes.size();
  for (const auto& l : clip.likenesses) bytes += l.size();
  return bytes;
}

}  // namespace

IdleClips::IdleClips(std::size_t budgetBytes) : budget_(budgetBytes) {
  reader_ = std::thread([this] { readLoop(); });
}

IdleClips::~IdleClips() {
  std::deque<Job> left;
  {
    MutexLock hold(lock_);
    stopping_ = true;
    left.swap(jobs_);
  }
  queued_.notify_all();
  reader_.join();
  for (Job& job : left) {
    job.promise.set_exception(
        std::make_exception_ptr(std::runtime_error("the server is shutting down")));
  }
}

ClipFuture IdleClips::get(const Avatar& avatar) {
  MutexLock hold(lock_);
  const std::string key = avatar.file.string();
  Entry& entry = entries_[key];
  entry.lastUse = ++uses_;
  if (entry.future.valid()) {
    if (entry.future.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
      // Being read, or queued: read ahead or not, someone waits for it now.
      for (Job& job : jobs_)
        if (job.key == key) job.preload = false;
      return entry.future;
    }
    if (entry.held) return entry.future;
    // Let go over the budget, but some session still shows it: kept again.
    if (std::shared_ptr<const render::IdleSource::Clip> shown = entry.shown.lock()) {
      std::promise<std::shared_ptr<const render::IdleSource::Clip>> now;
      now.set_value(shown);
      entry.future = now.get_future().share();
      entry.held = std::move(shown);
      trim();
      return entry.future;
    }
  }
  Job job{key, avatar.file, {}, false};
  entry.future = job.promise.get_future().share();
  jobs_.push_back(std::move(job));
  queued_.notify_all();
  return entry.future;
}

void IdleClips::preload(const std::vector<Avatar>& avatars) {
  MutexLock hold(lock_);
  for (const Avatar& avatar : avatars) {
    const std::string key = avatar.file.string();
    if (entries_.count(key) != 0) continue;
    Job job{key, avatar.file, {}, true};
    entries_[key].future = job.promise.get_future().share();
    jobs_.push_back(std::move(job));
  }
  queued_.notify_all();
}

std::size_t IdleClips::heldBytes() const {
  MutexLock hold(lock_);
  std::size_t bytes = 0;
  for (const auto& [key, entry] : entries_)
    if (entry.held) bytes += entry.bytes;
  return bytes;
}

void IdleClips::readLoop() {
  // Linux keeps a niceness per thread: this one yields to the server's threads (0) and to the
  // render children (+5) whenever they want the processor.
  ::setpriority(PRIO_PROCESS, pid_t(::syscall(SYS_gettid)), 10);
  for (;;) {
    Job job;
    {
      MutexLock hold(lock_);
      while (!stopping_ && jobs_.empty()) queued_.wait(lock_);
      if (stopping_) return;
      job = std::move(jobs_.front());
      jobs_.pop_front();
      if (job.preload) {
        std::size_t held = 0;
        for (const auto& [key, entry] : entries_)
          if (entry.held) held += entry.bytes;
        if (held >= budget_) {
          // Over the budget: this clip is read when a session asks for it.
          entries_.erase(job.key);
          job.promise.set_exception(std::make_exception_ptr(std::runtime_error("not read")));
          continue;
        }
      }
    }
    std::shared_ptr<const render::IdleSource::Clip> clip;
    std::exception_ptr failed;
    try {
      clip = render::IdleSource::read(job.avatar);
    } catch (...) {
      failed = std::current_exception();
    }
    MutexLock hold(lock_);
    Entry& entry = entries_[job.key];
    if (failed) {
      job.promise.set_exception(failed);
      entries_.erase(job.key);  // the next session tries again
      continue;
    }
    entry.held = clip;
    entry.shown = clip;
    entry.bytes = clipBytes(*clip);
    job.promise.set_value(std::move(clip));
    trim();
  }
}

void IdleClips::trim() {
  for (;;) {
    std::size_t held = 0;
    Entry* oldest = nullptr;
    for (auto& [key, entry] : entries_) {
      if (!entry.held) continue;
      held += entry.bytes;
      if (oldest == nullptr || entry.lastUse < oldest->lastUse) oldest = &entry;
    }
    if (held <= budget_ || oldest == nullptr) return;
    // Sessions showing it keep theirs alive; the next session of that avatar reads it again.
    oldest->held.reset();
  }
}

}  // namespace lumora2::serve
