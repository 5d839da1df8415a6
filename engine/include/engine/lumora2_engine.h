// Lumora2Engine: the render engine of the lumora-2 family, one object per rendered session. It
// turns 16 kHz mono audio into 416 × 720 frames at 20 fps through four graphs (speech front end,
// audio tokenizer, per-frame student over a recurrent latent context, the avatar's decoder).
//
// An engine is made from three things and reads nothing else: the engine file's graphs
// (EngineGraphs, shared by every engine of a process), one avatar (AvatarModel, which engines
// of that avatar may share) and the settings (EngineSettings, read from the environment once
// at the edge of the process). So one process can hold several engines, of one avatar or of
// several, each with its own audio, latent context, frame queue and processing thread.
//
// The engine is split by concern, one source file each:
//   lumora2_engine.cpp   construction, resets, the arms' attestation, diagnostics
//   warm_up.cpp          warm-up: the state, priming the latent context, the rest frame
//   audio_intake.cpp     feed, chunk scheduling, window assembly, front end, voice activity
//   time_stretch.cpp     the window's time-stretch (WsolaTempo) and linear resampling
//   chunk_inference.cpp  tokenizer, student and decoder for one chunk; the retrying prediction
//   frame_path.cpp       decoded planes to 8-bit pixels with the unsharp mask
//   frame_queue.cpp      pulling, tail flush, draining, the synthetic benchmark
//
// Threads and locks:
//   - `lock_` guards the audio buffer and the frame queue (the fields marked GUARDED_BY(lock_));
//     it is never held during a prediction.
//   - `processing_` is held for one chunk at a time by whoever processes (the serial `procQ_`, or
//     the caller during warm-up and benchSync) and by resetCtx; it guards the latent context, the
//     decoder input and the chunk's scratch, so a reset waits for a running chunk instead of
//     racing it.
//   - `pulling_` guards the frame path's scratch, used by pullers.
//   - Tasks queued on `procQ_` hold the engine weakly: a discarded engine is not kept alive by
//     pending work, and its queue discards what has not started.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "engine/avatar_model.h"
#include "engine/engine_graphs.h"
#include "engine/engine_settings.h"
#include "engine/multi_array.h"
#include "engine/pixel_order.h"
#include "engine/thread_annotations.h"

namespace lumora2 {

class FeatureSet;
class FramePath;
class SerialQueue;

class Lumora2Engine final : public std::enable_shared_from_this<Lumora2Engine> {
 public:
  // Geometry, fixed for the family.
  static constexpr int kWidth = 416;
  static constexpr int kHeight = 720;
  static constexpr std::int64_t SPF = 800;        // samples per frame (16,000 / 20)
  static constexpr std::int64_t WIN_LAT = 55;     // analysis window in frames (44,000 samples)
  static constexpr std::int64_t SPC = 25600;      // samples per chunk (32 frames)
  static constexpr std::int64_t STEADY_PX = 32;   // frames per steady chunk
  static constexpr std::int64_t C = 16;           // latent channels
  static constexpr std::int64_t CTX = 16;         // context slots
  static constexpr std::int64_t H = 90;           // latent height
  static constexpr std::int64_t W = 52;           // latent width
  static constexpr std::int64_t kPlane = H * W;   // 4,680 floats
  static constexpr std::int64_t kWindow = 44000;  // analysis window in samples
  static constexpr std::int64_t kStretched = 35200;
  static constexpr std::size_t kFrameBytes = static_cast<std::size_t>(kWidth) * kHeight * 3;
  static constexpr std::size_t kRawValues = kFrameBytes;      // 3 half-precision planes
  static constexpr std::size_t kI420Bytes = kFrameBytes / 2;  // Y, then U and V at a quarter
  static constexpr int maxQueuedFrames = 64;

  // One decoded frame: the decoder's output as it came (half-precision R, G, B planes, 3 × 720 ×
  // 416, never copied), the chunk's speech flag (false inside tail padding), per-frame voice
  // activity, and the frame's index in its segment (it covers samples [pos × 800, pos × 800 +
  // 800)).
  struct Unit {
    MultiArray raw;
    bool legacySpeech = false;
    bool isSpeech = false;
    std::int64_t pos = 0;
  };

  // What pullInto says about the frame it wrote: the unit's flags and position.
  struct FrameInfo {
    bool speech = false;
    bool isSpeech = false;
    std::int64_t pos = 0;
  };

  // An engine on `graphs` for `avatar`. It loads nothing; warmUp prepares it.
  static std::shared_ptr<Lumora2Engine> create(std::shared_ptr<const EngineGraphs> graphs,
                                               std::shared_ptr<const AvatarModel> avatar,
                                               EngineSettings settings);
  // The usual start of one: an engine made on `graphs` for `avatar` and warmed up with
  // `warmSpeech`. Nothing when either is missing (their loads logged why) or the warm-up fails.
  static std::shared_ptr<Lumora2Engine> warmed(std::shared_ptr<const EngineGraphs> graphs,
                                               std::shared_ptr<const AvatarModel> avatar,
                                               const EngineSettings& settings,
                                               const std::optional<std::vector<float>>& warmSpeech);
  ~Lumora2Engine();
  Lumora2Engine(const Lumora2Engine&) = delete;
  Lumora2Engine& operator=(const Lumora2Engine&) = delete;

