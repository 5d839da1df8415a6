// The voice of a LiveSession: texts said whole (say) and texts streamed as they are written
// (the audio WebSocket's {"text"} messages) become text jobs, which the voice thread makes one
// after another, sentence by sentence, each sentence going into the job's streamed timeline item
// as soon as it is made. What each sentence holds and where its words begin is kept while the
// item plays, so that an interrupt can say exactly what was heard.
#include "client/audio_input.h"
#include "live_session.h"

namespace lumora2::serve {

using Clock = std::chrono::steady_clock;

std::shared_ptr<LiveSession::TextJob> LiveSession::queueText(Clock::time_point arrived,
                                                             bool written) {
  checkRoom();
  auto job = std::make_shared<TextJob>();
  // A text being written is spoken a sentence at a time, pausing where the writer has not yet
  // finished the next one; a text said whole is made at once, as one stretch of speech.
  job->item = timeline_.beginStream(arrived, written);
  textJobs_.push_back(job);
  spoken_[job->item];
  lastActivity_ = Clock::now();
  return job;
}

LiveSession::Receipt LiveSession::say(std::vector<render::Sentence> sentences,
                                      Clock::time_point posted, bool interrupt) {
  if (interrupt) this->interrupt();
  nlohmann::json texts = nlohmann::json::array();
  for (const render::Sentence& s : sentences) texts.push_back(s.text);
  std::shared_ptr<TextJob> job;
  std::future<Receipt> receipt;
  {
    MutexLock hold(lock_);
    if (openText_) throw SessionError(409, "a streamed text is open; end it before saying more");
    job = queueText(posted, false);
    job->pending.assign(sentences.begin(), sentences.end());
    job->closed = true;
    receipt = job->done.emplace().get_future();
    sayTimes_ = SayTimes{job->item, posted, {}, {}, {}, {}};
  }
  events_.publish("utterance_queued",
                  {{"utterance", job->item}, {"kind", "text"}, {"sentences", texts}});
  sayQueued_.notify_all();
  // Making speech runs hundreds of times faster than speaking it: a minute is far more than a
  // whole text takes, whatever else the voice is busy with.
  if (receipt.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
    throw SessionError(503, "the voice is busy; the text is spoken as it is made");
  }
  return receipt.get();
}

void LiveSession::streamText(const std::string& words) {
  // Checked piece by piece: a piece of spaces is part of a text being written.
  try {
    render::checkText(words, 5000);
  } catch (const render::TextError& e) {
    if (e.kind() != render::TextError::Kind::blank) throw;
  }
  voice_.checkScripts(words);
  std::shared_ptr<TextJob> opened;
  {
    MutexLock hold(lock_);
    if (ended_) throw SessionError(409, "the session has ended");
    if (openStream_) {
      throw SessionError(409, "the open utterance is PCM: end it ({\"end\": true}) before text");
    }
    if (!openText_) {
      opened = openText_ = queueText(Clock::now(), true);
      textBuffer_.clear();
    }
    textBuffer_ += words;
    if (textBuffer_.size() > 64 * 1024) {
      throw SessionError(413, "more than 64 KiB of text without the end of a sentence");
    }
    render::WrittenSoFar sofar = render::completeSentences(textBuffer_);
    for (render::Sentence& s : sofar.complete) openText_->pending.push_back(std::move(s));
    textBuffer_ = std::move(sofar.rest);
    lastActivity_ = Clock::now();
  }
  if (opened) {
    events_.publish("utterance_queued", {{"utterance", opened->item}, {"kind", "text_stream"}});
  }
  sayQueued_.notify_all();
}

// Speaks the text jobs, one after another, a sentence at a time.
void LiveSession::voiceLoop() {
  for (;;) {
    std::shared_ptr<TextJob> job;
    render::Sentence sentence;
    bool finish = false;
    {
      MutexLock hold(lock_);
      auto ready = [&]() LUMORA2_REQUIRES(lock_) {
        if (textJobs_.empty()) return false;
        const TextJob& front = *textJobs_.front();
        return !front.pending.empty() || front.closed || front.cancelled || front.tooLong;
      };
      while (!ended_ && !ready()) sayQueued_.wait(lock_);
      if (ended_) break;
      job = textJobs_.front();
      finish = job->cancelled || job->tooLong || job->pending.empty();
      if (!finish) {
        sentence = std::move(job->pending.front());
        job->pending.pop_front();
      }
    }
    if (finish) {
      finishTextJob(job);
      continue;
    }
    std::vector<render::Voice::WordMark> words;
    const std::size_t before = job->made;
    try {
      voice_.speakOne(
          sentence, job->first,
          [&](const float* samples, std::size_t count) {
            if (job->cancelled) return false;
            if (job->made + count > options_.maxStreamSamples) {
              job->tooLong = true;
              return false;
            }
            job->made += count;
            {
              MutexLock hold(lock_);
              if (ended_) return false;
              if (sayTimes_ && sayTimes_->item == job->item && !sayTimes_->fed) {
                sayTimes_->fed = Clock::now();
              }
              timeline_.appendStream(job->item, samples, count);
              auto& spoken = spoken_[job->item];
              spoken.push_back(SpokenSentence{sentence.text, before, job->made, words});
              for (auto& w : spoken.back().words) w.sample += before;
              lastActivity_ = Clock::now();
            }
            changed_.notify_all();  // the render loop sends the new sound on at once
            return true;
          },
          [&](const std::vector<render::Voice::WordMark>& marks) { words = marks; });
      job->first = false;
    } catch (const std::exception&) {
      // What was made is spoken; this sentence is left out.
    }
    if (job->made > before) {
      {
        MutexLock hold(lock_);
        timeline_.endSentence(job->item);
      }
      events_.publish("sentence_made", {{"utterance", job->item},
                                        {"text", sentence.text},
                                        {"start", before},
                                        {"end", job->made}});
    }
    changed_.notify_all();
  }
  std::deque<std::shared_ptr<TextJob>> left;
  {
    MutexLock hold(lock_);
    left.swap(textJobs_);
  }
  for (const auto& job : left) {
    if (job->done) {
      job->done->set_exception(std::make_exception_ptr(SessionError(409, "the session has ended")));
    }
  }
}

// A job made to its end, cut short by an interrupt, or too long to be an utterance.
void LiveSession::finishTextJob(const std::shared_ptr<TextJob>& job) {
  bool dropped = false;
  {
    MutexLock hold(lock_);
    dropped = job->tooLong && timeline_.dropUnstarted(job->item);
    if (!dropped) timeline_.endStream(job->item);
    if (dropped) spoken_.erase(job->item);
    if (openText_ == job) openText_.reset();
    textJobs_.pop_front();
  }
  changed_.notify_all();
  const double seconds = double(job->made) / double(render::kEngineRate);
  if (!job->cancelled && !dropped) {
    events_.publish("utterance_made", {{"utterance", job->item}, {"duration", seconds}});
  }
  if (!job->done) return;
  const std::string limit = std::to_string(options_.maxStreamSamples / 16000);
  if (job->tooLong) {
    job->done->set_exception(std::make_exception_ptr(
        SessionError(413, "the text lasts longer than " + limit + " s when spoken; " +
                              (dropped ? std::string("nothing of it is said")
                                       : "its first " + limit + " s are said"))));
  } else if (job->cancelled) {
    job->done->set_exception(std::make_exception_ptr(
        SessionError(409, "the text was interrupted before it was all made", "interrupted")));
  } else {
    job->done->set_value(Receipt{job->item, seconds});
  }
}

nlohmann::json LiveSession::heardOf(std::uint64_t item, std::size_t samples) const {
  const auto it = spoken_.find(item);
  if (it == spoken_.end()) return nullptr;
  std::size_t whole = 0, words = 0;
  std::string heard;
  for (const SpokenSentence& s : it->second) {
    if (s.end <= samples) {
      ++whole;
      if (!heard.empty()) heard += ' ';
      heard += s.text;
      continue;
    }
    // How far into this one: the words that had begun.
    std::size_t upTo = 0;
    for (const render::Voice::WordMark& w : s.words) {
      if (w.sample >= samples) break;
      ++words;
      // The text up to the end of the word begun last.
      upTo = std::min(s.text.size(), s.text.find(' ', w.text + 1));
    }
    if (words > 0) {
      if (!heard.empty()) heard += ' ';
      heard.append(s.text, 0, upTo);
    }
    break;
  }
  return {{"sentences_heard", whole}, {"words_heard", words}, {"text_heard", heard}};
}

}  // namespace lumora2::serve
