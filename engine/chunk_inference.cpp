// One full chunk to frames: speech features → audio tokens → one student step per token (the
// latent context moves on by one slot each) → the avatar's decoder, four phases per token.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <sstream>

#include "engine/log.h"
#include "engine/lumora2_engine.h"

namespace lumora2 {
namespace {

constexpr std::int64_t kTokenFloats = 6144;  // one audio token: 16 × 384
constexpr std::int64_t kMaxTokens = 55;

// The prediction fault hook: attempt numbers to fail on purpose, parsed from comma-separated
// decimals. The text is empty, so the set is empty and no prediction is ever failed; the hook is
// kept inert deliberately, as the place where such a test would plug in.
const std::set<long>& injectedFailures() {
  static const std::set<long> attempts = [] {
    std::set<long> out;
    std::stringstream text{std::string()};
    for (std::string item; std::getline(text, item, ',');) {
      char* end = nullptr;
      long n = std::strtol(item.c_str(), &end, 10);
      if (!item.empty() && end == item.c_str() + item.size()) out.insert(n);
    }
    return out;
  }();
  return attempts;
}

// The array as float32: itself when it is, else converted from half precision.
MultiArray asFloats(const MultiArray& array) {
  if (array.dataType() == ArrayDataType::float32) return array;
  if (array.dataType() != ArrayDataType::float16) {
    throw PredictionError("graph returned " + std::string(dataTypeName(array.dataType())) +
                          " where floats were expected");
  }
  MultiArray out(ArrayDataType::float32, array.shape());
  const std::uint16_t* h = array.halves();
  for (std::int64_t i = 0; i < out.count(); ++i) out.floats()[i] = halfToFloat(h[i]);
  return out;
}

// `count` floats of `array` from float `offset` on, in the shape `shape`, without a copy: the view
// keeps the whole array alive.
MultiArray floatsView(const MultiArray& array, std::int64_t offset,
                      std::vector<std::int64_t> shape) {
  return MultiArray::wrap(ArrayDataType::float32, std::move(shape),
                          std::shared_ptr<void>(array.storage(), array.floats() + offset));
}

template <typename... Args>
std::string formatted(const char* format, Args... args) {
  char text[256];
  std::snprintf(text, sizeof text, format, args...);
  return text;
}

}  // namespace

MultiArray Lumora2Engine::predMA(const GraphModel& model, const FeatureSet& inputs,
                                 std::int64_t batch) {
  static std::atomic<long> attempts{0};
  auto once = [&] {
    const long attempt = ++attempts;
    if (injectedFailures().count(attempt) != 0) {
      throw PredictionError("LUMORA2_DEBUG_FAIL_PREDICT injected failure (attempt " +
                            std::to_string(attempt) + ")");
    }
    return model.predictFirst(inputs, batch);
  };
  try {
    return once();
  } catch (const std::exception& e) {
    engineLog(std::string("[vivra] predict failed — retrying once: ") + e.what());
  }
  return once();
}

void Lumora2Engine::processChunkInner() {
  const auto started = std::chrono::steady_clock::now();
  const Window window = assembleWindow();
  const MultiArray tokens = chunkTokens(windowFeats());
  const std::string& arm = settings_.process.onset.armed;
  const std::int64_t nTok = window.ci == 0 ? 6 : 8;
  const std::int64_t t0 =
      (window.ci == 0 && (arm == "gpu" || arm == "gpu_noclamp")) ? 0 : onsetBase_;
  if (tokens.count() < (t0 + nTok) * kTokenFloats) {
    engineLog("[vivra] FATAL: the tokenizer gave " + std::to_string(tokens.count() / kTokenFloats) +
              " tokens, chunk " + std::to_string(window.ci) + " needs " +
              std::to_string(t0 + nTok));
    std::abort();
  }
  studentSteps(tokens, t0, nTok);
  std::vector<Unit> frames = decodeChunkDecp2(nTok, window.speech, window.ci);
  const auto decoded = static_cast<std::int64_t>(frames.size());
  if (!queueFrames(frames, window, nTok)) return;  // a reset happened meanwhile: the chunk is void

  const double ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count();
  const double fps = ms > 0 ? static_cast<double>(decoded) / (ms / 1000.0) : 0.0;
  engineLog(formatted(
      "[vivra-chunk] ci=%lld %.0fms -> %lld frames = %.1f fps generation (%.2fx "
      "realtime, 20fps content)",
      static_cast<long long>(window.ci), ms, static_cast<long long>(decoded), fps, fps / 20.0));
}

MultiArray Lumora2Engine::chunkTokens(const MultiArray& feats) {
  MultiArray tokens = asFloats(predMA(graphs_->tokenizer(), FeatureSet{{"feats", feats}}));
  const std::int64_t count = tokens.count();
  numTokens_ = count < kTokenFloats                 ? 1
               : count >= kMaxTokens * kTokenFloats ? kMaxTokens
                                                    : count / kTokenFloats;
  return tokens;
}

// The student, one token at a time, each token read in place from the tokenizer's output. Latent
// (channel c, token i) goes to (c × nTok + i) × 4,680 in `_latents`; after each step every
// channel's 16 slots move one towards the start and the new plane takes slot 15.
void Lumora2Engine::studentSteps(const MultiArray& tokens, std::int64_t t0, std::int64_t nTok) {
  const std::size_t plane = static_cast<std::size_t>(kPlane);
  _latents.resize(static_cast<std::size_t>(nTok * C * kPlane));
  float* ctx = ctxMA_.floats();
  for (std::int64_t i = 0; i < nTok; ++i) {
    const MultiArray token = floatsView(tokens, (t0 + i) * kTokenFloats, {1, 16, 384});
    const MultiArray out =
        asFloats(predMA(graphs_->student(), FeatureSet{{"ctx_lat", ctxMA_}, {"a_tok", token}}));
    if (out.count() < C * kPlane) {
      throw PredictionError("student gave " + std::to_string(out.count()) +
                            " values, a latent is " + std::to_string(C * kPlane));
    }
    for (std::size_t c = 0; c < static_cast<std::size_t>(C); ++c) {
      const float* fresh = out.floats() + c * plane;
      std::copy_n(fresh, plane,
                  _latents.data() +
                      (c * static_cast<std::size_t>(nTok) + static_cast<std::size_t>(i)) * plane);
      float* slots = ctx + c * static_cast<std::size_t>(CTX) * plane;
      std::copy(slots + plane, slots + static_cast<std::size_t>(CTX) * plane, slots);
      std::copy_n(fresh, plane, slots + static_cast<std::size_t>(CTX - 1) * plane);
    }
  }
}

bool Lumora2Engine::queueFrames(std::vector<Unit>& frames, const Window& window,
                                std::int64_t nTok) {
  MutexLock hold(lock_);
  if (gen_ != window.gen) return false;
  std::int64_t appended = 0;
  for (Unit& unit : frames) {
    if (tailPad_) {
      const std::int64_t at = unit.pos * SPF;
      // Frames whose centre lies in the padding are not shown.
      if (!(at + SPF / 2 < tailPad_->first || at >= tailPad_->second)) continue;
    }
    frameQueue_.push_back(std::move(unit));
    ++appended;
  }
  producedTotal_ += appended;
  // The chunk's latents become the previous chunk's; the storage they replace serves the next.
  prev_.swap(_latents);
  prevBlk_ = nTok;
  ++ci_;
  segFrames_ += static_cast<std::int64_t>(frames.size());
  trimBuffer();
  return true;
}

std::vector<Lumora2Engine::Unit> Lumora2Engine::decodeChunkDecp2(std::int64_t blk, bool isSpeech,
                                                                 std::int64_t ci) {
  const float* lat = _latents.data();
  std::int64_t segFrames = 0;
  std::vector<float> prevLatent;  // the previous chunk's last token, channel-major
  std::optional<std::pair<std::int64_t, std::int64_t>> tailPad;
  const std::size_t plane = static_cast<std::size_t>(kPlane);
  {
    MutexLock hold(lock_);
    segFrames = segFrames_;
    tailPad = tailPad_;
    if (ci >= 1 && prevBlk_ >= 1 &&
        prev_.size() >= static_cast<std::size_t>(prevBlk_ * C * kPlane)) {
      prevLatent.resize(static_cast<std::size_t>(C) * plane);
      for (std::size_t c = 0; c < static_cast<std::size_t>(C); ++c) {
        const std::size_t from =
            (c * static_cast<std::size_t>(prevBlk_) + static_cast<std::size_t>(prevBlk_ - 1)) *
            plane;
        std::copy_n(prev_.begin() + static_cast<std::ptrdiff_t>(from), plane,
                    prevLatent.begin() + static_cast<std::ptrdiff_t>(c * plane));
      }
    }
  }
  const std::int64_t expected = ci == 0 ? 4 * blk - 3 : 4 * blk;
  const std::vector<bool> voiced = voiceActivity(segFrames, ci == 0 ? expected + 1 : expected);

  auto latentOf = [&](std::int64_t t, std::size_t c) {
    return lat + (c * static_cast<std::size_t>(blk) + static_cast<std::size_t>(t)) * plane;
  };
  // The decoder's input for token t and phase: its latent, the one before it and the phase's
  // one-hot, written into slot `slot` of the batch.
  const std::size_t item = 36 * plane;
  float* const inputs = decp2X_.floats();
  auto fillInput = [&](std::int64_t slot, std::int64_t t, int phase) {
    float* x = inputs + static_cast<std::size_t>(slot) * item;
    for (std::size_t c = 0; c < static_cast<std::size_t>(C); ++c) {
      std::copy_n(latentOf(t, c), plane, x + c * plane);
      const float* before = t > 0                 ? latentOf(t - 1, c)
                            : !prevLatent.empty() ? prevLatent.data() + c * plane
                                                  : latentOf(0, c);
      std::copy_n(before, plane, x + (16 + c) * plane);
    }
    std::fill(x + 32 * plane, x + 36 * plane, 0.0f);
    std::fill_n(x + static_cast<std::size_t>(32 + phase) * plane, plane, 1.0f);
  };
  std::vector<Unit> units;
  units.reserve(static_cast<std::size_t>(expected + 1));
  // Each decoded picture becomes a unit (the very first of a segment two: it is shown twice, so
  // chunk 0 yields 22 frames). Units keep the decoder's output itself, a view into the batch's.
  auto emit = [&](const MultiArray& picture, int copies) {
    for (int k = 0; k < copies; ++k) {
      Unit unit;
      const auto j = static_cast<std::int64_t>(units.size());
      unit.pos = segFrames + j;
      unit.isSpeech =
          j < static_cast<std::int64_t>(voiced.size()) && voiced[static_cast<std::size_t>(j)];
      const std::int64_t at = unit.pos * SPF;
      const bool inPadding = tailPad && at + SPF / 2 >= tailPad->first && at < tailPad->second;
      unit.legacySpeech = isSpeech && !inPadding;
      unit.raw = picture;
      units.push_back(std::move(unit));
    }
  };
  // The chunk's pictures, in order, `batch` to a decoder run.
  std::vector<std::pair<std::int64_t, int>> pictures;  // (token, phase)
  for (std::int64_t t = 0; t < blk; ++t) {
    for (int phase = (ci == 0 && t == 0) ? 3 : 0; phase <= 3; ++phase)
      pictures.emplace_back(t, phase);
  }
  const std::int64_t batch = decp2X_.shape()[0];
  for (std::size_t first = 0; first < pictures.size(); first += static_cast<std::size_t>(batch)) {
    const std::int64_t n =
        std::min<std::int64_t>(batch, static_cast<std::int64_t>(pictures.size() - first));
    for (std::int64_t i = 0; i < n; ++i) {
      const auto& [t, phase] = pictures[first + static_cast<std::size_t>(i)];
      fillInput(i, t, phase);
    }
    const MultiArray x =
        n == batch ? decp2X_
                   : MultiArray::wrap(ArrayDataType::float32, {n, 36, H, W}, decp2X_.storage());
    const MultiArray rgb = predMA(avatar_->decoder(), FeatureSet{{"x", x}}, n);
    if (rgb.dataType() != ArrayDataType::float16 ||
        rgb.count() < n * static_cast<std::int64_t>(kRawValues)) {
      throw PredictionError("decoder gave " + std::to_string(rgb.count()) + " " +
                            std::string(dataTypeName(rgb.dataType())) + " values for " +
                            std::to_string(n) + " frames, a frame is " +
                            std::to_string(kRawValues) + " float16");
    }
    const std::size_t bytes = rgb.byteCount() / static_cast<std::size_t>(n);
    std::vector<std::int64_t> shape = rgb.shape();
    shape[0] = 1;
    for (std::int64_t i = 0; i < n; ++i) {
      const std::int64_t t = pictures[first + static_cast<std::size_t>(i)].first;
      // A view of item i that keeps the whole batch's output alive.
      std::shared_ptr<void> view(
          rgb.storage(), static_cast<char*>(rgb.data()) + static_cast<std::size_t>(i) * bytes);
      emit(n == 1 ? rgb : MultiArray::wrap(ArrayDataType::float16, shape, std::move(view)),
           (ci == 0 && t == 0) ? 2 : 1);
    }
  }
  return units;
}

}  // namespace lumora2
