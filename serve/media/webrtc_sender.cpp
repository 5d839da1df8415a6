#include "media/webrtc_sender.h"

#define GST_USE_UNSTABLE_API
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <gst/sdp/sdp.h>
#include <gst/webrtc/webrtc.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <thread>

#include "engine/thread_annotations.h"
#include "media/ice_agent.h"

namespace lumora2::serve {
namespace {

// The payload types the offer gives H.264 (packetization mode 1, constrained baseline preferred)
// and Opus.
struct OfferedCodecs {
  int h264 = -1;
  int opus = -1;
};

OfferedCodecs readOffer(const GstSDPMessage* sdp) {
  OfferedCodecs found;
  for (guint m = 0; m < gst_sdp_message_medias_len(sdp); ++m) {
    const GstSDPMedia* media = gst_sdp_message_get_media(sdp, m);
    const std::string kind = gst_sdp_media_get_media(media) ? gst_sdp_media_get_media(media) : "";
    int bestScore = -1;
    for (guint f = 0; f < gst_sdp_media_formats_len(media); ++f) {
      const int pt = std::atoi(gst_sdp_media_get_format(media, f));
      GstCaps* caps = gst_sdp_media_get_caps_from_media(media, pt);
      if (caps == nullptr) continue;
      const GstStructure* s = gst_caps_get_structure(caps, 0);
      const char* name = gst_structure_get_string(s, "encoding-name");
      if (kind == "video" && name != nullptr && g_ascii_strcasecmp(name, "H264") == 0) {
        const char* mode = gst_structure_get_string(s, "packetization-mode");
        const char* profile = gst_structure_get_string(s, "profile-level-id");
        int score = (mode != nullptr && std::strcmp(mode, "1") == 0) ? 2 : 0;
        if (profile != nullptr && g_str_has_prefix(profile, "42e0")) score += 1;
        if (score >= 2 && score > bestScore) {
          bestScore = score;
          found.h264 = pt;
        }
      }
      if (kind == "audio" && name != nullptr && g_ascii_strcasecmp(name, "OPUS") == 0 &&
          found.opus < 0) {
        found.opus = pt;
      }
      gst_caps_unref(caps);
    }
  }
  return found;
}

// Waits for a promise's reply; null when it was not answered in time or was interrupted.
const GstStructure* await(GstPromise* promise) {
  if (gst_promise_wait(promise) != GST_PROMISE_RESULT_REPLIED) return nullptr;
  return gst_promise_get_reply(promise);
}

// The stream both tracks belong to, as the answer names it.
constexpr const char* kStream = "lumora2";

// The answer as sent: webrtcbin names neither the media stream nor the sources, and a browser
// then plays each track on its own, sound and pictures each as soon as its own buffer lets it.
// Named as one stream (on the m-lines and on their sources), they are played in sync.
std::string answerText(const GstSDPMessage* local, std::uint32_t videoSsrc, std::uint32_t audioSsrc,
                       const std::string& cname) {
  GstSDPMessage* sdp = nullptr;
  gst_sdp_message_copy(local, &sdp);
  gst_sdp_message_add_attribute(sdp, "msid-semantic", (std::string(" WMS ") + kStream).c_str());
  for (guint m = 0; m < gst_sdp_message_medias_len(sdp); ++m) {
    auto* media = const_cast<GstSDPMedia*>(gst_sdp_message_get_media(sdp, m));
    const char* kind = gst_sdp_media_get_media(media);
    const bool video = kind != nullptr && std::strcmp(kind, "video") == 0;
    if (!video && (kind == nullptr || std::strcmp(kind, "audio") != 0)) continue;
    const std::string track = std::string(kStream) + (video ? "-video" : "-audio");
    const std::string ssrc = std::to_string(video ? videoSsrc : audioSsrc);
    const std::string msid = std::string(kStream) + " " + track;
    gst_sdp_media_add_attribute(media, "msid", msid.c_str());
    gst_sdp_media_add_attribute(media, "ssrc", (ssrc + " cname:" + cname).c_str());
    gst_sdp_media_add_attribute(media, "ssrc", (ssrc + " msid:" + msid).c_str());
  }
  gchar* text = gst_sdp_message_as_text(sdp);
  std::string out = text;
  g_free(text);
  gst_sdp_message_free(sdp);
  return out;
}

}  // namespace

struct WebRtcSender::Impl {
  GstElement* pipeline = nullptr;
  GstElement* webrtc = nullptr;
  GstElement* video = nullptr;
  GstElement* audio = nullptr;
  Options options;
  Events events;
  std::uint32_t videoSsrc = 0, audioSsrc = 0;
  // The payloaders' first RTP time stamps (chosen here rather than by them, so that the trace can
  // name them; as unpredictable either way).
  std::uint32_t videoRtpOffset = 0, audioRtpOffset = 0;
  // Diagnostics (Options::soundDelay): how much later sound stamped from `soundDelayFrom` on is.
  GstClockTime soundDelay = 0;
  std::chrono::nanoseconds soundDelayFrom{0};

