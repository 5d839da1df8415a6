// The exit dissolve of an interrupted utterance, on pictures drawn here: a face whose idle clip
// blinks (the eyes move in the clip) and holds its mouth closed. Cut with the mouth open and the
// gaze away from the clip's, the mouth closes within five frames, in even steps,
// while the eyes keep a longer dissolve so that two gazes never show at once.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "client/composer.h"
#include "client/idle_source.h"
#include "client/picture.h"

namespace lumora2::render {
namespace {

constexpr int kSize = 128;

struct Rect {
  int x0, y0, x1, y1;
};
constexpr Rect kEyes{32, 32, 96, 48};
constexpr Rect kMouth{32, 80, 96, 112};

void fill(Picture& p, const Rect& r, std::uint8_t level) {
  for (int y = r.y0; y < r.y1; ++y) {
    for (int x = r.x0; x < r.x1; ++x) p.bytes[std::size_t(y) * kSize + std::size_t(x)] = level;
  }
}

Picture face(int eyes, int mouth) {
  Picture p(kSize, kSize);
  std::fill(p.bytes.begin(), p.bytes.end(), std::uint8_t(128));
  fill(p, kEyes, std::uint8_t(eyes));
  fill(p, kMouth, std::uint8_t(mouth));
  return p;
}

double meanLuma(const Picture& p, const Rect& r) {
  double sum = 0;
  for (int y = r.y0; y < r.y1; ++y) {
    for (int x = r.x0; x < r.x1; ++x) sum += p.bytes[std::size_t(y) * kSize + std::size_t(x)];
  }
  return sum / double((r.x1 - r.x0) * (r.y1 - r.y0));
}

struct CutCase {
  std::string name;
  int mouthOpen;  // how far the mouth's level is from the closed mouth's when cut
  int gazeAway;   // how far the eyes' level is from the clip's open eyes when cut
  friend void PrintTo(const CutCase& c, std::ostream* os) { *os << c.name; }
};

class CutExit : public testing::TestWithParam<CutCase> {};

TEST_P(CutExit, MouthClosesSoonerThanTheEyesTurn) {
  const CutCase& c = GetParam();
  constexpr int kOpenEyes = 200, kClosedMouth = 100;
  std::vector<Picture> clip;
  for (int i = 0; i < 20; ++i)
    clip.push_back(face(i == 10 || i == 11 ? 60 : kOpenEyes, kClosedMouth));
  IdleSource idle(IdleSource::fromFrames(std::move(clip)));

  std::vector<Picture> out;
  Composer composer([&](const Picture& p, Composer::Kind) { out.push_back(p); }, idle);
  composer.setEntryHold(1);
  composer.idleUntil(4);
  composer.beginUtterance();
  // The utterance starts as the clip looks, then the mouth opens and the gaze drifts, each a
  // little every frame (the rendered steps the dissolve is held to).
  constexpr int kFrames = 12;
  for (int i = 0; i <= kFrames; ++i) {
    composer.rendered(
        face(kOpenEyes - c.gazeAway * i / kFrames, kClosedMouth - c.mouthOpen * i / kFrames));
  }
  composer.cutUtterance();
  const std::size_t cut = composer.position();
  composer.idleUntil(cut + 12);
  composer.finish();
  ASSERT_GE(out.size(), cut + 12);

  // A quarter of a second for the mouth: with the first frame of the dissolve on the viewer's
  // screen about 100 ms after the interrupt, the mouth is at rest within 400 ms. The eyes take
  // 350 ms, which the seam tests on rendered frames need.
  constexpr std::size_t mouthFrames = 5, eyeFrames = 7;
  for (std::size_t k = 0; k < eyeFrames; ++k) {
    const Picture& before = out[cut + k - 1];
    const Picture& now = out[cut + k];
    // Even steps: no frame takes more than its share of the way, and a rounding level.
    EXPECT_LE(std::abs(meanLuma(now, kMouth) - meanLuma(before, kMouth)),
              double(c.mouthOpen) / double(mouthFrames) + 1)
        << "mouth, frame " << k + 1 << " of the dissolve";
    EXPECT_LE(std::abs(meanLuma(now, kEyes) - meanLuma(before, kEyes)),
              double(c.gazeAway) / double(eyeFrames) + 1)
        << "eyes, frame " << k + 1 << " of the dissolve";
  }
  EXPECT_NEAR(meanLuma(out[cut + mouthFrames - 1], kMouth), kClosedMouth, 0.5)
      << "the mouth is at rest on frame " << mouthFrames << " of the dissolve";
  // The eyes still have the rest of their way to go when the mouth has arrived...
  EXPECT_GE(kOpenEyes - meanLuma(out[cut + mouthFrames - 1], kEyes),
            double(c.gazeAway) * double(eyeFrames - mouthFrames) / double(eyeFrames) - 1);
  // ... and are the clip's own on the last frame of the dissolve.
  EXPECT_NEAR(meanLuma(out[cut + eyeFrames - 1], kEyes), kOpenEyes, 0.5);
}

INSTANTIATE_TEST_SUITE_P(Cuts, CutExit,
                         testing::Values(CutCase{"WideOpenGazeAway", 80, 24},
                                         CutCase{"HalfOpenGazeAway", 40, 24},
                                         CutCase{"WideOpenGazeFarAway", 80, 48}),
                         [](const auto& param) { return param.param.name; });

}  // namespace
}  // namespace lumora2::render
