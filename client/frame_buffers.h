// Picture-sized byte buffers kept for reuse. A live session's pictures (about 440 KiB each, 20 a
// second) travel from the render process's reader through the session's timeline into the video
// encoder, which frees them on one of its own threads. Allocated fresh every frame, each costs
// the server a zeroing pass and a hundred page faults; taken from here, neither. The store is
// one for the process and holds a bounded number of buffers, so it never grows with sessions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace lumora2::render {

// A buffer of exactly `size` bytes. One kept for reuse when there is one (its bytes are what its
// last user left: the taker writes all of them), else a new, zeroed one. Any thread.
std::vector<std::uint8_t> takeFrameBuffer(std::size_t size);

// Keeps `buffer` for a later take, or frees it when enough are kept already. Any thread.
void keepFrameBuffer(std::vector<std::uint8_t>&& buffer);

// Buffers kept now (for tests and metrics).
std::size_t keptFrameBuffers();

}  // namespace lumora2::render
