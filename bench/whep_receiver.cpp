// lumora2-whep-receiver: a light WebRTC viewer for benchmarks. It receives one session's stream
// over WHEP and counts what arrives without decoding it, so that many can run beside a server on
// the same cores: RTP packets per track, and video frames by the RTP marker bit (the last packet
// of each picture carries it).
//
//   lumora2-whep-receiver URL [--seconds S] [--settle S] [--connect-timeout S] [--on-demand]
//
// URL is the session's WHEP URL (http://127.0.0.1:PORT/v1/sessions/ID/whep). It offers one
// receive-only video (H.264) and one audio (Opus) transceiver, posts the complete offer, applies
// the answer, waits for the connection, lets `--settle` seconds pass, counts for `--seconds`, then
// deletes its WHEP resource and prints one JSON line:
//   {"packets_video", "packets_audio", "frames", "seconds", "fps", "connected_ms", "max_gap_ms"}
// connected_ms runs from the start to the connection; max_gap_ms is the longest time in the counted
// span without a frame's last packet (from its start to the first one included). Exit status 0; 1
// when it cannot connect, or the connection ends before the count does (the line is printed, the
// reason on standard error); 2 for a bad command line. Every step is bounded in time. With
// --on-demand it counts from the connection until stdin closes (at most --seconds), answering
// each line it reads with the counts so far (see countOnDemand).
#define GST_USE_UNSTABLE_API
#include <gst/gst.h>
#include <gst/sdp/sdp.h>
#include <gst/webrtc/webrtc.h>

#include <poll.h>

#include <algorithm>
#include <atomic>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include "engine/thread_annotations.h"

namespace {

namespace beast = boost::beast;
namespace http = beast::http;
using tcp = boost::asio::ip::tcp;
using Clock = std::chrono::steady_clock;

struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Options {
  std::string url;
  double seconds = 20;
  double settle = 0;
  double connectTimeout = 15;
  bool onDemand = false;  // --on-demand: counts until stdin closes, a line per line read
};

// http://HOST:PORT/PATH, the only form a WHEP URL on this machine takes.
struct Url {
  std::string host, port, target;
};

Url parseUrl(const std::string& text) {
  const std::string scheme = "http://";
  if (text.rfind(scheme, 0) != 0) throw Failure("the URL is not http://HOST:PORT/PATH: " + text);
  const auto slash = text.find('/', scheme.size());
  const std::string authority = text.substr(scheme.size(), slash - scheme.size());
  const auto colon = authority.rfind(':');
  Url url;
  url.host = authority.substr(0, colon);
  url.port = colon == std::string::npos ? "80" : authority.substr(colon + 1);
  url.target = slash == std::string::npos ? "/" : text.substr(slash);
  if (url.host.size() > 2 && url.host.front() == '[' && url.host.back() == ']')
    url.host = url.host.substr(1, url.host.size() - 2);
  if (url.host.empty() || url.port.empty()) throw Failure("the URL has no host or port: " + text);
  return url;
}

struct Response {
  unsigned status = 0;
  std::string body, location;
};

// One request on its own connection, the whole exchange within `timeout`.
Response request(const Url& url, http::verb verb, const std::string& target,
                 const std::string& body, std::chrono::milliseconds timeout) {
  boost::asio::io_context io;
  tcp::resolver resolver(io);
  beast::tcp_stream stream(io);
  http::request<http::string_body> req{verb, target, 11};
  req.set(http::field::host, url.host + ":" + url.port);
  req.set(http::field::connection, "close");
  if (!body.empty()) {
    req.set(http::field::content_type, "application/sdp");
    req.body() = body;
  }
  req.prepare_payload();
  beast::flat_buffer buffer;
  http::response<http::string_body> res;
  beast::error_code failed;
  stream.expires_after(timeout);
  // Each step records its error and stops the chain; the deadline closes the stream.
  const auto onRead = [&](beast::error_code ec, std::size_t) { failed = ec; };
  const auto onWrite = [&](beast::error_code ec, std::size_t) {
    if (ec) return void(failed = ec);
    http::async_read(stream, buffer, res, onRead);
  };
  const auto onConnect = [&](beast::error_code ec, const tcp::endpoint&) {
    if (ec) return void(failed = ec);
    http::async_write(stream, req, onWrite);
  };
  resolver.async_resolve(url.host, url.port,
                         [&](beast::error_code ec, tcp::resolver::results_type found) {
                           if (ec) return void(failed = ec);
                           stream.async_connect(found, onConnect);
                         });
  io.run_for(timeout + std::chrono::milliseconds(100));
  if (!io.stopped())
    throw Failure(std::string(http::to_string(verb)) + " " + target + ": no answer");
  if (failed)
    throw Failure(std::string(http::to_string(verb)) + " " + target + ": " + failed.message());
  Response out;
  out.status = res.result_int();
  out.body = res.body();
  if (auto at = res.find(http::field::location); at != res.end()) out.location = at->value();
  return out;
}

// What arrived, counted on webrtcbin's source pads (streaming threads).
struct Counts {
  std::atomic<std::int64_t> from{0}, until{0};  // the counted span, steady clock ns; 0: not yet
  std::atomic<std::uint64_t> videoPackets{0}, audioPackets{0}, frames{0};
  std::atomic<std::int64_t> lastFrame{0}, maxGap{0};
};

std::int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
      .count();
}

