// The order of the three bytes of an engine frame's pixels. The engine's own order is B, G, R
// (its idle pictures are stored so); a consumer that wants R, G, B (the render-stream wire) asks
// for it, and the frame is written so in the first place rather than swapped afterwards.
#pragma once

namespace lumora2 {

enum class PixelOrder { bgr, rgb };

}  // namespace lumora2
