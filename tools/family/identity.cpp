#include "family/identity.h"

#include <array>
#include <stdexcept>

namespace lumora2::family {
namespace {

constexpr Rgb rgb8(int r, int g, int b) {
  return {static_cast<float>(r) / 255.0f, static_cast<float>(g) / 255.0f,
          static_cast<float>(b) / 255.0f};
}

Identity makeAva() {
  Identity id;
  id.code = "ava";
  id.name = "Ava";
  // Built, then moved in: assigning the one-letter literal trips GCC 12's false -Wrestrict
  // warning (its bug 105651) inside std::string.
  id.gender = std::string("f");
  id.persona = "warm, attentive guide";
  id.seed = 0xA7A0001;
  id.wallpaper = Wallpaper::kPinstripes;
  id.wallTop = rgb8(236, 206, 160);
  id.wallBottom = rgb8(204, 150, 104);
  id.wallLine = rgb8(170, 112, 76);
  id.skin = rgb8(241, 196, 166);
  id.skinShade = rgb8(214, 160, 132);
  id.hair = rgb8(74, 38, 22);
  id.shirt = rgb8(46, 122, 106);
  id.collar = rgb8(232, 232, 220);
  id.brow = rgb8(60, 30, 18);
  id.iris = rgb8(62, 132, 70);
  id.lips = rgb8(196, 62, 74);
  id.mouthInside = rgb8(70, 16, 24);
  id.teeth = rgb8(246, 242, 232);
  id.hairStyle = HairStyle::kLongWithFringe;
  id.faceCx = 208;
  id.faceCy = 300;
  id.faceRx = 112;
  id.faceRy = 148;
  id.eyeY = 272;
  id.eyeDx = 46;
  id.eyeRx = 24;
  id.eyeRy = 13;
  id.irisR = 10;
  id.mouthY = 382;
  id.mouthHalfWidth = 36;
  id.lipPx = 7;
  id.mouthOpenPx = 34;
  id.swayPhase = 0.0f;
  id.blinkClock = 0.5f;
  return id;
}

Identity makeBram() {
  Identity id;
  id.code = "bram";
  id.name = "Bram";
  id.gender = std::string("m");  // as in makeAva
  id.persona = "calm, precise explainer";
  id.seed = 0xB2A0002;
  id.wallpaper = Wallpaper::kTiles;
  id.wallTop = rgb8(150, 170, 196);
  id.wallBottom = rgb8(92, 108, 140);
  id.wallLine = rgb8(54, 64, 90);
  id.skin = rgb8(206, 156, 120);
  id.skinShade = rgb8(172, 122, 92);
  id.hair = rgb8(216, 178, 92);
  id.shirt = rgb8(156, 40, 40);
  id.collar = rgb8(36, 36, 44);
  id.brow = rgb8(150, 110, 50);
  id.iris = rgb8(52, 98, 176);
  id.lips = rgb8(160, 88, 80);
  id.mouthInside = rgb8(56, 20, 20);
  id.teeth = rgb8(236, 232, 218);
  id.hairStyle = HairStyle::kShortCrop;
  id.glasses = true;
  id.moustache = true;
  id.faceCx = 208;
  id.faceCy = 306;
  id.faceRx = 124;
  id.faceRy = 152;
  id.eyeY = 276;
  id.eyeDx = 52;
  id.eyeRx = 22;
  id.eyeRy = 11;
  id.irisR = 9;
  id.mouthY = 392;
  id.mouthHalfWidth = 42;
  id.lipPx = 5;
  id.mouthOpenPx = 30;
  id.swayPhase = 0.25f;
  id.blinkClock = 0.3f;
  return id;
}

const std::array<Identity, 2>& identities() {
  static const std::array<Identity, 2> all{makeAva(), makeBram()};
  return all;
}

}  // namespace

const std::array<Identity, 2>& familyIdentities() { return identities(); }

const Identity& identityByCode(std::string_view code) {
  for (const Identity& id : identities()) {
    if (id.code == code) return id;
  }
  throw std::invalid_argument("unknown avatar code '" + std::string(code) + "'");
}

}  // namespace lumora2::family
