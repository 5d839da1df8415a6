#include "family/portrait.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace lumora2::family {
namespace {

float clamp01(float v) { return std::clamp(v, 0.0f, 1.0f); }

// Coverage from an approximate signed distance in pixels (negative inside).
float coverageFromDistance(float sd) { return clamp01(0.5f - sd); }

float ellipseDistance(float px, float py, float cx, float cy, float rx, float ry) {
  const float dx = px - cx, dy = py - cy;
  const float k = std::sqrt((dx * dx) / (rx * rx) + (dy * dy) / (ry * ry));
  const float gx = dx / (rx * rx), gy = dy / (ry * ry);
  const float grad = std::sqrt(gx * gx + gy * gy);
  if (grad < 1e-9f) return -std::min(rx, ry);
  // First-order distance to the ellipse's boundary: (k - 1) / |grad k|, with |grad k| = grad / k.
  return (k - 1.0f) * k / grad;
}

float segmentDistance(float px, float py, float ax, float ay, float bx, float by) {
  const float vx = bx - ax, vy = by - ay;
  const float t = std::clamp(((px - ax) * vx + (py - ay) * vy) / (vx * vx + vy * vy), 0.0f, 1.0f);
  const float dx = px - (ax + t * vx), dy = py - (ay + t * vy);
  return std::sqrt(dx * dx + dy * dy);
}

// Paints one shape over a picture: coverage(px, py) gives the shape's coverage of the pixel whose
// centre is (px, py); only the bounding box is visited.
class Canvas {
 public:
  explicit Canvas(Picture& picture) : picture_(picture) {}

  template <class Coverage>
  void paint(Rect box, Rgb colour, float alpha, Coverage coverage) {
    box.x0 = std::max(box.x0, 0);
    box.y0 = std::max(box.y0, 0);
    box.x1 = std::min(box.x1, kPictureWidth);
    box.y1 = std::min(box.y1, kPictureHeight);
    const float rgb[3] = {colour.r, colour.g, colour.b};
    for (int y = box.y0; y < box.y1; ++y) {
      for (int x = box.x0; x < box.x1; ++x) {
        const float a =
            alpha * coverage(static_cast<float>(x) + 0.5f, static_cast<float>(y) + 0.5f);
        if (a <= 0.0f) continue;
        for (int c = 0; c < 3; ++c) {
          float& p = picture_.at(c, y, x);
          p += a * (rgb[c] - p);
        }
      }
    }
  }

  void ellipse(float cx, float cy, float rx, float ry, Rgb colour, float alpha = 1.0f) {
    paint(boxAround(cx, cy, rx, ry), colour, alpha, [=](float px, float py) {
      return coverageFromDistance(ellipseDistance(px, py, cx, cy, rx, ry));
    });
  }

  // An elliptical outline of the given stroke width.
  void ring(float cx, float cy, float rx, float ry, float width, Rgb colour) {
    paint(boxAround(cx, cy, rx + width, ry + width), colour, 1.0f, [=](float px, float py) {
      return coverageFromDistance(std::abs(ellipseDistance(px, py, cx, cy, rx, ry)) - width / 2);
    });
  }

  // A line segment with round caps.
  void stroke(float ax, float ay, float bx, float by, float width, Rgb colour) {
    const Rect box{static_cast<int>(std::min(ax, bx) - width) - 1,
                   static_cast<int>(std::min(ay, by) - width) - 1,
                   static_cast<int>(std::max(ax, bx) + width) + 2,
                   static_cast<int>(std::max(ay, by) + width) + 2};
    paint(box, colour, 1.0f, [=](float px, float py) {
      return coverageFromDistance(segmentDistance(px, py, ax, ay, bx, by) - width / 2);
    });
  }

  void rect(float x0, float y0, float x1, float y1, Rgb colour) {
    const Rect box{static_cast<int>(x0) - 1, static_cast<int>(y0) - 1, static_cast<int>(x1) + 2,
                   static_cast<int>(y1) + 2};
    paint(box, colour, 1.0f, [=](float px, float py) {
      return clamp01(std::min(px - x0, x1 - px) + 0.5f) *
             clamp01(std::min(py - y0, y1 - py) + 0.5f);
    });
  }

  static Rect boxAround(float cx, float cy, float rx, float ry) {
    return {static_cast<int>(cx - rx) - 2, static_cast<int>(cy - ry) - 2,
            static_cast<int>(cx + rx) + 3, static_cast<int>(cy + ry) + 3};
  }

