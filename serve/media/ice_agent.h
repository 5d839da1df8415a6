// The ICE agent of one viewer's webrtcbin (webrtc_sender.cpp): its servers, ports and
// transports, and the release of its TURN allocations.
#pragma once

#include <gst/gst.h>

#include "media/webrtc_sender.h"

namespace lumora2::serve {

// Sets the agent of `webrtc` up from `options` before gathering; with `iceTcp` false it gathers
// UDP candidates alone. Throws MediaError where the agent is missing or refuses a TURN server.
void configureIce(GstElement* webrtc, const WebRtcSender::Options& options, bool iceTcp);

// Releases the TURN allocations of the agent of `webrtc` (waits at most a second): called before
// the pipeline stops.
void releaseTurn(GstElement* webrtc);

}  // namespace lumora2::serve
