// MorvaneEngine: the interface every engine of the maker's families implements, and the small
// vocabulary the hosts use to talk about engines. The render commands program against this
// interface; Lumora2Engine is its implementation for the lumora-2 family.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace lumora2 {

// How an engine names itself: one canonical name and the aliases hosts may also use.
struct EngineId {
  std::string canonical;
  std::vector<std::string> aliases;
};

// What an engine offers beyond the required operations. The defaults describe a plain
// one-identity, streaming engine.
struct EngineCapabilities {
  bool streaming = true;      // frames become available while audio is still being fed
  bool idleClip = true;       // idle frames between utterances
  bool multiIdentity = false;  // one engine object renders one identity
};

// One decoded idle-clip picture: 32-bit B, G, R, A pixels, rows top to bottom, `stride` bytes per
// row. Shared so that a caller may hold it while the clip moves on.
struct PixelBuffer {
  int width = 0;
  int height = 0;
  std::size_t stride = 0;
  std::shared_ptr<const std::vector<std::uint8_t>> bytes;
};

// A rendered frame: 3 bytes per pixel in B, G, R order, rows top to bottom, no padding; `speech`
// says whether it belongs to audible speech (false inside the silence that flushes a tail).
struct PulledFrame {
  std::vector<std::uint8_t> frame;
  bool speech = false;
};

// The engine interface, requirements in their canonical order.
class MorvaneEngine {
 public:
  virtual ~MorvaneEngine() = default;

  virtual EngineId id() const = 0;
  virtual EngineCapabilities capabilities() const { return {}; }
  virtual int width() const = 0;
  virtual int height() const = 0;
  // Loads and checks everything, then primes the engine with optional 16 kHz warm-up speech.
  // Never throws; success is visible as isReady().
  virtual void warmUp(const std::optional<std::vector<float>>& warmSpeech) = 0;
  virtual bool isReady() const = 0;
  virtual void shutdown() = 0;
  // The static idle picture (engine frame format), or nothing.
  virtual std::optional<std::vector<std::uint8_t>> idle() const = 0;
  // Appends 16 kHz mono samples; never waits for inference.
  virtual void feed(const std::vector<float>& samples) = 0;
  virtual std::optional<PulledFrame> pull() = 0;
  virtual int queuedFrames() const = 0;
  // Frames of speech a caller should keep buffered ahead of playback.
  virtual int speechCushion() const = 0;
  virtual void resetState(bool clearFrames) = 0;
  virtual void flushTail() = 0;
  virtual bool hasPendingTail() const = 0;
  virtual void pushAudio(const std::vector<float>& samples) { feed(samples); }
  virtual int framesAvailable() const { return queuedFrames(); }
  // Copies the next frame into `buffer`; returns the bytes written (0 when none is ready or the
  // buffer is too small).
  virtual std::size_t pullInto(std::vector<std::uint8_t>& buffer) {
    auto pulled = pull();
    if (!pulled || buffer.size() < pulled->frame.size()) return 0;
    std::copy(pulled->frame.begin(), pulled->frame.end(), buffer.begin());
    return pulled->frame.size();
  }
  // Copies the next idle frame into `buffer`; 0 when no idle frame is available.
  virtual std::size_t idleInto(std::vector<std::uint8_t>& buffer) = 0;
  virtual std::optional<PixelBuffer> idleNextPixelBuffer() = 0;
  // Renders `seconds` of synthetic audio as fast as possible and logs the throughput.
  virtual void benchSync(int seconds) = 0;
};

}  // namespace lumora2