using State = GstWebRTCPeerConnectionState;

struct Receiver {
  GstElement* pipeline = nullptr;
  GstElement* webrtc = nullptr;
  Counts counts;
  lumora2::Mutex lock;  // guards the two states below
  std::condition_variable_any changed;
  bool gathered LUMORA2_GUARDED_BY(lock) = false;
  State state LUMORA2_GUARDED_BY(lock) = GST_WEBRTC_PEER_CONNECTION_STATE_NEW;

  ~Receiver() {
    if (pipeline != nullptr) {
      gst_element_set_state(pipeline, GST_STATE_NULL);
      gst_object_unref(pipeline);
    }
  }

  // Waits until gathering completes or `deadline` passes; true when it completed.
  bool awaitGathered(Clock::time_point deadline) LUMORA2_EXCLUDES(lock) {
    lumora2::MutexLock hold(lock);
    while (!gathered && Clock::now() < deadline) changed.wait_until(lock, deadline);
    return gathered;
  }

  // Waits until the connection is in one of `states` or `deadline` passes; the state then.
  State awaitState(Clock::time_point deadline, std::initializer_list<State> states)
      LUMORA2_EXCLUDES(lock) {
    lumora2::MutexLock hold(lock);
    for (;;) {
      for (State s : states)
        if (state == s) return state;
      if (Clock::now() >= deadline) return state;
      changed.wait_until(lock, deadline);
    }
  }
};

void count(Counts& c, bool video, GstBuffer* buffer) {
  const std::int64_t now = nowNs();
  const std::int64_t from = c.from.load();
  if (from == 0 || now < from || now >= c.until.load()) return;
  if (!video) {
    ++c.audioPackets;
    return;
  }
  ++c.videoPackets;
  guint8 second = 0;
  if (gst_buffer_extract(buffer, 1, &second, 1) != 1 || (second & 0x80) == 0) return;
  ++c.frames;
  const std::int64_t last = c.lastFrame.exchange(now);
  if (now - last > c.maxGap.load()) c.maxGap = now - last;
}

struct PadCounter {
  Counts* counts;
  bool video;
};

GstPadProbeReturn onPacket(GstPad*, GstPadProbeInfo* info, gpointer data) {
  const auto* p = static_cast<const PadCounter*>(data);
  if (GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_BUFFER) {
    count(*p->counts, p->video, GST_PAD_PROBE_INFO_BUFFER(info));
  } else if (GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_BUFFER_LIST) {
    GstBufferList* list = GST_PAD_PROBE_INFO_BUFFER_LIST(info);
    for (guint i = 0; i < gst_buffer_list_length(list); ++i)
      count(*p->counts, p->video, gst_buffer_list_get(list, i));
  }
  return GST_PAD_PROBE_OK;
}

