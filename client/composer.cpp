#include "composer.h"

#include <algorithm>
#include <cmath>
#include <optional>

namespace lumora2::render {

std::vector<double> Composer::regional(const std::vector<double>& steps, const Picture& picture) {
  const int across = picture.width / kTile, down = picture.height / kTile;
  std::vector<double> out(steps.size());
  for (int ty = 0; ty < down; ++ty) {
    for (int tx = 0; tx < across; ++tx) {
      double sum = 0;
      int count = 0;
      for (int y = std::max(ty - 1, 0); y <= std::min(ty + 1, down - 1); ++y) {
        for (int x = std::max(tx - 1, 0); x <= std::min(tx + 1, across - 1); ++x) {
          sum += steps[std::size_t(y) * std::size_t(across) + std::size_t(x)];
          ++count;
        }
      }
      out[std::size_t(ty) * std::size_t(across) + std::size_t(tx)] = sum / count;
    }
  }
  return out;
}

double Composer::ratioToReference(const Picture& a, const Picture& b) const {
  double ratio = pictureStep(a, b) / reference();
  const std::vector<double> steps = tileSteps(a, b, kTile);
  for (std::size_t t = 0; t < steps.size(); ++t) {
    const double local = t < tileReference_.size() ? tileReference_[t] : 0.0;
    ratio = std::max(ratio, steps[t] / std::max(local, kQuietTileStep));
  }
  return ratio;
}

std::size_t Composer::blendLength(const Picture& from, const Picture& to) const {
  const double ratio = ratioToReference(from, to);
  if (2 * ratio <= 1) return 0;
  return std::min(kMaxBlend, std::size_t(std::ceil(2 * ratio)) - 1);
}

IdleSource::JumpCheck Composer::unseenJump() const {
  return [this](std::size_t from, std::size_t to) {
    return ratioToReference(idle_.frame(from), idle_.frame(to)) <= 1;
  };
}

void Composer::idleUntil(std::size_t end) {
  settleEntry();
  if (dissolving_ && end > position()) {
    // Idle in the middle of an utterance (positions the child skipped): leave from what was shown.
    exit_ = last_;
    dissolving_ = false;
    dissolveFrom_.reset();
  }
  if (end > position()) pendingIdle_ += end - position();
}

void Composer::beginUtterance() {
  settleEntry();
  entering_ = position() > 0;
  previousRendered_.reset();
}

void Composer::rendered(const Picture& picture) {
  if (pendingIdle_ > 0 || exit_ || cut_) settleIdle(&picture);
  ++renderedCount_;
  if (previousRendered_) {
    largestRendered_ = std::max(largestRendered_, pictureStep(*previousRendered_, picture));
    const std::vector<double> steps =
        regional(tileSteps(*previousRendered_, picture, kTile), picture);
    tileReference_.resize(steps.size(), 0.0);
    for (std::size_t t = 0; t < steps.size(); ++t) {
      tileReference_[t] = std::max(tileReference_[t], steps[t]);
    }
    previousRendered_->bytes = picture.bytes;
  } else {
    previousRendered_ = picture;
  }
  if (entering_) {
    entry_.push_back(picture);
    if (entry_.size() >= entryHold_) settleEntry();
    return;
  }
  dissolveInto(picture);
}

void Composer::endUtterance() {
  settleEntry();
  // An utterance that ends before its entry dissolve arrived leaves from what was shown.
  exit_ = dissolving_ ? std::optional<Picture>(last_) : std::move(previousRendered_);
  dissolving_ = false;
  dissolveFrom_.reset();
  previousRendered_.reset();
}

void Composer::cutUtterance() {
  settleEntry();
  const std::optional<Picture> shown =
      dissolving_ ? std::optional<Picture>(last_) : std::move(previousRendered_);
  dissolving_ = false;
  dissolveFrom_.reset();
  previousRendered_.reset();
  if (!shown) return;
  const std::size_t held = idle_.nearest(idle_.likeness(*shown));
  largestGap_ = std::max(largestGap_, pictureStep(*shown, idle_.frame(held)));
  // The tiles the clip animates, and their neighbours (weights are spread between tile
  // centres), take the long dissolve; the rest arrive sooner.
  const int across = shown->width / kTile, down = shown->height / kTile;
  const std::size_t tiles = std::size_t(across) * std::size_t(down);
  const std::vector<double>& motion = idle_.tileMotion();
  std::vector<std::size_t> length(tiles, kCutBlendStill + 1);
  for (int ty = 0; ty < down; ++ty) {
    for (int tx = 0; tx < across; ++tx) {
      const std::size_t t = std::size_t(ty) * std::size_t(across) + std::size_t(tx);
      if (t >= motion.size() || motion[t] < kIdleMovingStep) continue;
      for (int y = std::max(ty - 1, 0); y <= std::min(ty + 1, down - 1); ++y) {
        for (int x = std::max(tx - 1, 0); x <= std::min(tx + 1, across - 1); ++x) {
          length[std::size_t(y) * std::size_t(across) + std::size_t(x)] = kCutBlend + 1;
        }
      }
    }
  }
  cut_ = CutExit{*shown, held, std::vector<double>(tiles, 0.0), std::move(length), 0};
}

void Composer::stepCut() {
  // No tile takes longer than its length: every weight is at least where an even dissolve of
  // that many steps would be.
  const Picture& held = idle_.frame(cut_->held);
  const double steps = double(++cut_->steps);
  std::vector<double> floors(cut_->length.size());
  for (std::size_t t = 0; t < floors.size(); ++t) {
    floors[t] = std::min(1.0, steps / double(cut_->length[t]));
  }
  if (stepTiles(cut_->from, held, cut_->alpha, floors)) {
    put(held, Kind::seam);
    lastIdleIndex_ = std::ptrdiff_t(cut_->held);
    idle_.seek(cut_->held + 1);
    cut_.reset();
    return;
  }
  put(scratch_, Kind::seam);
}

void Composer::finish() {
  settleEntry();
  settleIdle(nullptr);
}

void Composer::releaseIdle(std::size_t keep) {
  settleEntry();
  for (; pendingIdle_ > keep && cut_; --pendingIdle_) stepCut();
  if (pendingIdle_ <= keep) return;
  if (exit_) {
    const Picture& nearest = idle_.frame(idle_.nearest(idle_.likeness(*exit_)));
    pendingIdle_ = std::max(pendingIdle_, blendLength(*exit_, nearest) + 1);
    settleIdle(nullptr);
    return;
  }
  pendingIdle_ -= keep;
  settleIdle(nullptr);
  pendingIdle_ = keep;
}

void Composer::settleIdle(const Picture* upcoming) {
  const std::size_t end = written_ + pendingIdle_;
  pendingIdle_ = 0;
  // A cut utterance's exit dissolve goes on over the frames decided; an utterance that comes
  // before it arrived dissolves in from what was shown last.
  while (cut_ && written_ < end) stepCut();
  if (cut_) {
    idle_.seek(cut_->held + 1);
    cut_.reset();
    return;
  }
  const std::size_t n = idle_.frameCount();
  // The upcoming rendered picture and the clip frame most like it, where the idle should end.
  std::optional<IdleSource::Likeness> next;
  std::size_t target = 0;
  if (upcoming != nullptr) {
    next = idle_.likeness(*upcoming);
    target = idle_.nearest(*next);
  }
  std::ptrdiff_t previous = lastIdleIndex_;
  if (exit_) {
    // The last rendered picture dissolves into a clip frame held still meanwhile: the one most
    // like it, or, with the next utterance in view, the one from which the clip plays on to the
    // target without a jump, when the pictures that then meet (at either seam) are closer.
    const IdleSource::Likeness last = idle_.likeness(*exit_);
    std::size_t from = idle_.nearest(last);
    const std::size_t room = end - written_;
    const std::size_t dissolve = blendLength(*exit_, idle_.frame(from));
    if (next && room > dissolve + 1) {
      const std::size_t after = room - dissolve - 1;
      const IdleSource::Plan plan =
          idle_.planIdle(from + 1, after, target, std::ptrdiff_t(from), unseenJump());
      const double viaNearest = std::max(
          {idle_.distance(last, from), plan.jump, idle_.distance(*next, plan.frames.back())});
      const std::size_t straight = (target + n * (after + 1) - after) % n;
      const double viaStraight =
          std::max(idle_.distance(last, straight), idle_.distance(*next, target));
      if (viaStraight < viaNearest) from = straight;
    }
    // With too little room before `end` the dissolve stops part way, its steps as small as
    // ever; an utterance that follows dissolves from there.
    const Picture& held = idle_.frame(from);
    largestGap_ = std::max(largestGap_, pictureStep(*exit_, held));
    const std::size_t steps = blendLength(*exit_, held);
    for (std::size_t i = 1; i <= std::min(steps, room); ++i) {
      mixPictures(*exit_, held, double(i) / double(steps + 1), scratch_);
      put(scratch_, Kind::seam);
    }
    previous = -1;
    if (room > steps) {
      put(held, Kind::seam);
      previous = std::ptrdiff_t(from);
    }
    idle_.seek(from + 1);
    exit_.reset();
  }
  if (end <= written_) return;
  const std::size_t count = end - written_;
  std::vector<std::size_t> frames;
  if (next) {
    frames = idle_.planIdle(idle_.cursor(), count, target, previous, unseenJump()).frames;
  } else {
    for (std::size_t t = 0; t < count; ++t) frames.push_back((idle_.cursor() + t) % n);
  }
  for (std::size_t index : frames) {
    // A frame that does not follow the one before in the clip is a jump: measured as a seam.
    const bool follows = previous < 0 || (std::size_t(previous) + 1) % n == index;
    put(idle_.frame(index), follows ? Kind::idle : Kind::seam);
    previous = std::ptrdiff_t(index);
  }
  lastIdleIndex_ = previous;
  idle_.seek(frames.back() + 1);
}

// The entry dissolve: the rendered pictures fade in over the last idle frame P, each tile of the
// picture at its own pace: a tile's weight grows per frame by at most kEntryShare of its
// reference over how far P and the rendered picture differ there, so a tile where little moves
// while speaking (the eyes) takes its time and the mouth, which moves a lot, shows at once; the
// whole picture's step is kept within kEntryShare of its reference too. The weights only grow,
// so the dissolve never jumps; it goes on over the frames that follow the held ones until every
// tile has arrived at the rendered picture.
void Composer::settleEntry() {
  if (!entering_) return;
  entering_ = false;
  if (entry_.empty()) return;
  dissolveFrom_ = last_;
  dissolving_ = true;
  largestGap_ = std::max(largestGap_, pictureStep(last_, entry_.front()));
  tileAlpha_.assign(tileSteps(last_, entry_.front(), kTile).size(), 0.0);
  for (const Picture& r : entry_) dissolveInto(r);
  entry_.clear();
}

void Composer::dissolveInto(const Picture& r) {
  if (!dissolving_) {
    put(r, Kind::rendered);
    return;
  }
  if (stepTiles(*dissolveFrom_, r, tileAlpha_)) {
    dissolving_ = false;
    dissolveFrom_.reset();
    put(r, Kind::seam);  // the first frame that shows the rendered picture alone
    return;
  }
  put(scratch_, Kind::seam);
}

bool Composer::stepTiles(const Picture& from, const Picture& to, std::vector<double>& weights,
                         const std::vector<double>& floors) {
  const std::vector<double> gaps = tileSteps(from, to, kTile);
  std::vector<double> reach(gaps.size());
  bool arrives = true;
  for (std::size_t t = 0; t < gaps.size(); ++t) {
    const double local =
        std::max(t < tileReference_.size() ? tileReference_[t] : 0.0, kQuietTileStep);
    reach[t] = std::min(1.0, weights[t] + kEntryShare * local / std::max(gaps[t], 1e-9));
    arrives = arrives && reach[t] >= 1.0;
  }
  // Weights are spread between tile centres, so a tile may reach only as far as its slowest
  // neighbour: a fast tile beside a slow one would otherwise carry its pace into the slow one.
  {
    const int across = to.width / kTile, down = to.height / kTile;
    std::vector<double> eroded(reach.size());
    for (int ty = 0; ty < down; ++ty) {
      for (int tx = 0; tx < across; ++tx) {
        double least = 1.0;
        for (int y = std::max(ty - 1, 0); y <= std::min(ty + 1, down - 1); ++y) {
          for (int x = std::max(tx - 1, 0); x <= std::min(tx + 1, across - 1); ++x) {
            least = std::min(least, reach[std::size_t(y) * std::size_t(across) + std::size_t(x)]);
          }
        }
        const std::size_t t = std::size_t(ty) * std::size_t(across) + std::size_t(tx);
        eroded[t] = std::max(weights[t], least);
      }
    }
    reach = std::move(eroded);
  }
  // The largest share k of every tile's reach that keeps the whole picture's step within bounds.
  std::vector<double> alpha(gaps.size());
  auto fits = [&](double k) {
    for (std::size_t t = 0; t < alpha.size(); ++t) {
      alpha[t] = weights[t] + k * (reach[t] - weights[t]);
    }
    mixPicturesByTile(from, to, alpha, kTile, scratch_);
    return pictureStep(last_, scratch_) <= kEntryShare * reference();
  };
  if (!fits(1)) {
    double lo = 0, hi = 1;
    for (int i = 0; i < 8; ++i) {
      const double mid = (lo + hi) / 2;
      (fits(mid) ? lo : hi) = mid;
    }
    arrives = false;
    fits(lo);
  }
  if (!floors.empty() && !arrives) {
    arrives = true;
    for (std::size_t t = 0; t < alpha.size(); ++t) {
      alpha[t] = std::max(alpha[t], t < floors.size() ? floors[t] : 0.0);
      arrives = arrives && alpha[t] >= 1.0;
    }
    mixPicturesByTile(from, to, alpha, kTile, scratch_);
  }
  if (!arrives) weights = std::move(alpha);
  return arrives;
}

void Composer::put(const Picture& picture, Kind kind) {
  if (written_ > 0 && kind == Kind::seam) {
    largestSeam_ = std::max(largestSeam_, pictureStep(last_, picture));
  }
  lastIdleIndex_ = -1;  // settleIdle sets it again after an idle frame
  sink_(picture, kind);
  if (last_.bytes.size() != picture.bytes.size()) last_ = Picture(picture.width, picture.height);
  std::copy(picture.bytes.begin(), picture.bytes.end(), last_.bytes.begin());
  ++written_;
}

}  // namespace lumora2::render
