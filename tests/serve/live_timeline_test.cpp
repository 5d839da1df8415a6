// The live timeline on a fast clock: a simulated render process (frames at a given speed after a
// first-chunk latency) feeds it, and a long session of alternating speech and silence is played
// out frame by frame. Every frame carries exactly 800 samples; the sound is every item's sound,
// once, in order; a rendered picture leaves with the very samples it was rendered from; and the
// start rule keeps the output from ever stalling, even when rendering is slower than real time.
#include "serve/live_timeline.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <optional>
#include <vector>

#include "family_fixture.h"
#include "protocol/stream_wire.h"

namespace lumora2::serve {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::size_t kStampBits = 16;

// Writes p into the first row of the picture's U plane, one sample per bit, 100 or 156: a mark
// the seam measures (luma) hardly see, and that any blend makes unreadable.
void stamp(Picture& picture, std::size_t p) {
  std::uint8_t* u = picture.bytes.data() + picture.lumaBytes();
  for (std::size_t bit = 0; bit < kStampBits; ++bit) u[bit] = ((p >> bit) & 1) != 0 ? 156 : 100;
}

// The stamp of a picture shown unblended; nothing for a blend or an idle frame.
std::optional<std::size_t> readStamp(const Picture& picture) {
  const std::uint8_t* u = picture.bytes.data() + picture.lumaBytes();
  std::size_t p = 0;
  for (std::size_t bit = 0; bit < kStampBits; ++bit) {
    if (u[bit] != 100 && u[bit] != 156) return std::nullopt;
    if (u[bit] == 156) p |= std::size_t(1) << bit;
  }
  return p;
}

// The sound of frame p of an item: every sample says p.
float soundOf(std::size_t p) { return float(p + 1) / 65536.0f; }

std::vector<float> soundOfFrames(std::size_t frames) {
  std::vector<float> sound(frames * kFrameSamples);
  for (std::size_t f = 0; f < frames; ++f) {
    std::fill_n(sound.begin() + std::ptrdiff_t(f * kFrameSamples), kFrameSamples, soundOf(f));
  }
  return sound;
}

struct Pace {
  double fps;         // the simulated render process's speed
  double firstChunk;  // seconds before its first frame
  double minutes;     // of session
  const char* name;
};

class LiveTimelineOnAFastClock : public ::testing::TestWithParam<Pace> {};

TEST_P(LiveTimelineOnAFastClock, SoundAndPicturesStayTogetherWithoutAStall) {
  const Pace pace = GetParam();
  IdleSource idle(family::test::generatedFamily().root / "ava.avatar");
  LiveTimeline timeline(idle);

  // The session's items: alternating speech (2–7 s, one or two utterances) and silence (1–5 s),
  // each item handed over when the one before has been heard and its silence has passed.
  struct Planned {
    std::size_t frames;
    std::vector<std::pair<std::size_t, std::size_t>> segments;
  };
  std::vector<Planned> plan;
  const std::size_t totalFrames = std::size_t(pace.minutes * 60 * 20);
  std::size_t planned = 0;
  for (std::size_t i = 0; planned < totalFrames * 3 / 4; ++i) {
    const std::size_t frames = 40 + (i * 37) % 100;
    plan.push_back({frames, {{2, frames}}});
    if (i % 3 == 0) plan.back().segments = {{0, frames / 2 - 5}, {frames / 2 + 10, frames}};
    planned += frames + 20 + (i * 13) % 80;
  }

  // The simulated render process: one segment at a time, as the session's render thread does.
  struct Rendering {
    std::uint64_t item = 0;
    std::size_t segment = 0;
    std::size_t frames = 0;
    std::size_t made = 0;
    Clock::time_point sentAt;
  };
  std::optional<Rendering> rendering;
  auto render = [&](Clock::time_point now) {
    for (;;) {
      if (!rendering) {
        const auto work = timeline.renderWork(0);
        if (!work) return;
        rendering = Rendering{work->item, work->segment, work->frames, 0, now};
        timeline.audioSent(work->item, work->segment, now);
      }
      const double elapsed = std::chrono::duration<double>(now - rendering->sentAt).count();
      const auto due = std::size_t(std::max(0.0, (elapsed - pace.firstChunk) * pace.fps));
      while (rendering->made < std::min(due, rendering->frames)) {
        Picture picture = idle.frame(rendering->made * 7);
        stamp(picture, rendering->made);
        timeline.addFrame(rendering->item, rendering->segment, rendering->made, picture, now);
        ++rendering->made;
      }
      if (rendering->made < rendering->frames) return;
      timeline.segmentDone(rendering->item, rendering->segment, now);
      rendering.reset();
    }
  };

  Clock::time_point now{};
  std::size_t nextPlanned = 0;
  std::size_t silence = 0;  // idle frames since the last item was heard
  std::size_t stalls = 0;
  // The sound heard, item by item: for each speech frame, (item index, frame within item).
  std::size_t itemIndex = 0, itemFrame = 0;
  std::size_t stamped = 0, segmentFrames = 0;
  LiveFrame frame;
  for (std::size_t n = 0; n < totalFrames; ++n) {
    now += std::chrono::milliseconds(50);
    if (nextPlanned < plan.size() && timeline.queuedItems() == 0 &&
        silence >= 20 + (nextPlanned * 13) % 80) {
      const Planned& p = plan[nextPlanned++];
      timeline.addRecording(soundOfFrames(p.frames), p.segments);
    }
    render(now);
    while (!timeline.next(frame, now)) {
      ++stalls;
      now += std::chrono::milliseconds(5);
      render(now);
      ASSERT_LT(stalls, 100000u) << "the timeline never recovers";
    }
    ASSERT_EQ(frame.samples.size(), kFrameSamples);
    ASSERT_EQ(frame.picture.width, idle.width());
    if (!frame.speech) {
      ASSERT_EQ(frame.samples.front(), 0.0f) << "sound in the idle clip at frame " << n;
      ++silence;
      if (itemFrame != 0) FAIL() << "item " << itemIndex << " was cut short at " << itemFrame;
      continue;
    }
    silence = 0;
    // One item's frames in order, each with its own sound, and its pictures with them.
    ASSERT_LT(itemIndex, plan.size());
    ASSERT_EQ(frame.samples.front(), soundOf(itemFrame))
        << "item " << itemIndex << " frame " << itemFrame;
    ASSERT_EQ(frame.samples.back(), soundOf(itemFrame));
    const Planned& heard = plan[itemIndex];
    for (const auto& [first, end] : heard.segments) {
      if (itemFrame >= first && itemFrame < end) {
        ++segmentFrames;
        if (const auto p = readStamp(frame.picture)) {
          ASSERT_EQ(*p, itemFrame - first) << "picture and sound apart in item " << itemIndex;
          ++stamped;
        }
      }
    }
    if (++itemFrame == heard.frames) {
      ++itemIndex;
      itemFrame = 0;
    }
  }
  EXPECT_EQ(timeline.framesOut(), totalFrames);
  EXPECT_EQ(stalls, 0u) << "the output stalled";
  EXPECT_GE(itemIndex, plan.size() / 2) << "speech was held back";
  // Most speech frames show the rendered picture itself (the rest are the seams' blends).
  EXPECT_GT(double(stamped), 0.8 * double(segmentFrames)) << stamped << " of " << segmentFrames;
}

INSTANTIATE_TEST_SUITE_P(Renderers, LiveTimelineOnAFastClock,
                         ::testing::Values(Pace{200, 0.05, 120, "TwoHoursFastRenderer"},
                                           Pace{14, 0.4, 5, "SlowerThanRealTime"}),
                         [](const auto& param) { return std::string(param.param.name); });

// Streamed speech, as a voice sends it while it speaks: the simulated child renders as the real
// one does, a chunk's frames only once the chunk's sound has all been sent to it
// (wire::samplesBeforeFrame), and the rest when the stream ends, and it waits while the session
// holds as many rendered frames as it may (200). The stream must start late enough that none of
// its frames is ever missing when due, and no later than that needs.
struct Voice {
  double speed;        // seconds of sound sent per second
  double fps;          // the child's speed
  std::size_t frames;  // the stream's length
  double latestStart;  // the latest its first frame may play, in seconds after its first sample
  const char* name;
};

class StreamedSpeech : public ::testing::TestWithParam<Voice> {};

TEST_P(StreamedSpeech, StartsAsSoonAsItCanWithoutAStall) {
  const Voice voice = GetParam();
  IdleSource idle(family::test::generatedFamily().root / "ava.avatar");
  LiveTimeline timeline(idle);
  constexpr std::size_t kCap = 200;
  timeline.setAheadCap(kCap);
  const std::size_t kFrames = voice.frames;
  const double kLatency = 0.08, kFps = voice.fps;
  const auto seconds = [](double s) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(s));
  };

  Clock::time_point now{};
  const Clock::time_point begun = now;
  const std::uint64_t id = timeline.beginStream(now);
  const std::vector<float> sound = soundOfFrames(kFrames);
  std::size_t arrived = 0, sent = 0, made = 0;
  bool flushed = false;
  std::vector<Clock::time_point> renderable;  // when each frame could be rendered
  Clock::time_point lastMade{};
  std::optional<double> start;
  std::size_t stalls = 0, heard = 0;
  LiveFrame frame;
  auto tick = [&](Clock::duration step) {
    now += step;
    // The voice.
    const auto due =
        std::min(sound.size(), std::size_t(std::chrono::duration<double>(now - begun).count() *
                                           voice.speed * wire::kSampleRate));
    if (arrived < sound.size() && due > arrived) {
      timeline.appendStream(id, sound.data() + arrived, due - arrived);
      arrived = due;
      if (arrived == sound.size()) timeline.endStream(id);
    }
    // The session's render thread and the child.
    if (const auto work = timeline.renderWork(sent); work && !flushed) {
      sent += work->samples.size();
      flushed = work->complete;
      if (flushed) timeline.audioSent(id, 0, now);
    }
    while (renderable.size() < kFrames &&
           (flushed || wire::samplesBeforeFrame(renderable.size()) <= sent)) {
      renderable.push_back(now);
    }
    while (made < renderable.size() && timeline.framesAhead() < kCap) {
      const Clock::time_point at =
          std::max(renderable[made] + seconds(kLatency), lastMade + seconds(1 / kFps));
      if (at > now) break;
      Picture picture = idle.frame(made * 7);
      stamp(picture, made);
      timeline.addFrame(id, 0, made++, picture, at);
      lastMade = at;
    }
    if (made == kFrames) timeline.segmentDone(id, 0, now);
  };
  for (std::size_t n = 0; n < 20 * 40; ++n) {
    tick(std::chrono::milliseconds(50));
    while (!timeline.next(frame, now)) {
      ++stalls;
      tick(std::chrono::milliseconds(5));
      ASSERT_LT(stalls, 10000u) << "the timeline never recovers";
    }
    if (!frame.speech) {
      ASSERT_TRUE(heard == 0 || heard == kFrames) << "the stream was cut at frame " << heard;
      continue;
    }
    if (!start) start = std::chrono::duration<double>(now - begun).count();
    ASSERT_EQ(frame.samples.front(), soundOf(heard)) << "frame " << heard;
    ++heard;
  }
  EXPECT_EQ(stalls, 0u) << "the output stalled";
  EXPECT_EQ(heard, kFrames);
  ASSERT_TRUE(start.has_value());
  EXPECT_LE(*start, voice.latestStart) << "held back longer than it needed";
}

