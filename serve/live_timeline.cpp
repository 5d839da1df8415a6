#include "live_timeline.h"

#include <algorithm>
#include <utility>

#include "client/frame_buffers.h"
#include "protocol/stream_wire.h"

namespace lumora2::serve {

LiveTimeline::LiveTimeline(IdleSource& idle)
    : composer_([this](const Picture& p, Composer::Kind) { onComposed(p); }, idle) {
  // The entry dissolve learns how much each part of the picture moves from the pictures it holds:
  // as many as an item needs before it may start, so that holding them never stalls.
  composer_.setEntryHold(kStartFrames);
}

LiveTimeline::Item* LiveTimeline::find(std::uint64_t id) {
  for (auto& item : items_)
    if (item->id == id) return item.get();
  return nullptr;
}

const LiveTimeline::Item* LiveTimeline::find(std::uint64_t id) const {
  for (const auto& item : items_)
    if (item->id == id) return item.get();
  return nullptr;
}

std::uint64_t LiveTimeline::addRecording(std::vector<float> samples,
                                         std::vector<std::pair<std::size_t, std::size_t>> segments,
                                         TimePoint arrived) {
  auto item = std::make_unique<Item>();
  item->id = nextId_++;
  item->arrived = arrived;
  item->samples = std::move(samples);
  item->complete = true;
  for (const auto& [first, end] : segments) {
    Segment s;
    s.first = first;
    s.end = std::min(end, item->frames());
    if (s.end > s.first) item->segments.push_back(std::move(s));
  }
  items_.push_back(std::move(item));
  return items_.back()->id;
}

std::uint64_t LiveTimeline::beginStream(TimePoint arrived, bool sentences) {
  auto item = std::make_unique<Item>();
  item->id = nextId_++;
  item->arrived = arrived;
  item->streamed = true;
  item->sentences = sentences;
  if (!sentences) item->segments.emplace_back();
  items_.push_back(std::move(item));
  return items_.back()->id;
}

void LiveTimeline::appendStream(std::uint64_t id, const float* samples, std::size_t count) {
  Item* item = find(id);
  if (item == nullptr || item->complete || count == 0) return;
  if (item->sentences && (item->segments.empty() || item->segments.back().closed)) {
    // A new sentence: right after the one before, or, when the item has already played past
    // that, at its next undecided frame.
    Segment s;
    s.first = item->frames();
    if (item == current_) s.first = std::max(s.first, composer_.position() - item->startPosition);
    s.end = s.first;
    item->samples.resize(s.first * kFrameSamples, 0.0f);
    item->segments.push_back(std::move(s));
  }
  item->samples.insert(item->samples.end(), samples, samples + count);
  Segment& last = item->segments.back();
  last.end = item->frames();
  last.made += count;
}

void LiveTimeline::endSentence(std::uint64_t id) {
  Item* item = find(id);
  if (item == nullptr || !item->sentences || item->segments.empty()) return;
  item->samples.resize(item->frames() * kFrameSamples, 0.0f);
  item->segments.back().closed = true;
}

std::size_t LiveTimeline::endStream(std::uint64_t id) {
  Item* item = find(id);
  if (item == nullptr) return 0;
  item->complete = true;
  if (item->sentences) {
    endSentence(id);
  } else {
    item->segments.front().end = item->frames();
  }
  return item->samples.size();
}

std::size_t LiveTimeline::madeSamples(std::uint64_t id, std::size_t samples) {
  const Item* item = findAny(id);
  if (item == nullptr || !item->sentences) return samples;
  std::size_t made = 0;
  for (const Segment& s : item->segments) {
    const std::size_t from = s.first * kFrameSamples;
    if (samples > from) made += std::min(samples - from, s.made);
  }
  return made;
}

bool LiveTimeline::sentenceReady(Item& item, std::size_t k) {
  Segment& s = item.segments[k];
  std::size_t ready = 0;
  while (s.frames.count(ready) != 0) ++ready;
  if (s.closed && (ready >= std::min(kStartFrames, s.end - s.first) || framesAhead_ >= aheadCap_)) {
    return true;
  }
  item.samples.insert(item.samples.begin() + std::ptrdiff_t(s.first * kFrameSamples), kFrameSamples,
                      0.0f);
  for (std::size_t j = k; j < item.segments.size(); ++j) {
    ++item.segments[j].first;
    ++item.segments[j].end;
  }
  return false;
}

LiveTimeline::Item* LiveTimeline::findAny(std::uint64_t id) {
  if (Item* item = find(id)) return item;
  for (auto& item : finished_)
    if (item->id == id) return item.get();
  return nullptr;
}

bool LiveTimeline::wants(std::uint64_t id, std::size_t segment) const {
  const Item* item = find(id);
  return item != nullptr && !item->cut && segment < item->segments.size() &&
         !item->segments[segment].done;
}

LiveTimeline::Cut LiveTimeline::interrupt() {
  Cut cut;
  for (auto it = items_.begin(); it != items_.end();) {
    Item& item = **it;
    if (&item == current_) {
      ++it;
      continue;
    }
    cut.dropped.push_back(item.id);
    for (Segment& s : item.segments) framesAhead_ -= s.frames.size();
    it = items_.erase(it);
  }
  muteUpTo_ = nextId_ - 1;
  muteFrom_ = framesOut_;
  fadePending_ = true;
  if (current_ == nullptr) return cut;
  Item& item = *current_;
  // What is decided plays out (its pictures); nothing after it.
  const std::size_t decided = composer_.position() - item.startPosition;
  item.samples.resize(std::min(item.samples.size(), decided * kFrameSamples));
  item.complete = true;
  item.cut = true;
  for (Segment& s : item.segments) {
    framesAhead_ -= s.frames.size();
    s.frames.clear();
    s.end = std::max(s.first, std::min(s.end, decided));
    s.done = true;
  }
  cut.playing = item.id;
  // The next frame handed out fades if it is still one of the item's.
  const bool fades = item.handedOut < decided;
  cut.framesHeard = item.handedOut + (fades ? 1 : 0);
  return cut;
}

bool LiveTimeline::dropUnstarted(std::uint64_t id) {
  for (auto it = items_.begin(); it != items_.end(); ++it) {
    Item& item = **it;
    if (item.id != id) continue;
    if (item.started) return false;
    for (Segment& s : item.segments) framesAhead_ -= s.frames.size();
    items_.erase(it);
    return true;
  }
  return false;
}

std::optional<LiveTimeline::RenderWork> LiveTimeline::renderWork(std::size_t sent) const {
  for (const auto& item : items_) {
    for (std::size_t k = 0; k < item->segments.size(); ++k) {
      const Segment& s = item->segments[k];
      if (s.done) continue;
      RenderWork work;
      work.item = item->id;
      work.segment = k;
      const std::size_t from = s.first * kFrameSamples;
      const std::size_t to = std::min(item->samples.size(), s.end * kFrameSamples);
      if (from + sent < to) {
        work.samples.assign(item->samples.begin() + std::ptrdiff_t(from + sent),
                            item->samples.begin() + std::ptrdiff_t(to));
      }
      work.complete = item->complete || s.closed;
      work.frames = s.end - s.first;
      return work;
    }
    // An open text stream's next sentence comes before anything queued after it.
    if (item->sentences && !item->complete) break;
  }
  return std::nullopt;
}

void LiveTimeline::addFrame(std::uint64_t id, std::size_t segment, std::size_t position,
                            Picture picture, TimePoint now) {
  Item* item = find(id);
  if (item == nullptr || segment >= item->segments.size()) return;
  Segment& s = item->segments[segment];
  if (position < s.played || (item->complete && position >= s.end - s.first)) return;
  if (!s.firstFrameAt) {
    s.firstFrameAt = now;
    if (segment == 0) firstRendered_ = std::chrono::duration<double>(now - item->arrived).count();
  }
  if (s.frames.emplace(position, std::move(picture)).second) {
    ++s.received;
    ++framesAhead_;
  }
  if (framesAhead_ >= aheadCap_) s.throttled = true;
}

void LiveTimeline::audioSent(std::uint64_t id, std::size_t segment, TimePoint now) {
  Item* item = find(id);
  if (item != nullptr && segment < item->segments.size()) {
    Segment& s = item->segments[segment];
    s.audioSentAt = now;
    s.receivedAtAudioSent = s.received;
  }
}

void LiveTimeline::segmentDone(std::uint64_t id, std::size_t segment, TimePoint now) {
  Item* item = find(id);
  if (item == nullptr || segment >= item->segments.size()) return;
  Segment& s = item->segments[segment];
  s.done = true;
  if (!s.audioSentAt || !s.firstFrameAt || s.throttled) return;
  // The child's speed on a whole segment. Sent whole before its first frame came (a recording, a
  // short text): how long that first frame took (the largest seen), and frames a second from
  // there on. Streamed while it rendered (a longer text, a stream): the child waited for sound
  // until the last of it was sent, and rendered at its own speed only from then on.
  if (s.receivedAtAudioSent == 0 && s.received > 1) {
    latency_ =
        std::max(latency_, std::chrono::duration<double>(*s.firstFrameAt - *s.audioSentAt).count());
    const double seconds = std::chrono::duration<double>(now - *s.firstFrameAt).count();
    if (seconds > 0) rate_ = double(s.received - 1) / seconds;
  } else if (s.received >= s.receivedAtAudioSent + kStartFrames) {
    const double seconds = std::chrono::duration<double>(now - *s.audioSentAt).count();
    if (seconds > 0) rate_ = double(s.received - s.receivedAtAudioSent) / seconds;
  }
}

bool LiveTimeline::mayStart(const Item& item, TimePoint now) const {
  if (item.segments.empty()) return item.complete;
  const Segment& s = item.segments.front();
  if (s.done) return true;
  if (item.sentences && !s.closed) return false;
  const std::size_t length = item.complete || s.closed ? s.end - s.first : SIZE_MAX;
  // Frames at hand from the segment's start on.
  std::size_t ready = 0;
  while (s.frames.count(ready) != 0) ++ready;
  if (ready < std::min(kStartFrames, length)) return false;
  // The child waits for frames to be played: waiting longer gains nothing.
  if (framesAhead_ >= aheadCap_) return true;
  if (!item.complete && !item.sentences) return streamInTime(item);
  // Whether the rest will be rendered in time at the speed measured so far: a segment's frames
  // come `latency_` after its sound was sent, then at `rate_` frames a second. Before any segment
  // has finished, the first one's own progress is the measure (its latency counted as rendering
  // time, which errs on the slow side).
  double rate = rate_;
  double latency = latency_;
  if (rate <= 0) {
    // A segment sent whole counts from when it was sent; one that rendered while its sound came
    // (a text: all of it was made within moments) from its first frame.
    const bool whole = s.audioSentAt && s.receivedAtAudioSent == 0;
    const std::optional<TimePoint> from = whole ? s.audioSentAt : s.firstFrameAt;
    const std::size_t counted =
        whole ? s.received : s.received - std::min<std::size_t>(s.received, 1);
    if (!from || counted == 0) return false;
    const double seconds = std::chrono::duration<double>(now - *from).count();
    if (seconds <= 0) return false;
    rate = double(counted) / seconds;
    latency = 0;
  }
  // Measures from a few frames are rough: the plan keeps a tenth of the speed and 150 ms in hand.
  rate *= 0.9;
  constexpr double kSlack = 0.15;
  // The child renders the item's segments one after another: each must be whole by the time its
  // last frame is due, and (after the first) its first frames by the time they are due.
  double busy = kSlack;  // seconds from now until the child starts on the segment
  for (const Segment& k : item.segments) {
    const std::size_t frames = k.end - k.first;
    const double left = double(frames - std::min(k.received, frames));
    const double wait = k.received > 0 ? 0.0 : latency;
    if (&k != &s && busy + wait + std::min(left, double(kStartFrames)) / rate >
                        double(k.first + kLookahead) / 20.0) {
      return false;
    }
    busy += wait + left / rate;
    if (busy > double(k.end + kLookahead - 1) / 20.0) return false;
  }
  return true;
}

bool LiveTimeline::streamInTime(const Item& item) const {
  // Its sound is assumed to arrive from now on no faster than it plays (a voice that sends it
  // faster only gains). The frame that waits longest for its sound is the first of each chunk,
  // and every chunk after the next keeps the same margin as the next one: that one decides.
  const std::size_t arrived = item.samples.size();
  const std::size_t chunks = arrived / wire::kChunkSamples;  // whole chunks at hand
  const std::size_t frame =
      chunks == 0 ? 0 : wire::kFirstChunkFrames + (chunks - 1) * wire::kChunkFrames;
  const double soundDue =
      double(wire::samplesBeforeFrame(frame) - std::min(arrived, wire::samplesBeforeFrame(frame))) /
      double(wire::kSampleRate);
  // A chunk's frames come `latency_` after its sound (the largest seen; a tenth of a second
  // before any was measured), and 150 ms are kept in hand as for recordings.
  constexpr double kSlack = 0.15;
  const double render = latency_ > 0 ? latency_ : 0.1;
  return soundDue + render + kSlack <= double(frame) / double(wire::kFps);
}

void LiveTimeline::onComposed(const Picture& picture) {
  const std::size_t position = composer_.written();
  while (!finished_.empty() && !finished_.front()->holds(position) &&
         position >= finished_.front()->startPosition) {
    finished_.pop_front();
  }
  LiveFrame frame;
  frame.picture.width = picture.width;
  frame.picture.height = picture.height;
  frame.picture.bytes = render::takeFrameBuffer(picture.bytes.size());
  std::copy(picture.bytes.begin(), picture.bytes.end(), frame.picture.bytes.begin());
  frame.samples.assign(kFrameSamples, 0.0f);
  const Item* owner = nullptr;
  for (const auto& item : finished_)
    if (item->holds(position)) owner = item.get();
  if (owner == nullptr && current_ != nullptr && current_->holds(position)) owner = current_;
  if (owner != nullptr) {
    frame.speech = true;
    frame.item = owner->id;
    frame.itemFrame = position - owner->startPosition;
    frame.itemLast = owner->complete && frame.itemFrame + 1 == owner->frames();
    if (!owner->segments.empty() && position == owner->startPosition + owner->segments[0].first) {
      frame.itemArrived = owner->arrived;
    }
    const std::size_t from = (position - owner->startPosition) * kFrameSamples;
    const std::size_t to = std::min(owner->samples.size(), from + kFrameSamples);
    if (from < to) {
      std::copy(owner->samples.begin() + std::ptrdiff_t(from),
                owner->samples.begin() + std::ptrdiff_t(to), frame.samples.begin());
    }
  }
  out_.push_back(std::move(frame));
}

void LiveTimeline::finishCurrent() {
  Item& item = *current_;
  // Cut short, the picture leaves the utterance at once (the mouth first) and the next item may
  // land over that dissolve.
  if (inUtterance_) item.cut ? composer_.cutUtterance() : composer_.endUtterance();
  inUtterance_ = false;
  for (Segment& s : item.segments) {
    framesAhead_ -= s.frames.size();
    s.frames.clear();
  }
  ++itemsSpoken_;
  finished_.push_back(std::move(items_.front()));
  items_.pop_front();
  current_ = nullptr;
}

bool LiveTimeline::decide(TimePoint now) {
  while (out_.empty()) {
    if (current_ == nullptr) {
      if (!items_.empty() && mayStart(*items_.front(), now)) {
        current_ = items_.front().get();
        current_->started = true;
        current_->startPosition = composer_.position();
        continue;
      }
      composer_.idleUntil(composer_.position() + 1);
      composer_.releaseIdle(kLookahead);
      continue;
    }
    Item& item = *current_;
    const std::size_t q = composer_.position() - item.startPosition;
    if (item.complete && q >= item.frames()) {
      finishCurrent();
      continue;
    }
    // The segment that holds frame q, if any.
    Segment* segment = nullptr;
    std::size_t k = 0;
    for (; k < item.segments.size(); ++k) {
      Segment& s = item.segments[k];
      if (q >= s.first && (q < s.end || (!item.complete && item.streamed && !item.sentences))) {
        segment = &s;
        break;
      }
    }
    // A sentence of a text stream begins only with frames at hand; until then, silence.
    if (segment != nullptr && item.sentences && k > 0 && q == segment->first &&
        segment->played == 0 && !sentenceReady(item, k)) {
      segment = nullptr;
    }
    if (segment == nullptr) {
      // Between utterances of the item: its own sound over the idle clip.
      if (inUtterance_) composer_.endUtterance();
      inUtterance_ = false;
      composer_.idleUntil(composer_.position() + 1);
      composer_.releaseIdle(kLookahead);
      continue;
    }
    const std::size_t p = q - segment->first;
    auto frame = segment->frames.find(p);
    if (frame != segment->frames.end()) {
      if (!inUtterance_ || utteranceSegment_ != k) {
        if (inUtterance_) composer_.endUtterance();
        composer_.beginUtterance();
        inUtterance_ = true;
        utteranceSegment_ = k;
      }
      composer_.rendered(frame->second);
      ++renderedOut_;
      render::keepFrameBuffer(std::move(frame->second.bytes));  // composed, it goes on as a copy
      segment->frames.erase(frame);
      segment->played = p + 1;
      --framesAhead_;
      continue;
    }
    const bool skipped = !segment->frames.empty() && segment->frames.begin()->first > p;
    if (segment->done || skipped) {
      // A frame the child did not render: the idle clip shows in its place.
      composer_.idleUntil(composer_.position() + 1);
      composer_.releaseIdle(0);
      segment->played = p + 1;
      continue;
    }
    lastWait_ = Wait{itemsSpoken_ + 1, q, segment->received};
    return false;  // due and not rendered yet
  }
  return true;
}

bool LiveTimeline::next(LiveFrame& out, TimePoint now) {
  if (!decide(now)) return false;
  out = std::move(out_.front());
  out_.pop_front();
  if (out.item != 0) {
    if (Item* item = findAny(out.item)) ++item->handedOut;
    if (out.item <= muteUpTo_ && framesOut_ >= muteFrom_) {
      // Cut: the first frame after the interrupt fades out (no click), the rest are silent.
      out.cut = true;
      const float step = 1.0f / float(out.samples.size());
      for (std::size_t i = 0; i < out.samples.size(); ++i) {
        out.samples[i] *= fadePending_ ? 1.0f - step * float(i + 1) : 0.0f;
      }
    }
  }
  if (framesOut_ >= muteFrom_) fadePending_ = false;
  ++framesOut_;
  return true;
}

}  // namespace lumora2::serve
