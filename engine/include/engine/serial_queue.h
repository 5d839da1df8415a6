// SerialQueue: one worker thread running tasks one at a time in the order they were queued: the
// engine's processing queue (all inference) and the render-stream output queue.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace lumora2 {

class SerialQueue {
 public:
  // At most this many tasks wait at once. Callers coalesce their repeated kicks, so the limit is
  // never near in normal work; when it is reached, async() waits for room rather than dropping a
  // task or growing without bound.
  static constexpr std::size_t kMaxPending = 256;

  explicit SerialQueue(std::string label);
  // Discards tasks that have not started and waits for the running one. A queue destroyed from
  // its own worker (the last owner released inside a task) detaches the worker instead; the
  // worker then finishes that task and ends without touching the destroyed queue.
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  const std::string& label() const { return label_; }

  void async(std::function<void()> task);
  // True when every task queued before the call has finished within `timeout`.
  bool waitForEarlierTasks(std::chrono::duration<double> timeout);
  // Whether the calling thread is this queue's worker.
  bool isWorkerThread() const { return std::this_thread::get_id() == worker_.get_id(); }

 private:
  // What the worker works on. The worker holds it too, so it outlives a queue destroyed from
  // inside one of its own tasks.
  struct State {
    std::mutex mutex;  // guards tasks and stopping
    std::condition_variable changed;
    std::deque<std::function<void()>> tasks;
    bool stopping = false;
  };
  static void run(const std::shared_ptr<State>& state);

  std::string label_;
  std::shared_ptr<State> state_ = std::make_shared<State>();
  std::thread worker_;
};

}  // namespace lumora2
