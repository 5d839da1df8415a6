// WebRtcSender: one viewer's WebRTC stream, answered WHEP style (the viewer's complete offer in,
// a complete answer out), sending H.264 video (constrained baseline, zero-latency x264) and Opus
// sound from pictures and samples the caller pushes, through GStreamer's webrtcbin. Both tracks
// carry one stream id, so the browser plays them in sync; their time stamps come from the
// caller's one clock (the session's sample clock), starting when the peer is connected.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

namespace lumora2::serve {

// One line, fit to show a user.
struct MediaError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Process-wide GStreamer initialisation, idempotent and thread-safe; checks that every element
// the sender uses exists and throws MediaError naming a missing one and its Debian package.
void initMedia();

struct SenderStats {
  std::uint64_t framesPushed = 0;   // accepted while connected
  std::uint64_t framesDropped = 0;  // pushed before the peer was connected
  // Pictures dropped before the video encoder because it fell behind (the processor was taken
  // by something else): the viewer sees a stutter. Their sound is still played.
  std::uint64_t framesBehind = 0;
  bool connected = false;
};

class WebRtcSender {
 public:
  struct Options {
    int width = 416, height = 720, fps = 20, sampleRate = 16000;
    std::chrono::milliseconds gatherTimeout{5000};  // ICE gathering for the answer
  };
  struct Events {
    std::function<void()> connected;                    // media can flow: the clock starts
    std::function<void(const std::string& why)> ended;  // at most once, never after destruction
  };

  // Answers the offer (it must offer to receive H.264 video and Opus audio). Throws MediaError
  // for an offer that is not SDP or lacks either, or when gathering does not finish in time.
  static std::unique_ptr<WebRtcSender> create(const std::string& offerSdp, const Options& options,
                                              Events events);
  ~WebRtcSender();
  WebRtcSender(const WebRtcSender&) = delete;
  WebRtcSender& operator=(const WebRtcSender&) = delete;

  const std::string& answer() const { return answer_; }

  // One picture (I420: width * height * 3 / 2 bytes, Y then U then V) and the samples (16 kHz
  // mono floats) that play with it, at `pts` on the stream's clock (time since `connected`).
  // Never blocks for long; before `connected` they are dropped and counted.
  void push(std::chrono::nanoseconds pts, const std::uint8_t* i420, const float* samples,
            std::size_t count);
  SenderStats stats() const;

  struct Impl;

 private:
  explicit WebRtcSender(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
  std::string answer_;
};

}  // namespace lumora2::serve
