#include "engine/serial_queue.h"

#include <future>
#include <memory>

namespace lumora2 {

SerialQueue::SerialQueue(std::string label) : label_(std::move(label)) {
  worker_ = std::thread([state = state_] { run(state); });
}

SerialQueue::~SerialQueue() {
  {
    std::lock_guard lock(state_->mutex);
    state_->stopping = true;
    state_->tasks.clear();
  }
  state_->changed.notify_all();
  if (isWorkerThread()) {
    worker_.detach();  // joining ourselves would never return; run() sees stopping and ends
  } else if (worker_.joinable()) {
    worker_.join();
  }
}

void SerialQueue::async(std::function<void()> task) {
  std::unique_lock lock(state_->mutex);
  state_->changed.wait(lock,
                       [&] { return state_->stopping || state_->tasks.size() < kMaxPending; });
  if (state_->stopping) return;
  state_->tasks.push_back(std::move(task));
  state_->changed.notify_all();
}

bool SerialQueue::waitForEarlierTasks(std::chrono::duration<double> timeout) {
  if (isWorkerThread()) return true;  // everything earlier has already run on this thread
  auto done = std::make_shared<std::promise<void>>();
  std::future<void> finished = done->get_future();
  async([done] { done->set_value(); });
  return finished.wait_for(timeout) == std::future_status::ready;
}

void SerialQueue::run(const std::shared_ptr<State>& state) {
  for (;;) {
    std::function<void()> task;
    {
      std::unique_lock lock(state->mutex);
      state->changed.wait(lock, [&] { return state->stopping || !state->tasks.empty(); });
      if (state->stopping) return;
      task = std::move(state->tasks.front());
      state->tasks.pop_front();
    }
    state->changed.notify_all();
    task();  // may destroy the SerialQueue itself; only `state` is used after it
  }
}

}  // namespace lumora2