// A received stream: counted as it leaves webrtcbin, then dropped.
void onPadAdded(GstElement*, GstPad* pad, gpointer data) {
  auto* receiver = static_cast<Receiver*>(data);
  if (GST_PAD_DIRECTION(pad) != GST_PAD_SRC) return;
  GstWebRTCRTPTransceiver* transceiver = nullptr;
  g_object_get(pad, "transceiver", &transceiver, nullptr);
  guint mline = 1;
  if (transceiver != nullptr) {
    g_object_get(transceiver, "mlineindex", &mline, nullptr);
    gst_object_unref(transceiver);
  }
  auto* counter = new PadCounter{&receiver->counts, mline == 0};
  gst_pad_add_probe(pad,
                    GstPadProbeType(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST),
                    onPacket, counter, [](gpointer p) { delete static_cast<PadCounter*>(p); });
  GstElement* sink = gst_element_factory_make("fakesink", nullptr);
  g_object_set(sink, "sync", FALSE, "async", FALSE, nullptr);
  gst_bin_add(GST_BIN(receiver->pipeline), sink);
  gst_element_sync_state_with_parent(sink);
  GstPad* in = gst_element_get_static_pad(sink, "sink");
  gst_pad_link(pad, in);
  gst_object_unref(in);
}

void onGathering(GstElement* webrtc, GParamSpec*, gpointer data) {
  auto* receiver = static_cast<Receiver*>(data);
  GstWebRTCICEGatheringState state{};
  g_object_get(webrtc, "ice-gathering-state", &state, nullptr);
  if (state != GST_WEBRTC_ICE_GATHERING_STATE_COMPLETE) return;
  {
    lumora2::MutexLock hold(receiver->lock);
    receiver->gathered = true;
  }
  receiver->changed.notify_all();
}

void onConnection(GstElement* webrtc, GParamSpec*, gpointer data) {
  auto* receiver = static_cast<Receiver*>(data);
  GstWebRTCPeerConnectionState state{};
  g_object_get(webrtc, "connection-state", &state, nullptr);
  {
    lumora2::MutexLock hold(receiver->lock);
    receiver->state = state;
  }
  receiver->changed.notify_all();
}

// A promise's reply within the time left; throws with `what` when there is none or it is an error.
const GstStructure* reply(GstPromise* promise, const char* what) {
  if (gst_promise_wait(promise) != GST_PROMISE_RESULT_REPLIED)
    throw Failure(std::string(what) + ": no reply");
  const GstStructure* r = gst_promise_get_reply(promise);
  if (r != nullptr && gst_structure_has_field(r, "error")) {
    GError* error = nullptr;
    gst_structure_get(r, "error", G_TYPE_ERROR, &error, nullptr);
    const std::string why = error != nullptr ? error->message : "unknown";
    if (error != nullptr) g_error_free(error);
    throw Failure(std::string(what) + ": " + why);
  }
  return r;
}

void setDescription(GstElement* webrtc, const char* signal, GstWebRTCSessionDescription* d) {
  GstPromise* promise = gst_promise_new();
  g_signal_emit_by_name(webrtc, signal, d, promise);
  try {
    reply(promise, signal);
  } catch (...) {
    gst_promise_unref(promise);
    throw;
  }
  gst_promise_unref(promise);
}