  // What warm-up's priming leaves that rendering reads, and nothing else: the context snapshot
  // that ctx_seed=warm starts every segment from, the token count that sizes chunk 0's look-back
  // under the prepend arms, and the idle picture. It depends only on the graphs, the avatar,
  // the settings and the warm speech, so an engine of the same four can start from another's
  // instead of priming again, and renders the same bytes.
  struct Primed {
    std::vector<float> context;  // [16 channels][16 slots][90 × 52]
    std::int64_t numTokens = 14;
    std::optional<std::vector<std::uint8_t>> idle;
  };

  // Says which decoder it renders with, seeds the latent context from the canonical frame and
  // primes it: a silence pass where the onset arm or a missing idle clip needs what it leaves, a
  // pass over `warmSpeech` where the context-seed arm keeps the context it leaves
  // (LUMORA2_WARMUP=full: both always). Never throws: success is isReady(); a failure is one log
  // line.
  void warmUp(const std::optional<std::vector<float>>& warmSpeech);
  // The same without the priming passes: `primed` comes from an engine of the same graphs,
  // avatar, settings and warm speech, and is shared with it, not copied.
  void warmUpFrom(std::shared_ptr<const Primed> primed);
  // What this engine's warm-up primed; null before it succeeded.
  std::shared_ptr<const Primed> primed() const LUMORA2_EXCLUDES(processing_);
  bool isReady() const { return ready_.load(std::memory_order_acquire); }
  // The rest picture shown between utterances (B, G, R): the idle clip's first picture, or the
  // converged rest frame without a clip; nothing before warm-up.
  const std::optional<std::vector<std::uint8_t>>& idle() const { return idle_; }

  // Appends 16 kHz mono samples; never waits for inference. Ignored before warm-up.
  void feed(std::span<const float> samples);
  // Writes the next frame into `frame` (exactly kFrameBytes, std::invalid_argument otherwise) in
  // `order`; nothing, and nothing written, when no frame is ready. One thread pulls at a time.
  std::optional<FrameInfo> pullInto(std::span<std::uint8_t> frame,
                                    PixelOrder order = PixelOrder::bgr);
  // The same as 4:2:0 planes (protocol/i420.h) into exactly kI420Bytes: the bytes the 4:2:0
  // conversion makes of pullInto's, at a fraction of the cost of the two steps.
  std::optional<FrameInfo> pullI420Into(std::span<std::uint8_t> planes);
  int queuedFrames() const;
  // Ends the utterance: pending audio goes, queued frames too when `clearFrames`, and the
  // context is seeded again.
  void resetState(bool clearFrames);
  // Pads the utterance to the next chunk boundary plus one chunk, so that its last frames come.
  void flushTail();
  bool hasPendingTail() const;
  bool hasFullChunkPending() const;
  // True when every task queued on the processing queue before the call finished in time.
  bool waitForScheduledRenders(std::chrono::duration<double> timeout);
  // Renders `seconds` of synthetic audio on the calling thread, logs the throughput and resets.
  void benchSync(int seconds);

  const EngineSettings& settings() const { return settings_; }
  const std::string& decoderDesc() const { return avatar_->decoderDesc(); }
  const std::optional<std::string>& idleUnavailableReason() const {
    return avatar_->idleUnavailableReason();
  }
  // ---- Diagnostics.
  std::int64_t producedTotal() const;
  // A copy of the latent context, channel-major [16 channels][16 slots][90 × 52], oldest slot
  // first; empty before warm-up. Waits for a running chunk.
  std::vector<float> latentContext() const LUMORA2_EXCLUDES(processing_);
  std::int64_t chunkIndex() const;
  bool failed() const;

 private:
  Lumora2Engine(std::shared_ptr<const EngineGraphs> graphs,
                std::shared_ptr<const AvatarModel> avatar, EngineSettings settings);

  struct Window {
    std::uint64_t gen = 0;
    std::int64_t ci = 0;
    bool speech = false;  // some sample above 0.001, padding included
  };

