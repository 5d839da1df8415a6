#include "client/frame_buffers.h"

#include <mutex>
#include <utility>

#include "engine/thread_annotations.h"

namespace lumora2::render {
namespace {

// Enough for the pictures freed between two reads at 20 sessions' pace; 14 MiB at most.
constexpr std::size_t kKept = 32;
// Smaller ones (a picture's audio, a lead) are not worth keeping.
constexpr std::size_t kSmallest = 64 * 1024;

struct Store {
  Mutex lock;
  std::vector<std::vector<std::uint8_t>> kept LUMORA2_GUARDED_BY(lock);
};

// Never destroyed: the encoder's threads may still free pictures while the process exits.
Store& store() {
  static Store* s = new Store;
  return *s;
}

}  // namespace

std::vector<std::uint8_t> takeFrameBuffer(std::size_t size) {
  std::vector<std::uint8_t> buffer;
  {
    Store& s = store();
    MutexLock hold(s.lock);
    if (!s.kept.empty()) {
      buffer = std::move(s.kept.back());
      s.kept.pop_back();
    }
  }
  // Shrinking writes nothing; growing zeroes only the bytes added.
  buffer.resize(size);
  return buffer;
}

void keepFrameBuffer(std::vector<std::uint8_t>&& buffer) {
  if (buffer.capacity() < kSmallest) return;
  std::vector<std::uint8_t> dropped;
  Store& s = store();
  MutexLock hold(s.lock);
  if (s.kept.size() < kKept) {
    s.kept.push_back(std::move(buffer));
  } else {
    dropped = std::move(buffer);  // freed after the lock is let go
  }
}

std::size_t keptFrameBuffers() {
  Store& s = store();
  MutexLock hold(s.lock);
  return s.kept.size();
}

}  // namespace lumora2::render