 private:
  Picture& picture_;
};

void drawWallpaper(Picture& pic, const Identity& id) {
  for (int y = 0; y < kPictureHeight; ++y) {
    const float t = static_cast<float>(y) / (kPictureHeight - 1);
    const float base[3] = {id.wallTop.r + t * (id.wallBottom.r - id.wallTop.r),
                           id.wallTop.g + t * (id.wallBottom.g - id.wallTop.g),
                           id.wallTop.b + t * (id.wallBottom.b - id.wallTop.b)};
    const float line[3] = {id.wallLine.r, id.wallLine.g, id.wallLine.b};
    for (int x = 0; x < kPictureWidth; ++x) {
      float a = 0.0f;
      if (id.wallpaper == Wallpaper::kPinstripes) {
        a = (x % 18 < 2) ? 0.55f : 0.0f;  // two-pixel stripes every 18 pixels
      } else {
        a = (x % 26 == 0 || y % 26 == 0) ? 0.6f : 0.0f;  // one-pixel tile grout
        if ((x / 26 + y / 26) % 2 == 0) a = std::max(a, 0.12f);
      }
      for (int c = 0; c < 3; ++c) pic.at(c, y, x) = base[c] + a * (line[c] - base[c]);
    }
  }
}

void drawBody(Canvas& canvas, const Identity& id) {
  const float cx = id.faceCx;
  const float neckTop = id.faceCy + 0.55f * id.faceRy;
  canvas.rect(cx - 0.40f * id.faceRx, neckTop, cx + 0.40f * id.faceRx, 640.0f, id.skinShade);
  canvas.ellipse(cx, 790.0f, 236.0f, 212.0f, id.shirt);
  // Collar: two lapels meeting below the neck.
  canvas.stroke(cx - 0.42f * id.faceRx, 600.0f, cx, 668.0f, 14.0f, id.collar);
  canvas.stroke(cx + 0.42f * id.faceRx, 600.0f, cx, 668.0f, 14.0f, id.collar);
}

void drawHairBehind(Canvas& canvas, const Identity& id) {
  if (id.hairStyle != HairStyle::kLongWithFringe) return;
  const float cx = id.faceCx, cy = id.faceCy;
  canvas.ellipse(cx, cy - 12.0f, id.faceRx + 34.0f, id.faceRy + 30.0f, id.hair);
  canvas.rect(cx - id.faceRx - 34.0f, cy, cx + id.faceRx + 34.0f, cy + 250.0f, id.hair);
}

void drawHead(Canvas& canvas, const Identity& id) {
  const float cx = id.faceCx, cy = id.faceCy;
  canvas.ellipse(cx - id.faceRx + 2.0f, id.eyeY + 26.0f, 15.0f, 28.0f, id.skinShade);
  canvas.ellipse(cx + id.faceRx - 2.0f, id.eyeY + 26.0f, 15.0f, 28.0f, id.skinShade);
  canvas.ellipse(cx, cy, id.faceRx, id.faceRy, id.skin);
}

void drawHairFront(Canvas& canvas, const Identity& id) {
  const float cx = id.faceCx, cy = id.faceCy, rx = id.faceRx, ry = id.faceRy;
  if (id.hairStyle == HairStyle::kLongWithFringe) {
    // A scalloped fringe: the hair cap ends in arcs 22 pixels wide.
    const Rect box = Canvas::boxAround(cx, cy - 10.0f, rx + 12.0f, ry + 16.0f);
    canvas.paint(box, id.hair, 1.0f, [=](float px, float py) {
      const float cap =
          coverageFromDistance(ellipseDistance(px, py, cx, cy - 10.0f, rx + 12.0f, ry + 16.0f));
      const float edge = cy - 0.52f * ry + 14.0f * std::abs(std::sin((px - cx) / 22.0f));
      return cap * clamp01(edge - py + 0.5f);
    });
  } else {
    const Rect box = Canvas::boxAround(cx, cy - 14.0f, rx + 10.0f, ry + 10.0f);
    canvas.paint(box, id.hair, 1.0f, [=](float px, float py) {
      const float cap =
          coverageFromDistance(ellipseDistance(px, py, cx, cy - 14.0f, rx + 10.0f, ry + 10.0f));
      const float dx = std::abs(px - cx) / rx;
      const float edge = cy - 0.62f * ry + 40.0f * dx * dx * dx;  // sideburns reach down
      return cap * clamp01(edge - py + 0.5f);
    });
  }
}

void drawFeatures(Canvas& canvas, const Identity& id) {
  const float cx = id.faceCx;
  for (const float side : {-1.0f, 1.0f}) {
    const float ex = cx + side * id.eyeDx;
    // The eye's outline; the decoder draws the eye itself inside it.
    canvas.ring(ex, id.eyeY, id.eyeRx + 0.8f, id.eyeRy + 0.8f, 1.6f, id.brow);
    // Brows rise towards the nose: a friendly, attentive face.
    canvas.stroke(ex - side * 22.0f, id.eyeY - 31.0f, ex + side * 20.0f, id.eyeY - 25.0f, 7.0f,
                  id.brow);
    if (id.glasses) {
      canvas.ring(ex, id.eyeY + 2.0f, id.eyeRx + 14.0f, id.eyeRy + 15.0f, 4.0f, id.collar);
    }
  }
  if (id.glasses) {
    canvas.stroke(cx - id.eyeDx + id.eyeRx + 12.0f, id.eyeY - 2.0f,
                  cx + id.eyeDx - id.eyeRx - 12.0f, id.eyeY - 2.0f, 4.0f, id.collar);
  }
  // Nose: a shaded ridge and two nostrils.
  const float noseTip = id.mouthY - 38.0f;
  canvas.stroke(cx + 2.0f, id.eyeY + 18.0f, cx - 6.0f, noseTip, 4.0f, id.skinShade);
  canvas.ellipse(cx - 9.0f, noseTip + 4.0f, 5.0f, 3.0f, id.skinShade);
  canvas.ellipse(cx + 9.0f, noseTip + 4.0f, 5.0f, 3.0f, id.skinShade);
  if (id.moustache) {
    for (const float side : {-1.0f, 1.0f}) {
      canvas.ellipse(cx + side * 18.0f, id.mouthY - id.lipPx - 10.0f, 24.0f, 7.0f, id.brow);
    }
  } else {
    for (const float side : {-1.0f, 1.0f}) {
      canvas.ellipse(cx + side * 64.0f, id.mouthY - 34.0f, 22.0f, 12.0f, id.lips, 0.3f);
    }
  }
}

}  // namespace

