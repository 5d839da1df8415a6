// IdleSource: the avatar's idle clip ("idle.mp4"), read out of the avatar file itself (either
// container form) and played frame by frame, looping at its end, as R, G, B pictures. One cursor
// serves the whole video, so the idle motion only ever moves forward.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <vector>

#include "container/platform.h"

namespace lumora2 {
class IdleClipStream;
}

namespace lumora2::render {

class IdleSource {
 public:
  // Throws ClientError when the avatar holds no usable idle clip of width x height.
  IdleSource(const std::filesystem::path& avatar, int width, int height);
  ~IdleSource();
  IdleSource(const IdleSource&) = delete;
  IdleSource& operator=(const IdleSource&) = delete;

  // The next frame of the clip, width x height x 3 bytes, R, G, B; the previous one again when
  // the clip cannot deliver (its first frame before any).
  const std::vector<std::uint8_t>& next();

 private:
  ScratchDir scratch_;  // holds the extracted clip while it plays
  std::unique_ptr<IdleClipStream> clip_;
  std::vector<std::uint8_t> frame_;
};

}  // namespace lumora2::render