void build(Receiver& r) {
  for (const char* element : {"webrtcbin", "nicesrc", "fakesink"}) {
    GstElementFactory* factory = gst_element_factory_find(element);
    if (factory == nullptr)
      throw Failure(std::string("the GStreamer element ") + element + " is missing");
    gst_object_unref(factory);
  }
  r.pipeline = gst_pipeline_new("receiver");
  r.webrtc = gst_element_factory_make("webrtcbin", "webrtc");
  gst_bin_add(GST_BIN(r.pipeline), r.webrtc);
  gst_util_set_object_arg(G_OBJECT(r.webrtc), "bundle-policy", "max-bundle");
  // UPnP adds 200 ms to every gathering and sends multicast; nothing here needs it.
  GstObject* ice = nullptr;
  g_object_get(r.webrtc, "ice-agent", &ice, nullptr);
  if (ice != nullptr) {
    GObject* agent = nullptr;
    g_object_get(ice, "agent", &agent, nullptr);
    if (agent != nullptr) {
      g_object_set(agent, "upnp", FALSE, nullptr);
      g_object_unref(agent);
    }
    gst_object_unref(ice);
  }
  g_signal_connect(r.webrtc, "pad-added", G_CALLBACK(onPadAdded), &r);
  g_signal_connect(r.webrtc, "notify::ice-gathering-state", G_CALLBACK(onGathering), &r);
  g_signal_connect(r.webrtc, "notify::connection-state", G_CALLBACK(onConnection), &r);
  // Video first: the pads tell their track by their m-line.
  for (const char* caps :
       {"application/x-rtp,media=video,encoding-name=H264,payload=96,clock-rate=90000,"
        "packetization-mode=(string)1,profile-level-id=(string)42e01f",
        "application/x-rtp,media=audio,encoding-name=OPUS,payload=111,clock-rate=48000,"
        "encoding-params=(string)2"}) {
    GstCaps* c = gst_caps_from_string(caps);
    GstWebRTCRTPTransceiver* t = nullptr;
    g_signal_emit_by_name(r.webrtc, "add-transceiver",
                          GST_WEBRTC_RTP_TRANSCEIVER_DIRECTION_RECVONLY, c, &t);
    gst_caps_unref(c);
    if (t == nullptr) throw Failure("webrtcbin takes no receive-only transceiver");
    gst_object_unref(t);
  }
  if (gst_element_set_state(r.pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE)
    throw Failure("the receiving pipeline does not start");
}

// The complete offer (every candidate gathered by `deadline`), as text.
std::string offer(Receiver& r, Clock::time_point deadline) {
  GstPromise* promise = gst_promise_new();
  g_signal_emit_by_name(r.webrtc, "create-offer", nullptr, promise);
  GstWebRTCSessionDescription* offer = nullptr;
  try {
    if (const GstStructure* s = reply(promise, "create-offer"))
      gst_structure_get(s, "offer", GST_TYPE_WEBRTC_SESSION_DESCRIPTION, &offer, nullptr);
  } catch (...) {
    gst_promise_unref(promise);
    throw;
  }
  gst_promise_unref(promise);
  if (offer == nullptr) throw Failure("webrtcbin made no offer");
  setDescription(r.webrtc, "set-local-description", offer);
  gst_webrtc_session_description_free(offer);
  if (!r.awaitGathered(deadline)) throw Failure("ICE gathering did not finish in time");
  GstWebRTCSessionDescription* local = nullptr;
  g_object_get(r.webrtc, "local-description", &local, nullptr);
  if (local == nullptr) throw Failure("the offer went missing");
  gchar* text = gst_sdp_message_as_text(local->sdp);
  std::string out = text;
  g_free(text);
  gst_webrtc_session_description_free(local);
  return out;
}

void answer(Receiver& r, const std::string& sdpText) {
  GstSDPMessage* sdp = nullptr;
  gst_sdp_message_new(&sdp);
  if (gst_sdp_message_parse_buffer(reinterpret_cast<const guint8*>(sdpText.data()),
                                   guint(sdpText.size()), sdp) != GST_SDP_OK) {
    gst_sdp_message_free(sdp);
    throw Failure("the answer is not SDP");
  }
  GstWebRTCSessionDescription* d =
      gst_webrtc_session_description_new(GST_WEBRTC_SDP_TYPE_ANSWER, sdp);
  try {
    setDescription(r.webrtc, "set-remote-description", d);
  } catch (...) {
    gst_webrtc_session_description_free(d);
    throw;
  }
  gst_webrtc_session_description_free(d);
}

// Receiver reports every half second rather than every five: the sender takes a viewer that it
// has not heard from for a few seconds for gone.
void tuneRtcp(Receiver& r) {
  GstElement* rtpbin = gst_bin_get_by_name(GST_BIN(r.webrtc), "rtpbin");
  if (rtpbin == nullptr) throw Failure("webrtcbin has no rtpbin");
  GObject* session = nullptr;
  g_signal_emit_by_name(rtpbin, "get-internal-session", 0u, &session);
  gst_object_unref(rtpbin);
  if (session == nullptr) throw Failure("webrtcbin has no RTP session");
  g_object_set(session, "rtcp-min-interval", guint64(500 * GST_MSECOND), nullptr);
  g_object_unref(session);
}

double parseSeconds(const char* flag, const char* text, double most) {
  char* end = nullptr;
  const double v = std::strtod(text, &end);
  if (end == text || *end != '\0' || !(v >= 0) || v > most)
    throw std::invalid_argument(std::string(flag) + " needs seconds from 0 to " +
                                std::to_string(int(most)) + ", not \"" + text + "\"");
  return v;
}

Options parseArgs(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--on-demand") {
      o.onDemand = true;
    } else if (arg.rfind("--", 0) == 0) {
      if (i + 1 >= argc) throw std::invalid_argument(arg + " needs a value");
      const char* value = argv[++i];
      if (arg == "--seconds")
        o.seconds = parseSeconds("--seconds", value, 3600);
      else if (arg == "--settle")
        o.settle = parseSeconds("--settle", value, 3600);
      else if (arg == "--connect-timeout")
        o.connectTimeout = parseSeconds("--connect-timeout", value, 600);
      else
        throw std::invalid_argument("unknown option " + arg);
    } else if (o.url.empty()) {
      o.url = arg;
    } else {
      throw std::invalid_argument("more than one URL");
    }
  }
  if (o.url.empty()) throw std::invalid_argument("no WHEP URL");
  if (o.seconds <= 0) throw std::invalid_argument("--seconds must be above 0");
  return o;
}

