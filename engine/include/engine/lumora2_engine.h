// Lumora2Engine: the render engine of the lumora-2 family, one object per rendered identity. It
// turns 16 kHz mono audio into 416 × 720 frames at 20 fps through four graphs (speech front end,
// audio tokenizer, per-frame student over a recurrent latent context, per-identity decoder), and
// shows the identity's idle clip between utterances. It implements MorvaneEngine.
//
// The engine is split by concern, one source file each:
//   lumora2_engine.cpp   construction, arms, sharpening, resets, protocol answers
//   warm_up.cpp          warm-up: loading, checking and priming everything
//   audio_intake.cpp     feed, chunk scheduling, window assembly, front end, voice activity
//   time_stretch.cpp     the window's time-stretch (WsolaTempo) and linear resampling
//   chunk_inference.cpp  tokenizer, student and decoder for one chunk; the retrying prediction
//   frame_path.cpp       decoded planes to B, G, R bytes with the unsharp mask
//   frame_queue.cpp      pulling, tail flush, draining, idle frames, the synthetic benchmark
//   idle_clip.cpp        the idle clip stream
// The process-wide graph runtime has one internal header per concern, shared by every engine of a
// process: model_resolution.h (where packages and resources are found), model_cache.h (the
// compiled-model cache and loading), compute_unit_choice.h, liveness.h (the liveness probe) and
// decoder_loading.h (decoder members and the shared front end).
//
// Threads and locks:
//   - `lock_` guards the audio buffer and the frame queue (the fields marked GUARDED_BY(lock_));
//     it is never held during a prediction.
//   - `processing_` is held for one chunk at a time by whoever processes (the serial `procQ_`, or
//     the caller during warm-up and benchSync) and by resetCtx; it guards the latent context and
//     the decoder input, so a reset waits for a running chunk instead of racing it.
//   - `pulling_` guards the colour scratch buffers of the frame path, used by pullers.
//   - Tasks queued on `procQ_` hold the engine weakly: a discarded engine is not kept alive by
//     pending work, and its queue discards what has not started.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "engine/graph_model.h"
#include "engine/thread_annotations.h"
#include "protocol/morvane_engine.h"

