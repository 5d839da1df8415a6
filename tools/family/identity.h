// The identities of the reference model family: everything that makes one avatar look like itself
// (colours, face layout, hair style) and the per-identity starting phases of its idle motion.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace lumora2::family {

struct Rgb {
  float r = 0, g = 0, b = 0;
};

enum class HairStyle { kLongWithFringe, kShortCrop };
enum class Wallpaper { kPinstripes, kTiles };

struct Identity {
  std::string code;  // avatar code and file stem, e.g. "ava" -> ava.avatar
  std::string name;
  std::string gender;
  std::string persona;
  std::uint64_t seed = 0;  // fixes the canonical latent's style channels

  Wallpaper wallpaper = Wallpaper::kPinstripes;
  Rgb wallTop, wallBottom, wallLine;
  Rgb skin, skinShade, hair, shirt, collar, brow, iris, lips, mouthInside, teeth;
  HairStyle hairStyle = HairStyle::kLongWithFringe;
  bool glasses = false;
  bool moustache = false;

  // Face layout in picture pixels (416 x 720, origin top left).
  float faceCx = 208, faceCy = 300, faceRx = 118, faceRy = 150;
  float eyeY = 270, eyeDx = 50, eyeRx = 24, eyeRy = 13, irisR = 10;
  float mouthY = 385, mouthHalfWidth = 40, lipPx = 6, mouthOpenPx = 34;

  // Idle motion: the gaze oscillator's phase and the blink clock at rest, both in [0, 1).
  float swayPhase = 0, blinkClock = 0;
};

// The family's avatars, in the order they are generated: "ava" and "bram".
const std::array<Identity, 2>& familyIdentities();
// The identity with this code; throws std::invalid_argument for an unknown code.
const Identity& identityByCode(std::string_view code);

}  // namespace lumora2::family
