#include "mp4_writer.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}

#include <algorithm>
#include <cmath>
#include <string>

#include "client/av_error.h"
#include "client/client_error.h"

namespace lumora2::render {
namespace {

constexpr int kRefreshSeconds = 2;
constexpr const char* kX264Params = "intra-refresh=1:scenecut=0";

void check(int rc, const std::string& what) {
  if (rc < 0) throw ClientError(what + ": " + avError(rc));
}

}  // namespace

struct Mp4Writer::State {
  std::string path;
  int width = 0, height = 0, fps = 0, sampleRate = 0;
  const std::vector<float>* audio = nullptr;
  AVFormatContext* format = nullptr;
  AVCodecContext* video = nullptr;
  AVCodecContext* sound = nullptr;
  AVStream* videoStream = nullptr;
  AVStream* soundStream = nullptr;
  AVFrame* picture = nullptr;
  AVFrame* samples = nullptr;
  AVPacket* packet = nullptr;
  bool headerWritten = false;
  std::int64_t framesIn = 0;
  std::size_t audioSent = 0;  // samples handed to the audio encoder

  ~State() {
    av_packet_free(&packet);
    av_frame_free(&samples);
    av_frame_free(&picture);
    avcodec_free_context(&sound);
    avcodec_free_context(&video);
    if (format != nullptr) {
      if (format->pb != nullptr) avio_closep(&format->pb);
      avformat_free_context(format);
    }
  }

  void openEncoders() {
    const AVCodec* h264 = avcodec_find_encoder_by_name("libx264");
    if (h264 == nullptr) h264 = avcodec_find_encoder(AV_CODEC_ID_H264);
    const AVCodec* aac = avcodec_find_encoder(AV_CODEC_ID_AAC);
    if (h264 == nullptr || aac == nullptr) {
      throw ClientError("this FFmpeg has no H.264 or no AAC encoder");
    }
    const bool globalHeader = (format->oformat->flags & AVFMT_GLOBALHEADER) != 0;

    video = avcodec_alloc_context3(h264);
    if (video == nullptr) throw ClientError("out of memory");
    video->width = width;
    video->height = height;
    video->pix_fmt = AV_PIX_FMT_YUV420P;
    video->time_base = AVRational{1, fps};
    video->framerate = AVRational{fps, 1};
    // The pictures are BT.601 limited range (see Picture); say so, so that players do not guess.
    video->colorspace = AVCOL_SPC_SMPTE170M;
    video->color_primaries = AVCOL_PRI_SMPTE170M;
    video->color_trc = AVCOL_TRC_SMPTE170M;
    video->color_range = AVCOL_RANGE_MPEG;
    if (globalHeader) video->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    // Near-transparent quality at a speed that keeps up with rendering. No keyframe pulses: a
    // keyframe re-codes the whole picture at once, and where the P-frames before it had kept
    // static parts as they were, the whole picture steps (0.37 per byte against a median of 0.01
    // between idle frames). Periodic intra refresh renews the picture a column at a time
    // instead, over kRefreshSeconds, and every renewal's first frame is a sync sample (a seek
    // point that is whole again kRefreshSeconds later).
    video->gop_size = fps * kRefreshSeconds;
    av_opt_set(video->priv_data, "preset", "veryfast", 0);
    av_opt_set(video->priv_data, "crf", "18", 0);
    av_opt_set(video->priv_data, "x264-params", kX264Params, 0);
    check(avcodec_open2(video, h264, nullptr), "cannot open the H.264 encoder");

    sound = avcodec_alloc_context3(aac);
    if (sound == nullptr) throw ClientError("out of memory");
    sound->sample_rate = sampleRate;
    sound->sample_fmt = AV_SAMPLE_FMT_FLTP;
    av_channel_layout_default(&sound->ch_layout, 1);
    sound->bit_rate = 64000;
    sound->time_base = AVRational{1, sampleRate};
    if (globalHeader) sound->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    check(avcodec_open2(sound, aac, nullptr), "cannot open the AAC encoder");
  }

  void addStreams() {
    videoStream = avformat_new_stream(format, nullptr);
    soundStream = avformat_new_stream(format, nullptr);
    if (videoStream == nullptr || soundStream == nullptr) throw ClientError("out of memory");
    check(avcodec_parameters_from_context(videoStream->codecpar, video), "H.264 parameters");
    check(avcodec_parameters_from_context(soundStream->codecpar, sound), "AAC parameters");
    videoStream->time_base = video->time_base;
    videoStream->avg_frame_rate = video->framerate;
    soundStream->time_base = sound->time_base;
  }

  void allocateFrames() {
    picture = av_frame_alloc();
    samples = av_frame_alloc();
    packet = av_packet_alloc();
    if (picture == nullptr || samples == nullptr || packet == nullptr) {
      throw ClientError("out of memory");
    }
    picture->format = AV_PIX_FMT_YUV420P;
    picture->width = width;
    picture->height = height;
    check(av_frame_get_buffer(picture, 0), "out of memory");
    samples->format = AV_SAMPLE_FMT_FLTP;
    samples->nb_samples = sound->frame_size;
    check(av_channel_layout_copy(&samples->ch_layout, &sound->ch_layout), "out of memory");
    samples->sample_rate = sampleRate;
    check(av_frame_get_buffer(samples, 0), "out of memory");
  }