namespace lumora2 {

class FramePath;
class IdleClipStream;
class SerialQueue;

class Lumora2Engine final : public MorvaneEngine,
                            public std::enable_shared_from_this<Lumora2Engine> {
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
  static constexpr std::size_t kRawValues = kFrameBytes;  // 3 half-precision planes
  static constexpr int maxQueuedFrames = 64;

  // One decoded frame: the decoder's half-precision R, G, B planes (3 × 720 × 416), the chunk's
  // speech flag (false inside tail padding), per-frame voice activity, and the frame's index in
  // its segment (it covers samples [pos × 800, pos × 800 + 800)).
  struct Unit {
    std::vector<std::uint16_t> raw;
    bool legacySpeech = false;
    bool isSpeech = false;
    std::int64_t pos = 0;
  };

  // What pullPos hands out: the frame as B, G, R bytes and the unit's flags and position.
  struct PulledItem {
    std::vector<std::uint8_t> frame;
    bool speech = false;
    bool isSpeech = false;
    std::int64_t pos = 0;
  };

  // A process-wide arm: what is armed, what the variable asked for, whether that was recognised.
  struct Arm {
    std::string armed;
    std::optional<std::string> requested;
    bool recognised = true;
  };

  // The unpacked identity directory that graphs and resources are looked up in, process-wide;
  // the render commands set it before creating an engine.
  static void setActiveAgentDir(std::optional<std::filesystem::path> dir);

  // Engines are shared: tasks on the processing queue hold them weakly.
  static std::shared_ptr<Lumora2Engine> create();
  ~Lumora2Engine() override;
  Lumora2Engine(const Lumora2Engine&) = delete;
  Lumora2Engine& operator=(const Lumora2Engine&) = delete;

  // ---- MorvaneEngine, in the interface's order.
  EngineId id() const override;
  int width() const override { return kWidth; }
  int height() const override { return kHeight; }
  void warmUp(const std::optional<std::vector<float>>& warmSpeech) override;
  bool isReady() const override { return ready_.load(std::memory_order_acquire); }
  void shutdown() override {}  // nothing needs an orderly stop
  std::optional<std::vector<std::uint8_t>> idle() const override { return idle_; }
  void feed(const std::vector<float>& samples) override;
  std::optional<PulledFrame> pull() override;
  int queuedFrames() const override;
  int speechCushion() const override { return 32; }
  void resetState(bool clearFrames) override;
  void flushTail() override;
  bool hasPendingTail() const override;
  std::size_t idleInto(std::vector<std::uint8_t>& buffer) override;
  std::optional<PixelBuffer> idleNextPixelBuffer() override;
  void benchSync(int seconds) override;

  // ---- Frame queue and draining.
  std::optional<PulledItem> pullPos();
  bool hasFullChunkPending() const;
  // True when every task queued on the processing queue before the call finished in time.
  bool waitForScheduledRenders(std::chrono::duration<double> timeout);
  // Processes every full chunk on the calling thread, emptying the queue after each; returns the
  // raw planes of the frames when `capture`.
  std::vector<std::vector<std::uint16_t>> renderAllDraining(bool capture);

  // ---- Arms and settings.
  static Arm resolveArm(const std::string& name, const std::vector<std::string>& known,
                        const std::string& fallback);
  static const Arm& onsetArm();    // LUMORA2_ONSET, resolved once per process
  static const Arm& ctxSeedArm();  // LUMORA2_CTX_SEED, resolved once per process
  static void logArmAttestation();
  // "tempo" (default) or "linear", from LUMORA2_AUDIO_PREPROC, once per process.
  static const std::string& audioPreproc();
  // LUMORA2_SHARPEN, else VIVRA_SHARPEN; 0.8 when unset or unparsable, 0 when negative. Computed
  // on first use and then fixed for this engine.
  float sharpenAmount();

  // ---- Diagnostics.
  std::int64_t producedTotal() const;
  // A copy of the latent context, channel-major [16 channels][16 slots][90 × 52], oldest slot
  // first; empty before warm-up. Waits for a running chunk.
  std::vector<float> latentContext() const LUMORA2_EXCLUDES(processing_);
  std::int64_t segmentFrames() const;
  std::int64_t chunkIndex() const;
  bool failed() const;
  const std::string& decoderDesc() const { return decoderDesc_; }
  const std::optional<std::string>& idleUnavailableReason() const { return idleUnavailableReason_; }
  std::int64_t idleFrameCount() const;
  std::int64_t idleIndex() const;
  std::int64_t idleWraps() const;

  // Tries the decoder candidates in order; the first that loads sets decp2Desc ("<label>/<unit
  // in use>") and decp2CU. Nothing when no candidate loads.
  std::shared_ptr<GraphModel> loadDecp2();
  const std::optional<std::string>& decp2UnitInUse() const { return decp2CU; }
  const std::optional<std::string>& decp2Description() const { return decp2Desc; }

 private:
  Lumora2Engine();

  struct Window {
    std::vector<float> samples;  // exactly 44,000
    std::uint64_t gen = 0;
    std::int64_t ci = 0;
  };

  // audio_intake.cpp
  void scheduleProcessing();
  void processAvailable() LUMORA2_EXCLUDES(lock_, processing_);
  Window assembleWindow() LUMORA2_REQUIRES(processing_) LUMORA2_EXCLUDES(lock_);
  std::vector<float> windowFeats(const std::vector<float>& window) LUMORA2_REQUIRES(processing_);
  std::vector<bool> voiceActivity(std::int64_t firstPos, std::int64_t count) const
      LUMORA2_EXCLUDES(lock_);
  void trimBuffer() LUMORA2_REQUIRES(lock_);
  std::int64_t receivedLocked() const LUMORA2_REQUIRES(lock_);
  // chunk_inference.cpp
  void processChunkInner() LUMORA2_REQUIRES(processing_) LUMORA2_EXCLUDES(lock_);
  std::vector<Unit> decodeChunkDecp2(const std::vector<float>& lat, std::int64_t blk, bool isSpeech,
                                     std::int64_t ci) LUMORA2_REQUIRES(processing_)
      LUMORA2_EXCLUDES(lock_);
  MultiArray predMA(const GraphModel& model, const FeatureSet& inputs);
  // lumora2_engine.cpp
  void resetCtx() LUMORA2_EXCLUDES(processing_);
  void resetCtxLocked() LUMORA2_REQUIRES(processing_);
  void startSegmentLocked() LUMORA2_REQUIRES(lock_);
  float sharpenAmountLocked() LUMORA2_REQUIRES(pulling_);

  // ---- Set by warm-up on the caller's thread before isReady; read-only afterwards.
  std::shared_ptr<GraphModel> w2v_, atok_, student_, decp2_;
  std::vector<float> canon_;
  std::optional<std::vector<float>> warmCtx_;
  std::optional<std::vector<std::uint8_t>> idle_;
  std::unique_ptr<IdleClipStream> idleClip_;
  std::optional<std::string> idleUnavailableReason_;
  std::string decoderDesc_ = "unwarmed";
  std::optional<std::string> decp2Desc;
  std::optional<std::string> decp2CU;
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

  // ---- Processing state: the latent context and the decoder input.
  mutable Mutex processing_;
  MultiArray ctxMA_ LUMORA2_GUARDED_BY(processing_);   // float32 [1, 16, 16, 90, 52]
  MultiArray decp2X_ LUMORA2_GUARDED_BY(processing_);  // float32 [1, 36, 90, 52]
  std::int64_t numTokens_ LUMORA2_GUARDED_BY(processing_) = 14;
  std::int64_t onsetBase_ = 6;

  // ---- The frame path's scratch, for pullers.
  Mutex pulling_;
  std::unique_ptr<FramePath> framePath_ LUMORA2_GUARDED_BY(pulling_);
  std::optional<float> sharpen_ LUMORA2_GUARDED_BY(pulling_);

  std::atomic<bool> kickPending_{false};  // a processAvailable task is queued and not started
  std::unique_ptr<SerialQueue> procQ_;    // last: destroyed first, before what its tasks use
};

}  // namespace lumora2