  Mutex lock;  // guards the fields below and the events' delivery
  std::condition_variable_any changed;
  bool gathered LUMORA2_GUARDED_BY(lock) = false;
  std::size_t candidates LUMORA2_GUARDED_BY(lock) = 0;  // gathered so far
  bool connected LUMORA2_GUARDED_BY(lock) = false;
  bool ended LUMORA2_GUARDED_BY(lock) = false;    // the ended event was delivered
  bool closing LUMORA2_GUARDED_BY(lock) = false;  // destruction began: no more events
  GstClockTime base LUMORA2_GUARDED_BY(lock) = GST_CLOCK_TIME_NONE;  // running time at connection
  std::uint64_t pushed LUMORA2_GUARDED_BY(lock) = 0, dropped LUMORA2_GUARDED_BY(lock) = 0;
  std::atomic<std::uint64_t> behind{0};  // the video queue's overruns: one picture dropped each
  // When the viewer last sent RTCP (steady clock, ns): written on the network thread, read by
  // the watchdog.
  std::atomic<std::int64_t> heard{0};
  std::thread watchdog;

  ~Impl() {
    {
      MutexLock hold(lock);
      closing = true;
    }
    changed.notify_all();
    if (watchdog.joinable()) watchdog.join();
    if (webrtc != nullptr && !options.turnServers.empty()) releaseTurn(webrtc);
    if (pipeline != nullptr) {
      gst_element_set_state(pipeline, GST_STATE_NULL);
      if (GstBus* bus = gst_element_get_bus(pipeline)) {
        gst_bus_set_sync_handler(bus, nullptr, nullptr, nullptr);
        gst_object_unref(bus);
      }
    }
    for (GstElement* e : {webrtc, video, audio})
      if (e != nullptr) gst_object_unref(e);
    if (pipeline != nullptr) gst_object_unref(pipeline);
  }

  static std::int64_t now() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }

  void end(const std::string& why) {
    MutexLock hold(lock);
    if (ended || closing) return;
    ended = true;
    connected = false;
    // Delivered under the lock: destruction waits for it, and no event follows it.
    if (events.ended) events.ended(why);
  }

  void onConnectionState() {
    GstWebRTCPeerConnectionState state{};
    g_object_get(webrtc, "connection-state", &state, nullptr);
    if (state == GST_WEBRTC_PEER_CONNECTION_STATE_CONNECTED) {
      {
        MutexLock hold(lock);
        if (connected || ended || closing) return;
        GstClock* clock = gst_element_get_clock(pipeline);
        if (clock != nullptr) {
          base = gst_clock_get_time(clock) - gst_element_get_base_time(pipeline);
          gst_object_unref(clock);
        } else {
          base = 0;
        }
        heard = now();
        connected = true;
        if (events.connected) events.connected();
      }
      changed.notify_all();
    } else if (state == GST_WEBRTC_PEER_CONNECTION_STATE_FAILED) {
      end("the connection failed");
    } else if (state == GST_WEBRTC_PEER_CONNECTION_STATE_CLOSED) {
      end("the viewer closed the connection");
    } else if (state == GST_WEBRTC_PEER_CONNECTION_STATE_DISCONNECTED) {
      end("the viewer is gone");
    }
  }

