// AvatarModel: one avatar, loaded from its unpacked directory once and read-only afterwards, so
// that several engines rendering that avatar may share it: its decoder (held to its contract and
// proved alive), its canonical latent frame, and its idle clip's first picture. The avatar's
// members are looked for in its own directory and nowhere else.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "engine/engine_settings.h"
#include "engine/graph_model.h"

namespace lumora2 {

class AvatarModel {
 public:
  // Opens idle.mp4 for its first picture ("[vivra] idle clip open (…)", or "[vivra] idle clip
  // unavailable: <why>", which is no failure), loads the decoder (dec_p2_v3_all.mlpackage) with
  // its contract check and unit ladder, and reads canon.f32 as little-endian floats (a trailing
  // partial float ignored). Never throws: nothing, after one line saying so, when the decoder or
  // the canonical frame is missing or unusable.
  static std::shared_ptr<const AvatarModel> load(const std::filesystem::path& dir,
                                                 const EngineSettings& settings);

  const std::filesystem::path& dir() const { return dir_; }
  const GraphModel& decoder() const { return *decoder_; }
  // "<label>/<unit in use>", e.g. "dec_p2_v3/all": the unit the decoder runs on, which is not the
  // declared one when the liveness ladder moved it.
  const std::string& decoderDesc() const { return decoderDesc_; }
  // Whether the decoder makes several pictures in one run (a batch in the leading dimension),
  // as tried on two inputs at load; engines run it one picture at a time where it does not.
  bool decoderTakesBatch() const { return decoderTakesBatch_; }
  const std::vector<float>& canon() const { return canon_; }
  // The idle clip's first picture, 416 × 720, B, G, R; nothing without a usable clip, and then
  // the reason.
  const std::optional<std::vector<std::uint8_t>>& idleFrame() const { return idleFrame_; }
  const std::optional<std::string>& idleUnavailableReason() const { return idleUnavailable_; }

 private:
  AvatarModel() = default;

  std::filesystem::path dir_;
  std::shared_ptr<GraphModel> decoder_;
  std::string decoderDesc_;
  bool decoderTakesBatch_ = false;
  std::vector<float> canon_;
  std::optional<std::vector<std::uint8_t>> idleFrame_;
  std::optional<std::string> idleUnavailable_;
};

}  // namespace lumora2
