// WebRtcSender: one viewer's WebRTC stream, answered WHEP style (the viewer's complete offer in,
// a complete answer out), sending H.264 video (constrained baseline, zero-latency x264) and Opus
// sound from pictures and samples the caller pushes, through GStreamer's webrtcbin. The answer
// puts both tracks in one media stream, and the sender reports of both map their time stamps to
// one wall clock as of their capture, so that the browser plays them in sync; the time stamps
// come from the caller's one clock (the session's sample clock), starting when the peer is
// connected. A viewer that goes quiet is noticed within seconds and reported as ended.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace lumora2::serve {

// One line, fit to show a user.
struct MediaError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The ICE agent found no address to offer the viewer: with a port range, every port of it is in
// use.
struct NoCandidateError : MediaError {
  using MediaError::MediaError;
};

// Process-wide GStreamer initialisation, idempotent and thread-safe; checks that every element
// the sender uses exists and throws MediaError naming a missing one and its Debian package.
void initMedia();

// A fault planted on purpose (diagnostics): from `from` into a viewer's stream on, every sound
// buffer is stamped `delay` later than its picture. Planted in the middle of a stream, it shows
// as a step that one browser's measurement sees on one connection.
struct SoundDelay {
  std::chrono::milliseconds delay{0};
  std::chrono::seconds from{0};
};

// A SoundDelay from its text (LUMORA2_SERVE_SOUND_DELAY_MS): "MS" or "MS@SECONDS", MS a whole
// number from 0 to 1000 and SECONDS from 0 to 3600. Throws MediaError for anything else.
SoundDelay parseSoundDelay(const std::string& text);

struct SenderStats {
  std::uint64_t framesPushed = 0;   // accepted while connected
  std::uint64_t framesDropped = 0;  // pushed before the peer was connected
  // Pictures dropped before the video encoder because it fell behind (the processor was taken
  // by something else): the viewer sees a stutter. Their sound is still played.
  std::uint64_t framesBehind = 0;
  bool connected = false;
};

// How a stream's RTP time stamps follow from its buffers' time stamps: RTP time = offset +
// (base + pts) * clock rate, modulo 2^32, for `pts` as pushed (90 kHz for pictures, 48 kHz for
// sound). A diagnostic: with it, a viewer's RTP times name the moments of the session's stream
// they were stamped for, whatever the browser did with them.
struct RtpClock {
  std::uint32_t videoOffset = 0, audioOffset = 0;
  std::chrono::nanoseconds base{0};  // the pipeline's running time when the viewer connected
};

class WebRtcSender {
 public:
  struct Options {
    int width = 416, height = 720, fps = 20, sampleRate = 16000;
    // ICE gathering for the answer: the answer waits for every candidate up to this long, then
    // goes with those gathered (a STUN or TURN server that does not answer costs this much).
    std::chrono::milliseconds gatherTimeout{3000};
    // No candidate at all after this long: none will come (the port range is used up).
    std::chrono::milliseconds firstCandidate{1000};
    // An answered viewer not connected after this long has no network path to the server.
    std::chrono::milliseconds connectTimeout{20000};
    // The ICE servers of the server's own agent ("stun://host:port";
    // "turn(s)://user:password@host:port[?transport=tcp]", URL-encoded) and the ports its sockets
    // may take (0: any).
    std::string stunServer;
    std::vector<std::string> turnServers;
    unsigned minPort = 0, maxPort = 0;
    // A connected viewer that sends no RTCP for this long is gone (its page closed, its browser
    // killed, its network lost): a browser reports on the video it receives about once a second.
    std::chrono::milliseconds viewerSilence{3000};
    // Diagnostics: a known fault, for proving that a lip-sync measurement at the viewer sees one
    // (the delay is at most 1000 ms).
    SoundDelay soundDelay;
    // Where each picture's buffer goes once the encoder is done with it (any thread; it may
    // outlive the sender): null frees it.
    void (*recyclePicture)(std::vector<std::uint8_t>&&) = nullptr;
  };
  struct Events {
    std::function<void()> connected;  // media can flow: the clock starts
    // At most once, never after destruction; delivered on one of the sender's threads, which
    // must not destroy the sender from inside it.
    std::function<void(const std::string& why)> ended;
  };

  // Answers the offer (it must offer to receive H.264 video and Opus audio). Throws MediaError
  // for an offer that is not SDP or lacks either, NoCandidateError when no candidate was found.
  // With a port range whose TCP ports are all held but a UDP one is free, the answer offers UDP
  // alone (no ICE-TCP).
  static std::unique_ptr<WebRtcSender> create(const std::string& offerSdp, const Options& options,
                                              Events events);
  ~WebRtcSender();
  WebRtcSender(const WebRtcSender&) = delete;
  WebRtcSender& operator=(const WebRtcSender&) = delete;

  const std::string& answer() const { return answer_; }

  // One picture (I420: width * height * 3 / 2 bytes, Y then U then V) and the samples (16 kHz
  // mono floats) that play with it, at `pts` on the stream's clock (time since `connected`).
  // Both are handed to GStreamer as they are, not copied. Never blocks for long; before
  // `connected` they are dropped and counted.
  void push(std::chrono::nanoseconds pts, std::vector<std::uint8_t>&& i420,
            std::vector<float>&& samples);
  SenderStats stats() const;
  // Once connected; before, base is 0.
  RtpClock rtpClock() const;
  // The viewer's late candidates (trickle ICE): an SDP fragment's a=candidate lines, under the
  // m= line (or a=mid) they belong to. Returns how many were taken; throws MediaError for a
  // fragment with none and no a=end-of-candidates.
  std::size_t addCandidates(const std::string& fragment);

  struct Impl;

 private:
  explicit WebRtcSender(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
  std::string answer_;
};

}  // namespace lumora2::serve
