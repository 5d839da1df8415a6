// The serial processing queue: order, discarding on destruction, and a queue whose last owner
// lets go inside one of its own tasks (how an engine dies while its chunk is running).
#include "engine/serial_queue.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>

namespace lumora2 {
namespace {

using namespace std::chrono_literals;

// The owner's last reference goes away inside a task, so the queue is destroyed on its own
// worker. Repeated, because the fault this guards against (the worker touching the freed queue
// after the task) shows only now and then.
TEST(SerialQueue, AQueueDestroyedByItsOwnTaskEndsCleanly) {
  for (int round = 0; round < 200; ++round) {
    auto owner =
        std::make_shared<std::unique_ptr<SerialQueue>>(std::make_unique<SerialQueue>("test"));
    std::promise<void> done;
    SerialQueue& queue = **owner;
    queue.async([owner, &done]() mutable {
      owner->reset();  // destroys the queue from its own worker
      done.set_value();
    });
    queue.async([] {});  // queued behind: discarded, never run
    owner.reset();
    ASSERT_EQ(done.get_future().wait_for(10s), std::future_status::ready) << "round " << round;
  }
}

}  // namespace
}  // namespace lumora2