// Sent in real time, the second chunk's first frame (1.1 s in) needs 3.2 s of sound: the stream
// starts after about 2.3 s. A voice three times faster than real time starts within a second. A
// text made at once (hundreds of times faster than spoken) and longer than the frames the session
// holds starts as soon as its first frames are there, before any speed was measured; rendered
// just faster than real time, it starts once the session holds all it may.
INSTANTIATE_TEST_SUITE_P(Voices, StreamedSpeech,
                         ::testing::Values(Voice{1.0, 100, 230, 2.5, "RealTime"},
                                           Voice{3.0, 100, 230, 1.0, "ThreeTimesRealTime"},
                                           Voice{600.0, 100, 300, 0.5, "LongTextMadeAtOnce"},
                                           Voice{600.0, 21, 300, 10.5,
                                                 "LongTextRenderedJustInTime"}),
                         [](const auto& param) { return std::string(param.param.name); });

// A text written as it is spoken: each sentence is made at once when its last word is written,
// and the writer sometimes pauses longer than the sentence before takes to say. The simulated
// child renders each sentence whole once it is made. The first sentence plays as soon as its
// first frames are rendered; a sentence made in time follows the one before without a gap; one
// that comes late plays after silence over the idle clip; the output never stalls and every
// sentence's sound is heard whole, in order.
TEST(WrittenText, PausesForTheWriterInsteadOfStalling) {
  IdleSource idle(family::test::generatedFamily().root / "ava.avatar");
  LiveTimeline timeline(idle);
  timeline.setAheadCap(200);
  const std::vector<std::size_t> lengths = {34, 9, 50, 21};  // frames of each sentence
  const std::vector<double> writtenAt = {0.0, 0.4, 4.5, 4.6};
  const auto at = [](double s) {
    return Clock::time_point{} +
           std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(s));
  };
  Clock::time_point now{};
  const std::uint64_t id = timeline.beginStream(now, true);
  std::size_t written = 0;
  // The child: the segment it renders, the samples it was sent, when it could start, its frames.
  std::optional<std::size_t> segment;
  std::size_t sent = 0, made = 0, frames = 0;
  std::optional<Clock::time_point> flushed;
  Clock::time_point lastMade{};
  auto tick = [&] {
    for (; written < lengths.size() && now >= at(writtenAt[written]); ++written) {
      // The sound of frame f of sentence k says 100 k + f; its last frame is part silence.
      std::vector<float> sound = soundOfFrames(100 * written + lengths[written]);
      sound.erase(sound.begin(), sound.begin() + std::ptrdiff_t(100 * written * kFrameSamples));
      sound.resize(sound.size() - 300);
      timeline.appendStream(id, sound.data(), sound.size());
      timeline.endSentence(id);
      if (written + 1 == lengths.size()) timeline.endStream(id);
    }
    if (const auto work = timeline.renderWork(segment ? sent : 0); work && !flushed) {
      if (segment != work->segment) sent = made = 0;
      segment = work->segment;
      sent += work->samples.size();
      if (work->complete) flushed = now, frames = work->frames;
    }
    while (flushed && made < frames) {
      const Clock::time_point when = std::max(*flushed + std::chrono::milliseconds(80),
                                              lastMade + std::chrono::milliseconds(17));
      if (when > now) break;
      Picture picture = idle.frame(made * 7);
      stamp(picture, made);
      timeline.addFrame(id, *segment, made++, picture, when);
      lastMade = when;
    }
    if (flushed && made == frames) {
      timeline.segmentDone(id, *segment, now);
      flushed.reset();
    }
  };
  std::vector<std::pair<std::size_t, double>> heard;  // 100 k + f, and when it played
  std::size_t stalls = 0, silentBetween = 0;
  LiveFrame frame;
  for (std::size_t n = 0; n < 20 * 10; ++n) {
    now += std::chrono::milliseconds(50);
    tick();
    while (!timeline.next(frame, now)) {
      ++stalls;
      now += std::chrono::milliseconds(5);
      tick();
      ASSERT_LT(stalls, 10000u) << "the timeline never recovers";
    }
    if (!frame.speech || frame.samples.front() == 0.0f) {
      if (!heard.empty() && heard.size() < 114) ++silentBetween;
      continue;
    }
    const auto p = std::size_t(std::lround(frame.samples.front() * 65536.0f)) - 1;
    heard.emplace_back(p, std::chrono::duration<double>(now.time_since_epoch()).count());
  }
  EXPECT_EQ(stalls, 0u) << "the output stalled";
  std::vector<std::size_t> expected;
  for (std::size_t k = 0; k < lengths.size(); ++k)
    for (std::size_t f = 0; f < lengths[k]; ++f) expected.push_back(100 * k + f);
  std::vector<std::size_t> got;
  for (const auto& [p, when] : heard) got.push_back(p);
  ASSERT_EQ(got, expected);
  // The first sentence within its render time (80 ms, and 8 frames at 60 a second) and a frame;
  // the second right after it; the third, written late, within as much of being written.
  EXPECT_LE(heard.front().second, 0.35);
  EXPECT_NEAR(heard[34].second - heard[33].second, 0.05, 1e-6) << "a gap between sentences made in time";
  EXPECT_LE(heard[43].second - writtenAt[2], 0.35);
  EXPECT_GT(silentBetween, 0u);
}

}  // namespace
}  // namespace lumora2::serve
