// Pictures as the video encoder gets them: 8-bit Y, U, V planes in 4:2:0 layout, BT.601 limited
// range, one contiguous buffer (Y rows, then U rows, then V rows, no padding). Every picture the
// client shows is converted into this form once, and blending and seam measurements work on it,
// so that what is measured is what the viewer's decoder reconstructs (before compression).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace lumora2::render {

struct Picture {
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> bytes;  // width * height * 3 / 2

  Picture() = default;
  Picture(int w, int h) : width(w), height(h), bytes(pictureBytes(w, h)) {}
  static std::size_t pictureBytes(int w, int h) { return std::size_t(w) * std::size_t(h) * 3 / 2; }
  std::size_t lumaBytes() const { return std::size_t(width) * std::size_t(height); }
  const std::uint8_t* y() const { return bytes.data(); }
  const std::uint8_t* u() const { return bytes.data() + lumaBytes(); }
  const std::uint8_t* v() const { return bytes.data() + lumaBytes() * 5 / 4; }
};

// Converts packed 8-bit pictures (R, G, B or B, G, R, A) of one even size into Pictures, with
// exact rounding: every luma byte is the nearest level to its pixel's colour, every chroma byte the
// nearest to the mean colour of its 2 x 2 block (truncating instead would darken every picture by
// about one luma level). Throws ClientError for an odd or empty size.
class PictureConverter {
 public:
  enum class Layout { rgb24, bgra };
  PictureConverter(int width, int height, Layout layout);

  // `stride` bytes per source row; 0 means tightly packed.
  void convert(const std::uint8_t* packed, Picture& out, std::size_t stride = 0);

 private:
  int width_, height_;
  Layout layout_;
};

// How far apart two pictures of one size look, per byte: the larger of the mean absolute
// difference over all Y, U and V samples and the difference of the mean luma (a whole-picture
// brightness change of one level is a step of 1.0 even where it hides in the other measure).
double pictureStep(const Picture& a, const Picture& b);

// (1 - alpha) * a + alpha * b, byte by byte. Each byte rounds at its own fixed threshold (a hash
// of its index), so that across a dissolve the bytes that differ by a level or two change at
// evenly spread moments instead of all at once at alpha = 1/2.
void mixPictures(const Picture& a, const Picture& b, double alpha, Picture& out);

// The mean absolute luma difference of each `tile` x `tile` block (row-major, width / tile
// across; a partial block at the right or bottom edge is left out).
std::vector<double> tileSteps(const Picture& a, const Picture& b, int tile);
// The same with a weight per `tile` x `tile` block of luma (row-major, width / tile across),
// spread smoothly between block centres so that no block edge shows.
void mixPicturesByTile(const Picture& a, const Picture& b, const std::vector<double>& alpha,
                       int tile, Picture& out);

// A small luma-only copy of a picture (means of 4 x 4 blocks) for finding similar pictures, and
// the mean absolute difference between two of them.
std::vector<std::uint8_t> thumbnail(const Picture& picture);
double thumbnailDistance(const std::vector<std::uint8_t>& a, const std::vector<std::uint8_t>& b);

}  // namespace lumora2::render
