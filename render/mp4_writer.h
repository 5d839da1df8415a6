// Mp4Writer: an H.264 (yuv420p) video stream and an AAC audio stream muxed into one MP4 whose
// index sits at the front (faststart), so that it plays anywhere and starts before it is fully
// downloaded. Written with libavformat and libavcodec.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <vector>

#include "client/picture.h"

namespace lumora2::render {

class Mp4Writer {
 public:
  // Opens `path` for a video of width x height at `fps` beside the mono `audio` at `sampleRate`
  // (kept by reference until finish()). Throws ClientError when an encoder or the file cannot be
  // opened.
  Mp4Writer(const std::filesystem::path& path, int width, int height, int fps,
            const std::vector<float>& audio, int sampleRate);
  ~Mp4Writer();  // an unfinished file is left as it is; the caller removes it
  Mp4Writer(const Mp4Writer&) = delete;
  Mp4Writer& operator=(const Mp4Writer&) = delete;

  // Appends one frame (width x height, BT.601 limited range, as the file declares) and the audio
  // that plays during it.
  void addFrame(const Picture& picture);
  // Encodes the rest of the audio, drains both encoders and writes the index.
  void finish();

  std::int64_t frames() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace lumora2::render
