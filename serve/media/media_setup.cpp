// What every sender needs once per process (GStreamer, checked for the elements it uses) and
// the diagnostics' planted sound delay, read from its text.
#include <gst/gst.h>

#include <mutex>
#include <string>

#include "media/webrtc_sender.h"

namespace lumora2::serve {

void initMedia() {
  static std::once_flag once;
  std::call_once(once, [] { gst_init(nullptr, nullptr); });
  struct Needed {
    const char* element;
    const char* package;
  };
  for (const Needed& n :
       {Needed{"webrtcbin", "gstreamer1.0-plugins-bad"}, Needed{"nicesrc", "gstreamer1.0-nice"},
        Needed{"x264enc", "gstreamer1.0-plugins-ugly"},
        Needed{"rtph264pay", "gstreamer1.0-plugins-good"},
        Needed{"opusenc", "gstreamer1.0-plugins-base"},
        Needed{"rtpopuspay", "gstreamer1.0-plugins-good"}, Needed{"clocksync", "libgstreamer1.0-0"},
        Needed{"appsrc", "gstreamer1.0-plugins-base"},
        Needed{"audioresample", "gstreamer1.0-plugins-base"}}) {
    GstElementFactory* factory = gst_element_factory_find(n.element);
    if (factory == nullptr) {
      throw MediaError(std::string("the GStreamer element ") + n.element + " is missing: install " +
                       n.package);
    }
    gst_object_unref(factory);
  }
}

SoundDelay parseSoundDelay(const std::string& text) {
  const auto at = text.find('@');
  const std::string delay = text.substr(0, at);
  const std::string from = at == std::string::npos ? "0" : text.substr(at + 1);
  const auto number = [](const std::string& digits, int most) {
    return !digits.empty() && digits.size() <= 4 &&
           digits.find_first_not_of("0123456789") == std::string::npos && std::stoi(digits) <= most;
  };
  if (!number(delay, 1000) || !number(from, 3600)) {
    throw MediaError("LUMORA2_SERVE_SOUND_DELAY_MS is \"" + text +
                     "\": MS or MS@SECONDS is needed, MS from 0 to 1000, SECONDS from 0 to 3600");
  }
  return SoundDelay{std::chrono::milliseconds(std::stoi(delay)),
                    std::chrono::seconds(std::stoi(from))};
}

}  // namespace lumora2::serve