float ellipseCoverage(float px, float py, float cx, float cy, float rx, float ry) {
  return coverageFromDistance(ellipseDistance(px, py, cx, cy, rx, ry));
}

FaceRegions faceRegions(const Identity& id) {
  FaceRegions r;
  const float cx = id.faceCx;
  r.mouth.x0 = static_cast<int>(std::floor(cx - id.mouthHalfWidth)) - 4;
  r.mouth.x1 = static_cast<int>(std::ceil(cx + id.mouthHalfWidth)) + 4;
  r.mouth.y0 = static_cast<int>(std::floor(id.mouthY - 0.25f * id.mouthOpenPx - id.lipPx)) - 4;
  r.mouth.y1 = static_cast<int>(std::ceil(id.mouthY + 0.85f * id.mouthOpenPx + id.lipPx)) + 4;
  r.eyes.x0 = static_cast<int>(std::floor(cx - id.eyeDx - id.eyeRx)) - 4;
  r.eyes.x1 = static_cast<int>(std::ceil(cx + id.eyeDx + id.eyeRx)) + 4;
  r.eyes.y0 = static_cast<int>(std::floor(id.eyeY - id.eyeRy)) - 4;
  r.eyes.y1 = static_cast<int>(std::ceil(id.eyeY + id.eyeRy)) + 4;
  return r;
}

Picture drawPortrait(const Identity& id) {
  Picture pic;
  drawWallpaper(pic, id);
  Canvas canvas(pic);
  drawHairBehind(canvas, id);
  drawBody(canvas, id);
  drawHead(canvas, id);
  drawHairFront(canvas, id);
  drawFeatures(canvas, id);
  return pic;
}

std::vector<std::uint8_t> toRgb24(const Picture& picture, float sharpenAmount) {
  std::array<float, 5> g{};
  float sum = 0.0f;
  for (int i = -2; i <= 2; ++i) sum += g[i + 2] = std::exp(-static_cast<float>(i * i) / 2.88f);
  for (float& v : g) v /= sum;

  std::vector<std::uint8_t> out(static_cast<size_t>(kPicturePlane) * 3);
  std::vector<float> rows(kPicturePlane), blur(kPicturePlane);
  auto at = [](int v, int n) { return std::clamp(v, 0, n - 1); };
  for (int c = 0; c < 3; ++c) {
    const float* plane = picture.planes.data() + static_cast<size_t>(c) * kPicturePlane;
    if (sharpenAmount > 0.0f) {
      // The 5 x 5 kernel is the outer product of g with itself: blur rows, then columns.
      for (int y = 0; y < kPictureHeight; ++y) {
        for (int x = 0; x < kPictureWidth; ++x) {
          float acc = 0.0f;
          for (int k = -2; k <= 2; ++k)
            acc += g[k + 2] * plane[y * kPictureWidth + at(x + k, kPictureWidth)];
          rows[y * kPictureWidth + x] = acc;
        }
      }
      for (int y = 0; y < kPictureHeight; ++y) {
        for (int x = 0; x < kPictureWidth; ++x) {
          float acc = 0.0f;
          for (int k = -2; k <= 2; ++k)
            acc += g[k + 2] * rows[at(y + k, kPictureHeight) * kPictureWidth + x];
          blur[y * kPictureWidth + x] = acc;
        }
      }
    }
    for (int i = 0; i < kPicturePlane; ++i) {
      float v = plane[i];
      if (sharpenAmount > 0.0f) v = v * (1.0f + sharpenAmount) - blur[i] * sharpenAmount;
      out[static_cast<size_t>(i) * 3 + c] = static_cast<std::uint8_t>(clamp01(v) * 255.0f + 0.5f);
    }
  }
  return out;
}

}  // namespace lumora2::family
