// The ICE agent webrtcbin holds for a viewer: set up before gathering, its TURN allocations
// released before it goes.
#include "media/ice_agent.h"

#include <gio/gio.h>
#include <nice/agent.h>

namespace lumora2::serve {

// The ICE agent's servers and ports. UPnP stays off: it costs 200 ms of every gathering, sends
// multicast, and opens sockets outside the port range.
// Without ICE-TCP (`iceTcp` false) the viewer is offered UDP candidates alone.
void configureIce(GstElement* webrtc, const WebRtcSender::Options& o, bool iceTcp) {
  GstObject* ice = nullptr;
  g_object_get(webrtc, "ice-agent", &ice, nullptr);
  if (ice == nullptr) throw MediaError("webrtcbin has no ICE agent");
  if (o.minPort != 0) {
    g_object_set(ice, "min-rtp-port", guint(o.minPort), "max-rtp-port", guint(o.maxPort), nullptr);
  }
  if (!iceTcp) g_object_set(ice, "ice-tcp", FALSE, nullptr);
  GObject* agent = nullptr;
  g_object_get(ice, "agent", &agent, nullptr);
  if (agent != nullptr) {
    g_object_set(agent, "upnp", FALSE, nullptr);
    g_object_unref(agent);
  }
  gst_object_unref(ice);
  if (!o.stunServer.empty()) g_object_set(webrtc, "stun-server", o.stunServer.c_str(), nullptr);
  for (const std::string& turn : o.turnServers) {
    gboolean taken = FALSE;
    g_signal_emit_by_name(webrtc, "add-turn-server", turn.c_str(), &taken);
    if (!taken) throw MediaError("the ICE agent does not take a TURN server");
  }
}

// The ICE agent's TURN allocations released (a Refresh with lifetime 0 each, answered) before the
// agent goes, waited for at most a second. The agent itself does not: its allocations would
// outlive it on the TURN server for their whole lifetime (ten minutes), and the next viewer
// whose socket gets the same port (in a port range, soon) would be refused one from it (437,
// allocation mismatch), gathering two seconds longer and without a relay candidate.
void releaseTurn(GstElement* webrtc) {
  GstObject* ice = nullptr;
  g_object_get(webrtc, "ice-agent", &ice, nullptr);
  if (ice == nullptr) return;
  GObject* agent = nullptr;
  g_object_get(ice, "agent", &agent, nullptr);
  gst_object_unref(ice);
  if (agent == nullptr) return;
  // The agent answers on this thread's default context: a private one, run here.
  GMainContext* context = g_main_context_new();
  g_main_context_push_thread_default(context);
  bool over = false;
  const auto done = [](gpointer flag) {
    *static_cast<bool*>(flag) = true;
    return gboolean(G_SOURCE_REMOVE);
  };
  nice_agent_close_async(
      NICE_AGENT(agent),
      [](GObject*, GAsyncResult*, gpointer flag) { *static_cast<bool*>(flag) = true; }, &over);
  GSource* limit = g_timeout_source_new(1000);
  g_source_set_callback(limit, done, &over, nullptr);
  g_source_attach(limit, context);
  while (!over) g_main_context_iteration(context, TRUE);
  // Whichever did not fire never will: the context is not run again.
  g_source_destroy(limit);
  g_source_unref(limit);
  g_main_context_pop_thread_default(context);
  g_main_context_unref(context);
  g_object_unref(agent);
}

}  // namespace lumora2::serve