std::chrono::nanoseconds toNs(double seconds) {
  return std::chrono::nanoseconds(std::int64_t(seconds * 1e9));
}

// --on-demand: counting starts at the connection; each line read on stdin is answered with one
// JSON line of what arrived so far, {"ms", "frames", "packets_video", "packets_audio",
// "max_gap_ms" (since the line before), "connected"}. Ends when stdin closes or after --seconds;
// 1 when the connection failed or closed by then.
int countOnDemand(Receiver& r, const Options& o, double connectedMs) {
  const std::int64_t from = nowNs();
  r.counts.until = std::numeric_limits<std::int64_t>::max();
  r.counts.lastFrame = from;
  r.counts.from = from;
  std::printf("{\"connected_ms\": %.1f}\n", connectedMs);
  std::fflush(stdout);
  const auto deadline = Clock::now() + toNs(o.seconds);
  bool open = true;
  while (Clock::now() < deadline) {
    pollfd in{0, POLLIN, 0};
    const auto wait =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (poll(&in, 1, int(std::clamp<std::int64_t>(wait, 0, 1000))) <= 0) continue;
    char line[256];
    if (std::fgets(line, sizeof line, stdin) == nullptr) break;
    {
      lumora2::MutexLock hold(r.lock);
      open = r.state != GST_WEBRTC_PEER_CONNECTION_STATE_FAILED &&
             r.state != GST_WEBRTC_PEER_CONNECTION_STATE_CLOSED;
    }
    std::printf(
        "{\"ms\": %.1f, \"frames\": %llu, \"packets_video\": %llu, \"packets_audio\": %llu, "
        "\"max_gap_ms\": %.1f, \"connected\": %s}\n",
        double(nowNs() - from) / 1e6, static_cast<unsigned long long>(r.counts.frames.load()),
        static_cast<unsigned long long>(r.counts.videoPackets.load()),
        static_cast<unsigned long long>(r.counts.audioPackets.load()),
        double(r.counts.maxGap.exchange(0)) / 1e6, open ? "true" : "false");
    std::fflush(stdout);
  }
  return open ? 0 : 1;
}

