// The still portrait of an identity, drawn once at generation time and baked into its decoder
// graph: background, shoulders, hair, face, brows, nose, glasses. Eyes and mouth are left as bare
// skin, because the decoder draws them on every frame from the latent (blink, gaze, opening).
// Shapes have one-pixel anti-aliased edges so the pictures stay crisp.
#pragma once

#include <cstdint>
#include <vector>

#include "family/identity.h"

namespace lumora2::family {

inline constexpr int kPictureWidth = 416;
inline constexpr int kPictureHeight = 720;
inline constexpr int kPicturePlane = kPictureWidth * kPictureHeight;

// Three planes R, G, B of 720 rows x 416 columns, values in [0, 1].
struct Picture {
  std::vector<float> planes = std::vector<float>(3 * kPicturePlane, 0.0f);
  float& at(int c, int y, int x) { return planes[(c * kPictureHeight + y) * kPictureWidth + x]; }
  float at(int c, int y, int x) const {
    return planes[(c * kPictureHeight + y) * kPictureWidth + x];
  }
};

// A half-open pixel rectangle [x0, x1) x [y0, y1).
struct Rect {
  int x0 = 0, y0 = 0, x1 = 0, y1 = 0;
  int width() const { return x1 - x0; }
  int height() const { return y1 - y0; }
};

// Where the decoder redraws the face on every frame: the mouth box holds the lips at any opening,
// the eye box both eyes with their lids.
struct FaceRegions {
  Rect mouth;
  Rect eyes;
};

FaceRegions faceRegions(const Identity& id);

// Coverage in [0, 1] of the pixel centred at (px, py) by an ellipse, with a one-pixel soft edge.
float ellipseCoverage(float px, float py, float cx, float cy, float rx, float ry);

// The identity at rest without eyes and mouth.
Picture drawPortrait(const Identity& id);

// Interleaved 8-bit RGB (416 x 720 x 3) of a picture, clipped to [0, 1] and rounded. With a
// positive amount the picture is first sharpened as the engine sharpens decoded frames: an unsharp
// mask with a 5 x 5 Gaussian (sigma 1.2) and edge pixels extended.
std::vector<std::uint8_t> toRgb24(const Picture& picture, float sharpenAmount = 0.0f);

}  // namespace lumora2::family