  // frame_queue.cpp: takes the next frame off the queue and has `convert(framePath, unit)` write
  // it out.
  template <class Convert>
  std::optional<FrameInfo> pullWith(Convert convert) LUMORA2_EXCLUDES(lock_, pulling_);
  // warm_up.cpp
  void prepareState() LUMORA2_EXCLUDES(processing_, pulling_);
  void becomeReady(std::chrono::steady_clock::time_point started,
                   std::shared_ptr<const Primed> primed) LUMORA2_EXCLUDES(lock_, processing_);
  void silencePass() LUMORA2_EXCLUDES(lock_, processing_, pulling_);
  void speechPass(const std::vector<float>& speech) LUMORA2_EXCLUDES(lock_, processing_);
  // audio_intake.cpp
  void scheduleProcessing();
  void processAvailable() LUMORA2_EXCLUDES(lock_, processing_);
  Window assembleWindow() LUMORA2_REQUIRES(processing_) LUMORA2_EXCLUDES(lock_);
  MultiArray windowFeats() LUMORA2_REQUIRES(processing_);
  std::vector<bool> voiceActivity(std::int64_t firstPos, std::int64_t count) const
      LUMORA2_EXCLUDES(lock_);
  void trimBuffer() LUMORA2_REQUIRES(lock_);
  std::int64_t receivedLocked() const LUMORA2_REQUIRES(lock_);
  // chunk_inference.cpp
  void processChunkInner() LUMORA2_REQUIRES(processing_) LUMORA2_EXCLUDES(lock_);
  MultiArray chunkTokens(const MultiArray& feats) LUMORA2_REQUIRES(processing_);
  void studentSteps(const MultiArray& tokens, std::int64_t t0, std::int64_t nTok)
      LUMORA2_REQUIRES(processing_);
  bool queueFrames(std::vector<Unit>& frames, const Window& window, std::int64_t nTok)
      LUMORA2_REQUIRES(processing_) LUMORA2_EXCLUDES(lock_);
  std::vector<Unit> decodeChunkDecp2(std::int64_t blk, bool isSpeech, std::int64_t ci)
      LUMORA2_REQUIRES(processing_) LUMORA2_EXCLUDES(lock_);
  MultiArray predMA(const GraphModel& model, const FeatureSet& inputs, std::int64_t batch = 1);
  // frame_queue.cpp
  // Processes every full chunk on the calling thread, emptying the queue after each; the last
  // frame rendered, if any.
  std::optional<MultiArray> renderAllDraining() LUMORA2_EXCLUDES(lock_, processing_);
  // lumora2_engine.cpp
  // "[vivra] chunk-0 arms: …", the arms this engine renders under.
  void logArmAttestation() const;
  void resetCtx() LUMORA2_EXCLUDES(processing_);
  void resetCtxLocked() LUMORA2_REQUIRES(processing_);
  void startSegmentLocked() LUMORA2_REQUIRES(lock_);

  // ---- Fixed at creation.
  const std::shared_ptr<const EngineGraphs> graphs_;
  const std::shared_ptr<const AvatarModel> avatar_;
  const EngineSettings settings_;

  // ---- Set by warm-up on the caller's thread before isReady; read-only afterwards.
  std::optional<std::vector<std::uint8_t>> idle_;
  std::atomic<bool> ready_{false};

  // ---- The audio buffer and the frame queue.
  mutable Mutex lock_;
  std::vector<float> buf_ LUMORA2_GUARDED_BY(lock_);
  std::int64_t bufBase_ LUMORA2_GUARDED_BY(lock_) = 0;
  std::int64_t ci_ LUMORA2_GUARDED_BY(lock_) = 0;
  std::vector<float> prev_ LUMORA2_GUARDED_BY(lock_);
  std::int64_t prevBlk_ LUMORA2_GUARDED_BY(lock_) = 0;
  std::deque<Unit> frameQueue_ LUMORA2_GUARDED_BY(lock_);
  std::uint64_t gen_ LUMORA2_GUARDED_BY(lock_) = 0;
  std::optional<std::pair<std::int64_t, std::int64_t>> tailPad_ LUMORA2_GUARDED_BY(lock_);
  std::int64_t segFrames_ LUMORA2_GUARDED_BY(lock_) = 0;
  bool failed_ LUMORA2_GUARDED_BY(lock_) = false;
  std::int64_t producedTotal_ LUMORA2_GUARDED_BY(lock_) = 0;

  // ---- Processing state: the latent context, the decoder input and the chunk's scratch, all
  // allocated once by warm-up and reused for every chunk.
  mutable Mutex processing_;
  MultiArray ctxMA_ LUMORA2_GUARDED_BY(processing_);   // float32 [1, 16, 16, 90, 52]
  MultiArray decp2X_ LUMORA2_GUARDED_BY(processing_);  // float32 [batch, 36, 90, 52]
  std::shared_ptr<const Primed> primed_ LUMORA2_GUARDED_BY(processing_);
  std::vector<float> _window LUMORA2_GUARDED_BY(processing_);  // the chunk's 44,000 samples
  MultiArray _iv LUMORA2_GUARDED_BY(processing_);              // float32 [1, 35200]
  // The chunk's latents, channel-major: (channel c, token i) at (c × nTok + i) × 4,680. Handed
  // to prev_ when the chunk lands, in exchange for the storage the chunk before used.
  std::vector<float> _latents LUMORA2_GUARDED_BY(processing_);
  std::int64_t numTokens_ LUMORA2_GUARDED_BY(processing_) = 14;
  std::int64_t onsetBase_ = 6;

  // ---- The frame path's scratch, for pullers.
  Mutex pulling_;
  std::unique_ptr<FramePath> framePath_ LUMORA2_GUARDED_BY(pulling_);

  std::atomic<bool> kickPending_{false};  // a processAvailable task is queued and not started
  std::unique_ptr<SerialQueue> procQ_;    // last: destroyed first, before what its tasks use
};

}  // namespace lumora2