int run(const Options& o) {
  const Url url = parseUrl(o.url);
  const auto start = Clock::now();
  const auto connectBy = start + toNs(o.connectTimeout);
  const auto left = [&] {
    return std::max(
        std::chrono::milliseconds(100),
        std::chrono::duration_cast<std::chrono::milliseconds>(connectBy - Clock::now()));
  };
  Receiver r;
  build(r);
  const std::string offerText = offer(r, connectBy);
  const Response posted = request(url, http::verb::post, url.target, offerText, left());
  if (posted.status != 201)
    throw Failure("POST " + url.target + ": status " + std::to_string(posted.status) + " " +
                  posted.body);
  const std::string resource = posted.location.empty() ? url.target : posted.location;
  // Whatever happens from here, the WHEP resource is deleted, so that the session takes the next
  // viewer at once.
  const auto release = [&] {
    try {
      request(url, http::verb::delete_, resource, "", std::chrono::milliseconds(5000));
    } catch (const Failure& f) {
      std::fprintf(stderr, "lumora2-whep-receiver: warning: %s\n", f.what());
    }
  };
  try {
    answer(r, posted.body);
    tuneRtcp(r);
    const State state = r.awaitState(connectBy, {GST_WEBRTC_PEER_CONNECTION_STATE_CONNECTED,
                                                 GST_WEBRTC_PEER_CONNECTION_STATE_FAILED,
                                                 GST_WEBRTC_PEER_CONNECTION_STATE_CLOSED});
    if (state != GST_WEBRTC_PEER_CONNECTION_STATE_CONNECTED)
      throw Failure(state == GST_WEBRTC_PEER_CONNECTION_STATE_FAILED
                        ? "the connection failed"
                        : "not connected within " + std::to_string(o.connectTimeout) + " s");
  } catch (...) {
    release();
    throw;
  }
  const auto connected = Clock::now();
  if (o.onDemand) {
    const int status =
        countOnDemand(r, o, std::chrono::duration<double, std::milli>(connected - start).count());
    release();
    return status;
  }
  const auto from = connected + toNs(o.settle);
  const auto until = from + toNs(o.seconds);
  r.counts.until =
      std::chrono::duration_cast<std::chrono::nanoseconds>(until.time_since_epoch()).count();
  const std::int64_t fromNs =
      std::chrono::duration_cast<std::chrono::nanoseconds>(from.time_since_epoch()).count();
  r.counts.lastFrame = fromNs;  // a stream that starts late shows as a gap
  r.counts.from = fromNs;
  // A connection that fails while counting ends the count: what was counted stands.
  const State last = r.awaitState(
      until, {GST_WEBRTC_PEER_CONNECTION_STATE_FAILED, GST_WEBRTC_PEER_CONNECTION_STATE_CLOSED});
  const bool cut = last == GST_WEBRTC_PEER_CONNECTION_STATE_FAILED ||
                   last == GST_WEBRTC_PEER_CONNECTION_STATE_CLOSED;
  const auto ended = std::min(Clock::now(), until);
  release();
  const double counted = std::max(0.0, std::chrono::duration<double>(ended - from).count());
  const std::uint64_t frames = r.counts.frames;
  std::printf(
      "{\"packets_video\": %llu, \"packets_audio\": %llu, \"frames\": %llu, \"seconds\": %.3f, "
      "\"fps\": %.2f, \"connected_ms\": %.1f, \"max_gap_ms\": %.1f}\n",
      static_cast<unsigned long long>(r.counts.videoPackets.load()),
      static_cast<unsigned long long>(r.counts.audioPackets.load()),
      static_cast<unsigned long long>(frames), counted,
      counted > 0 ? double(frames) / counted : 0.0,
      std::chrono::duration<double, std::milli>(connected - start).count(),
      double(r.counts.maxGap.load()) / 1e6);
  std::fflush(stdout);
  if (cut) {
    std::fprintf(stderr, "lumora2-whep-receiver: error: the connection %s before the count ended\n",
                 last == GST_WEBRTC_PEER_CONNECTION_STATE_FAILED ? "failed" : "closed");
    return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  try {
    options = parseArgs(argc, argv);
  } catch (const std::invalid_argument& e) {
    std::fprintf(stderr,
                 "lumora2-whep-receiver: %s\nusage: lumora2-whep-receiver URL [--seconds S] "
                 "[--settle S] [--connect-timeout S] [--on-demand]\n",
                 e.what());
    return 2;
  }
  gst_init(nullptr, nullptr);
  try {
    return run(options);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "lumora2-whep-receiver: error: %s\n", e.what());
    return 1;
  }
}