  void writeHeader() {
    check(avio_open(&format->pb, path.c_str(), AVIO_FLAG_WRITE), "cannot create " + path);
    AVDictionary* options = nullptr;
    av_dict_set(&options, "movflags", "+faststart", 0);
    // Edit lists are in the movie's time scale: at the sample rate, the audio track ends on its
    // last sample (at the default of 1/1000 s it would be rounded up).
    av_dict_set_int(&options, "movie_timescale", sampleRate, 0);
    const int rc = avformat_write_header(format, &options);
    av_dict_free(&options);
    check(rc, "cannot write " + path);
    headerWritten = true;
  }

  // Moves every packet the encoder has ready into the file.
  void drain(AVCodecContext* codec, AVStream* stream) {
    for (;;) {
      const int rc = avcodec_receive_packet(codec, packet);
      if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return;
      check(rc, "cannot encode " + path);
      // The AAC encoder rounds the last packet's duration up; the track ends with the audio.
      if (codec == sound && packet->pts != AV_NOPTS_VALUE &&
          packet->pts + packet->duration > std::int64_t(audio->size())) {
        packet->duration = std::max<std::int64_t>(0, std::int64_t(audio->size()) - packet->pts);
      }
      av_packet_rescale_ts(packet, codec->time_base, stream->time_base);
      packet->stream_index = stream->index;
      check(av_interleaved_write_frame(format, packet), "cannot write " + path);
    }
  }

  // Encodes audio up to sample `until` in the encoder's frame size (the last frame may be short).
  void sendAudio(std::size_t until) {
    until = std::min(until, audio->size());
    const auto frameSize = std::size_t(sound->frame_size);
    while (audioSent < until && (until - audioSent >= frameSize || until == audio->size())) {
      const std::size_t n = std::min(frameSize, until - audioSent);
      check(av_frame_make_writable(samples), "cannot encode " + path);
      samples->nb_samples = int(n);
      // The encoder refuses non-finite samples; they play as silence.
      auto* out = reinterpret_cast<float*>(samples->data[0]);
      for (std::size_t i = 0; i < n; ++i) {
        const float v = (*audio)[audioSent + i];
        out[i] = std::isfinite(v) ? v : 0.0f;
      }
      samples->pts = std::int64_t(audioSent);
      check(avcodec_send_frame(sound, samples), "cannot encode the audio of " + path);
      audioSent += n;
      drain(sound, soundStream);
    }
  }
};

Mp4Writer::Mp4Writer(const std::filesystem::path& path, int width, int height, int fps,
                     const std::vector<float>& audio, int sampleRate)
    : state_(std::make_unique<State>()) {
  State& s = *state_;
  s.path = path.string();
  s.width = width;
  s.height = height;
  s.fps = fps;
  s.sampleRate = sampleRate;
  s.audio = &audio;
  check(avformat_alloc_output_context2(&s.format, nullptr, "mp4", s.path.c_str()),
        "cannot make an MP4 for " + s.path);
  s.openEncoders();
  s.addStreams();
  s.allocateFrames();
  s.writeHeader();
}

Mp4Writer::~Mp4Writer() = default;

std::int64_t Mp4Writer::frames() const { return state_->framesIn; }

void Mp4Writer::addFrame(const Picture& picture) {
  State& s = *state_;
  if (picture.width != s.width || picture.height != s.height) {
    throw ClientError("a picture of " + std::to_string(picture.width) + " x " +
                      std::to_string(picture.height) + " for a video of " +
                      std::to_string(s.width) + " x " + std::to_string(s.height));
  }
  check(av_frame_make_writable(s.picture), "cannot encode " + s.path);
  const std::uint8_t* planes[3] = {picture.y(), picture.u(), picture.v()};
  for (int p = 0; p < 3; ++p) {
    const int w = p == 0 ? s.width : s.width / 2, h = p == 0 ? s.height : s.height / 2;
    for (int row = 0; row < h; ++row) {
      std::copy_n(planes[p] + std::size_t(row) * std::size_t(w), w,
                  s.picture->data[p] + std::ptrdiff_t(row) * s.picture->linesize[p]);
    }
  }
  s.picture->pts = s.framesIn++;
  check(avcodec_send_frame(s.video, s.picture), "cannot encode the video of " + s.path);
  s.drain(s.video, s.videoStream);
  // The audio that plays until the end of this frame.
  s.sendAudio(std::size_t(s.framesIn) * std::size_t(s.sampleRate) / std::size_t(s.fps));
}

void Mp4Writer::finish() {
  State& s = *state_;
  s.sendAudio(s.audio->size());
  check(avcodec_send_frame(s.video, nullptr), "cannot finish the video of " + s.path);
  s.drain(s.video, s.videoStream);
  check(avcodec_send_frame(s.sound, nullptr), "cannot finish the audio of " + s.path);
  s.drain(s.sound, s.soundStream);
  check(av_write_trailer(s.format), "cannot finish " + s.path);
  check(avio_closep(&s.format->pb), "cannot close " + s.path);
}

}  // namespace lumora2::render
