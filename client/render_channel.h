// RenderChannel: what a parent renders one session through, whichever way the session is
// rendered: a render-stream child of its own (OwnChild), or a session of a render process that
// several sessions share (shared_render.h). RenderPool says where a new session is rendered and
// gives its channel; the live server holds one for all its sessions.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "client/stream_child.h"

namespace lumora2::render {

class RenderChannel {
 public:
  using Event = StreamChild::Event;
  virtual ~RenderChannel() = default;

  virtual const StreamGeometry& geometry() const = 0;
  // The render process's id while it runs; -1 after. Sessions of a shared process share it.
  virtual pid_t pid() const = 0;
  // As StreamChild's: queued, never blocking, dropped once the channel has ended.
  virtual void sendAudio(const float* samples, std::size_t count) = 0;
  virtual void sendFlush() = 0;
  virtual void sendReset() = 0;
  // Whether frames come as 4:2:0 planes (protocol/i420.h), not R, G, B: Event::rgb then points
  // at width * height * 3 / 2 bytes.
  virtual bool i420() const { return false; }
  // The pixels of the frame next() returned last, handed over instead of copied, where the
  // channel can; empty otherwise (copy from Event::rgb then).
  virtual std::vector<std::uint8_t> takePixels() { return {}; }
  // As StreamChild::next: `ended` once the channel has ended and everything before was read.
  virtual Event next(std::chrono::steady_clock::time_point deadline) = 0;
  // Whether the channel ends within `wait`; ending() then says how.
  virtual bool endsWithin(std::chrono::milliseconds wait) = 0;

  struct Ending {
    // The session goes on in a new channel, and the segment it was rendering is sent again once:
    // the render process asked for a fresh engine, or (shared) the process died under it.
    bool replace = false;
    std::string why;
  };
  // How the channel ended; waits for it to end.
  virtual Ending ending() = 0;
};

class RenderPool {
 public:
  virtual ~RenderPool() = default;
  // A channel rendering `command.avatar`, ready for audio. Throws ClientError when no render
  // process can take it.
  virtual std::unique_ptr<RenderChannel> open(const StreamChild::Command& command) = 0;
  // What the pool is, for the server's status: "per-session" or "shared".
  virtual const char* mode() const = 0;
};

// One render-stream child per session: a child that exits with status 3 is replaced.
class OwnChildren final : public RenderPool {
 public:
  std::unique_ptr<RenderChannel> open(const StreamChild::Command& command) override;
  const char* mode() const override { return "per-session"; }
};

}  // namespace lumora2::render