  // Neither a closed page nor a killed browser changes the connection's state here: ICE and
  // DTLS stay "connected" until much later, if ever. A viewer whose browser is there reports on
  // what it receives at least once a second, so a silence of `viewerSilence` means it is gone.
  // A viewer that never connects (no network path: a firewall, a NAT without a relay) is given
  // up after `connectTimeout`, with a reason, rather than waited for in silence.
  void watch() {
    const auto silence =
        std::chrono::duration_cast<std::chrono::nanoseconds>(options.viewerSilence).count();
    const auto every = std::max(std::chrono::milliseconds(50), options.viewerSilence / 10);
    const auto answered = std::chrono::steady_clock::now();
    for (;;) {
      bool unreached = false;
      {
        MutexLock hold(lock);
        changed.wait_for(lock, every);
        if (closing || ended) return;
        unreached =
            !connected && std::chrono::steady_clock::now() - answered > options.connectTimeout;
        if (!unreached && (!connected || now() - heard.load() < silence)) continue;
      }
      end(unreached ? "no network path to the viewer (not connected within " +
                          std::to_string(options.connectTimeout.count()) + " ms)"
                    : "the viewer stopped answering (nothing heard from it for " +
                          std::to_string(options.viewerSilence.count()) + " ms)");
    }
  }
};

namespace {

void onGatheringState(GstElement* webrtc, GParamSpec*, gpointer data) {
  auto* impl = static_cast<WebRtcSender::Impl*>(data);
  GstWebRTCICEGatheringState state{};
  g_object_get(webrtc, "ice-gathering-state", &state, nullptr);
  if (state == GST_WEBRTC_ICE_GATHERING_STATE_COMPLETE) {
    MutexLock hold(impl->lock);
    impl->gathered = true;
    impl->changed.notify_all();
  }
}

void onConnectionState(GstElement*, GParamSpec*, gpointer data) {
  static_cast<WebRtcSender::Impl*>(data)->onConnectionState();
}

GstBusSyncReply onBusMessage(GstBus*, GstMessage* message, gpointer data) {
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
    GError* error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    const std::string why = error != nullptr ? error->message : "unknown";
    if (error != nullptr) g_error_free(error);
    static_cast<WebRtcSender::Impl*>(data)->end("the media pipeline failed: " + why);
  }
  return GST_BUS_PASS;
}

}  // namespace

WebRtcSender::WebRtcSender(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
WebRtcSender::~WebRtcSender() = default;

namespace {

using SdpPtr = std::unique_ptr<GstSDPMessage, decltype(&gst_sdp_message_free)>;

// The viewer's offer, with the payload types of the codecs it receives.
SdpPtr parseOffer(const std::string& offerSdp, OfferedCodecs& codecs) {
  GstSDPMessage* raw = nullptr;
  gst_sdp_message_new(&raw);
  SdpPtr sdp(raw, gst_sdp_message_free);
  if (offerSdp.rfind("v=0", 0) != 0 ||
      gst_sdp_message_parse_buffer(reinterpret_cast<const guint8*>(offerSdp.data()),
                                   guint(offerSdp.size()), sdp.get()) != GST_SDP_OK ||
      gst_sdp_message_medias_len(sdp.get()) == 0) {
    throw MediaError("the offer is not SDP with media");
  }
  codecs = readOffer(sdp.get());
  if (codecs.h264 < 0 || codecs.opus < 0) {
    throw MediaError(codecs.h264 < 0
                         ? "the offer does not receive H.264 video (packetization mode 1)"
                         : "the offer does not receive Opus audio");
  }
  return sdp;
}

// The encoders are the server's largest cost per frame, so both are set for it. Video: constant
// quality (quantizer 23, with 1500 kb/s as the ceiling) rather than a constant 1500 kb/s: a
// talking head needs about 400 kb/s for the same quality, and a third of the packets to encrypt
// and send. Sound: 20 ms Opus packets, each sent when its time comes rather than when its samples
// arrive. A frame brings 50 ms of sound at once, so packets made as soon as they can be leave in
// bursts, up to 40 ms early (with 40 ms packets, as before), and the browser's jitter buffer
// deepens to cover that spread; the pictures then wait as long, to play with the sound. Paced
// (clocksync, 10 ms after each packet's time stamp, when the next frame's samples that the third
// packet of every five needs are surely there), the packets arrive evenly: measured at the viewer,
// interrupt -> silent 75-92 ms against 107-119, for 0.1-0.25 ms of the server's processor a frame
// (10 ms packets, with no offset needed, cost 0.5). The streams' sources are fixed in the
// payloaders' caps, so that the answer can name them.
std::string pipelineDescription(const WebRtcSender::Options& options, const OfferedCodecs& codecs,
                                const WebRtcSender::Impl& impl) {
  return "webrtcbin name=webrtc bundle-policy=max-bundle latency=0 "
         "appsrc name=video is-live=true format=time do-timestamp=false max-bytes=20000000 "
         "caps=video/x-raw,format=I420,width=" +
         std::to_string(options.width) + ",height=" + std::to_string(options.height) +
         ",framerate=" + std::to_string(options.fps) +
         "/1 ! queue name=vqueue max-size-buffers=10 leaky=downstream ! "
         "x264enc tune=zerolatency speed-preset=ultrafast key-int-max=" +
         std::to_string(options.fps * 2) +
         " pass=qual quantizer=23 bitrate=1500 threads=1 trellis=false ! "
         "video/x-h264,profile=constrained-baseline ! "
         "rtph264pay config-interval=-1 aggregate-mode=zero-latency timestamp-offset=" +
         std::to_string(impl.videoRtpOffset) + " pt=" + std::to_string(codecs.h264) +
         " ! application/x-rtp,media=video,encoding-name=H264,payload=" +
         std::to_string(codecs.h264) + ",clock-rate=90000,ssrc=(uint)" +
         std::to_string(impl.videoSsrc) + " ! webrtc. " +
         "appsrc name=audio is-live=true format=time do-timestamp=false "
         "caps=audio/x-raw,format=F32LE,layout=interleaved,channels=1,rate=" +
         std::to_string(options.sampleRate) +
         " ! queue ! audioconvert ! opusenc frame-size=20 ! clocksync ts-offset=10000000 ! "
         "rtpopuspay timestamp-offset=" +
         std::to_string(impl.audioRtpOffset) + " pt=" + std::to_string(codecs.opus) +
         " ! application/x-rtp,media=audio,encoding-name=OPUS,payload=" +
         std::to_string(codecs.opus) + ",clock-rate=48000,ssrc=(uint)" +
         std::to_string(impl.audioSsrc) + " ! webrtc. ";
}

void onCandidate(GstElement*, guint, gchar*, gpointer data) {
  auto* impl = static_cast<WebRtcSender::Impl*>(data);
  MutexLock hold(impl->lock);
  ++impl->candidates;
  impl->changed.notify_all();
}

void buildPipeline(WebRtcSender::Impl& impl, const OfferedCodecs& codecs) {
  const std::string description = pipelineDescription(impl.options, codecs, impl);
  GError* error = nullptr;
  impl.pipeline = gst_parse_launch(description.c_str(), &error);
  if (impl.pipeline == nullptr || error != nullptr) {
    const std::string why = error != nullptr ? error->message : "unknown";
    if (error != nullptr) g_error_free(error);
    throw MediaError("cannot build the media pipeline: " + why);
  }
  impl.webrtc = gst_bin_get_by_name(GST_BIN(impl.pipeline), "webrtc");
  impl.video = gst_bin_get_by_name(GST_BIN(impl.pipeline), "video");
  impl.audio = gst_bin_get_by_name(GST_BIN(impl.pipeline), "audio");
  // Sender reports tie each stream's RTP time to the wall clock through the buffers' time stamps
  // (the session's clock), whatever became of them on the way: the browser lines the two streams
  // up by these reports.
  if (GstElement* rtpbin = gst_bin_get_by_name(GST_BIN(impl.webrtc), "rtpbin")) {
    g_object_set(rtpbin, "rtcp-sync-send-time", FALSE, nullptr);
    gst_object_unref(rtpbin);
  }
  // The encoder's queue drops its oldest picture when the encoder falls behind; each drop
  // follows an overrun, counted so that a stutter is never silent.
  if (GstElement* queue = gst_bin_get_by_name(GST_BIN(impl.pipeline), "vqueue")) {
    g_signal_connect(queue, "overrun", G_CALLBACK(+[](GstElement*, gpointer data) {
                       ++static_cast<WebRtcSender::Impl*>(data)->behind;
                     }),
                     &impl);
    gst_object_unref(queue);
  }
  GstBus* bus = gst_element_get_bus(impl.pipeline);
  gst_bus_set_sync_handler(bus, onBusMessage, &impl, nullptr);
  gst_object_unref(bus);
  g_signal_connect(impl.webrtc, "notify::ice-gathering-state", G_CALLBACK(onGatheringState), &impl);
  g_signal_connect(impl.webrtc, "notify::connection-state", G_CALLBACK(onConnectionState), &impl);
  g_signal_connect(impl.webrtc, "on-ice-candidate", G_CALLBACK(onCandidate), &impl);
}

// The offer set, the answer made and set: gathering starts.
void negotiate(WebRtcSender::Impl& impl, SdpPtr sdp) {
  GstWebRTCSessionDescription* offer =
      gst_webrtc_session_description_new(GST_WEBRTC_SDP_TYPE_OFFER, sdp.release());
  GstPromise* promise = gst_promise_new();
  g_signal_emit_by_name(impl.webrtc, "set-remote-description", offer, promise);
  bool remoteSet = gst_promise_wait(promise) == GST_PROMISE_RESULT_REPLIED;
  if (const GstStructure* r = gst_promise_get_reply(promise)) {
    remoteSet = remoteSet && !gst_structure_has_field(r, "error");
  }
  gst_promise_unref(promise);
  gst_webrtc_session_description_free(offer);
  if (!remoteSet) throw MediaError("the offer was not accepted");

  promise = gst_promise_new();
  g_signal_emit_by_name(impl.webrtc, "create-answer", nullptr, promise);
  const GstStructure* reply = await(promise);
  GstWebRTCSessionDescription* answer = nullptr;
  if (reply != nullptr) {
    if (gst_structure_has_field(reply, "error")) {
      GError* why = nullptr;
      gst_structure_get(reply, "error", G_TYPE_ERROR, &why, nullptr);
      const std::string text = why != nullptr ? why->message : "unknown";
      if (why != nullptr) g_error_free(why);
      gst_promise_unref(promise);
      throw MediaError("the offer cannot be answered: " + text);
    }
    gst_structure_get(reply, "answer", GST_TYPE_WEBRTC_SESSION_DESCRIPTION, &answer, nullptr);
  }
  gst_promise_unref(promise);
  if (answer == nullptr) throw MediaError("the offer cannot be answered");
  promise = gst_promise_new();
  g_signal_emit_by_name(impl.webrtc, "set-local-description", answer, promise);
  gst_promise_wait(promise);
  gst_promise_unref(promise);
  gst_webrtc_session_description_free(answer);
}

// Sender reports often (every half second rather than every five): the browser lines sound and
// pictures up by them, and needs two of each stream before it starts to. Every RTCP packet from
// the viewer says it is still there. Returns the session's CNAME.
std::string tuneRtcp(WebRtcSender::Impl& impl) {
  std::string cname = kStream;
  GstElement* rtpbin = gst_bin_get_by_name(GST_BIN(impl.webrtc), "rtpbin");
  if (rtpbin == nullptr) return cname;
  GstStructure* sdes = nullptr;
  g_object_get(rtpbin, "sdes", &sdes, nullptr);
  if (sdes != nullptr) {
    if (const char* name = gst_structure_get_string(sdes, "cname")) cname = name;
    gst_structure_free(sdes);
  }
  GObject* session = nullptr;
  g_signal_emit_by_name(rtpbin, "get-internal-session", 0u, &session);
  if (session != nullptr) {
    g_object_set(session, "rtcp-min-interval", guint64(500 * GST_MSECOND), nullptr);
    g_signal_connect(session, "on-receiving-rtcp",
                     G_CALLBACK(+[](GObject*, GstBuffer*, gpointer data) {
                       static_cast<WebRtcSender::Impl*>(data)->heard = WebRtcSender::Impl::now();
                     }),
                     &impl);
    g_object_unref(session);
  }
  gst_object_unref(rtpbin);
  return cname;
}

// WHEP: the answer goes out complete, with every candidate in it, or with those gathered by the
// deadline (a STUN or TURN server that does not answer). None at all: no port was free.
void awaitCandidates(WebRtcSender::Impl& impl) {
  const auto start = std::chrono::steady_clock::now();
  const auto deadline = start + impl.options.gatherTimeout;
  const auto firstBy = start + impl.options.firstCandidate;
  MutexLock hold(impl.lock);
  for (;;) {
    const auto now = std::chrono::steady_clock::now();
    if (impl.gathered || now >= deadline || (impl.candidates == 0 && now >= firstBy)) break;
    impl.changed.wait_until(impl.lock,
                            impl.candidates == 0 ? std::min(firstBy, deadline) : deadline);
  }
  if (impl.candidates == 0) {
    throw NoCandidateError(impl.options.minPort != 0
                               ? "no network candidate: every port from " +
                                     std::to_string(impl.options.minPort) + " to " +
                                     std::to_string(impl.options.maxPort) + " is in use"
                               : "no network candidate was found");
  }
}

}  // namespace

namespace {

// One try at answering: the pipeline built, the offer answered, the candidates gathered.
std::unique_ptr<WebRtcSender::Impl> answerOffer(const std::string& offerSdp,
                                                const WebRtcSender::Options& options,
                                                WebRtcSender::Events events, bool iceTcp,
                                                std::string& answerSdp) {
  OfferedCodecs codecs;
  SdpPtr sdp = parseOffer(offerSdp, codecs);
  auto impl = std::make_unique<WebRtcSender::Impl>();
  impl->options = options;
  impl->events = std::move(events);
  impl->soundDelay =
      GstClockTime(std::clamp<std::int64_t>(options.soundDelay.delay.count(), 0, 1000)) *
      GST_MSECOND;
  impl->soundDelayFrom = options.soundDelay.from;
  impl->videoSsrc = g_random_int();
  do {
    impl->audioSsrc = g_random_int();
  } while (impl->audioSsrc == impl->videoSsrc);
  // Kept below 2^31, well inside the payloaders' property (whose -1 means "choose at random").
  impl->videoRtpOffset = g_random_int() >> 1;
  impl->audioRtpOffset = g_random_int() >> 1;
  buildPipeline(*impl, codecs);
  configureIce(impl->webrtc, options, iceTcp);
  if (gst_element_set_state(impl->pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
    throw MediaError("the media pipeline does not start");
  }
  negotiate(*impl, std::move(sdp));
  const std::string cname = tuneRtcp(*impl);
  awaitCandidates(*impl);
  GstWebRTCSessionDescription* local = nullptr;
  g_object_get(impl->webrtc, "local-description", &local, nullptr);
  if (local == nullptr) throw MediaError("the answer went missing");
  answerSdp = answerText(local->sdp, impl->videoSsrc, impl->audioSsrc, cname);
  gst_webrtc_session_description_free(local);
  return impl;
}

}  // namespace

std::unique_ptr<WebRtcSender> WebRtcSender::create(const std::string& offerSdp,
                                                   const Options& options, Events events) {
  initMedia();
  std::string answerSdp;
  std::unique_ptr<Impl> impl;
  try {
    impl = answerOffer(offerSdp, options, events, true, answerSdp);
  } catch (const NoCandidateError&) {
    // The ICE agent gives the whole gathering up when one transport finds no free port in the
    // range, and TCP ports run out first: one stays held for a minute (TIME_WAIT) after this
    // side closed an ICE-TCP connection on it, while its UDP twin is free again at once. Such a
    // viewer is answered over UDP alone; with no UDP port free either it is refused.
    if (options.minPort == 0) throw;
    impl = answerOffer(offerSdp, options, std::move(events), false, answerSdp);
  }
  impl->watchdog = std::thread([raw = impl.get()] { raw->watch(); });

  std::unique_ptr<WebRtcSender> sender(new WebRtcSender(std::move(impl)));
  sender->answer_ = std::move(answerSdp);
  return sender;
}

std::size_t WebRtcSender::addCandidates(const std::string& fragment) {
  // With one bundled transport every candidate belongs to the first m= line; a fragment names
  // its m= lines (or mids) only to say so.
  std::size_t added = 0;
  bool end = false;
  std::size_t at = 0;
  while (at < fragment.size()) {
    std::size_t next = fragment.find('\n', at);
    if (next == std::string::npos) next = fragment.size();
    std::string line = fragment.substr(at, next - at);
    at = next + 1;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.rfind("a=candidate:", 0) == 0 && line.size() < 512) {
      g_signal_emit_by_name(impl_->webrtc, "add-ice-candidate", 0u, line.substr(2).c_str());
      ++added;
    } else if (line == "a=end-of-candidates") {
      end = true;
    }
  }
  if (added == 0 && !end) throw MediaError("the fragment holds no a=candidate line");
  return added;
}

namespace {

// A GStreamer buffer over `data`'s storage, which it owns from here on; when GStreamer lets go
// of it the storage goes to `recycle`, or is freed without one.
template <typename T>
GstBuffer* wrapped(std::vector<T>&& data, void (*recycle)(std::vector<T>&&) = nullptr) {
  struct Owned {
    std::vector<T> data;
    void (*recycle)(std::vector<T>&&);
  };
  auto* owned = new Owned{std::move(data), recycle};
  const gsize bytes = owned->data.size() * sizeof(T);
  return gst_buffer_new_wrapped_full(GstMemoryFlags(0), owned->data.data(), bytes, 0, bytes, owned,
                                     [](gpointer p) {
                                       auto* o = static_cast<Owned*>(p);
                                       if (o->recycle != nullptr) o->recycle(std::move(o->data));
                                       delete o;
                                     });
}

}  // namespace

void WebRtcSender::push(std::chrono::nanoseconds pts, std::vector<std::uint8_t>&& i420,
                        std::vector<float>&& samples) {
  GstClockTime base;
  {
    MutexLock hold(impl_->lock);
    if (!impl_->connected) {
      ++impl_->dropped;
      return;
    }
    base = impl_->base;
    ++impl_->pushed;
  }
  const GstClockTime at = base + GstClockTime(pts.count());
  const GstClockTime frame = GST_SECOND / GstClockTime(impl_->options.fps);
  const gsize pictureBytes = gsize(impl_->options.width) * gsize(impl_->options.height) * 3 / 2;
  if (i420.size() != pictureBytes) return;  // not a picture of this stream
  GstBuffer* picture = wrapped(std::move(i420), impl_->options.recyclePicture);
  GST_BUFFER_PTS(picture) = at;
  GST_BUFFER_DURATION(picture) = frame;
  gst_app_src_push_buffer(GST_APP_SRC(impl_->video), picture);
  if (!samples.empty()) {
    const std::size_t count = samples.size();
    GstBuffer* sound = wrapped(std::move(samples));
    GST_BUFFER_PTS(sound) = pts >= impl_->soundDelayFrom ? at + impl_->soundDelay : at;
    GST_BUFFER_DURATION(sound) =
        gst_util_uint64_scale(count, GST_SECOND, guint64(impl_->options.sampleRate));
    gst_app_src_push_buffer(GST_APP_SRC(impl_->audio), sound);
  }
}

RtpClock WebRtcSender::rtpClock() const {
  MutexLock hold(impl_->lock);
  const bool known = impl_->base != GST_CLOCK_TIME_NONE;
  return RtpClock{impl_->videoRtpOffset, impl_->audioRtpOffset,
                  std::chrono::nanoseconds(known ? std::int64_t(impl_->base) : 0)};
}

SenderStats WebRtcSender::stats() const {
  MutexLock hold(impl_->lock);
  return SenderStats{impl_->pushed, impl_->dropped, impl_->behind.load(), impl_->connected};
}

}  // namespace lumora2::serve
