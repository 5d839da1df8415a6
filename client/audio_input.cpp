#include "audio_input.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

#include <memory>
#include <string>

#include "av_error.h"
#include "client_error.h"

namespace lumora2::render {
namespace {

struct FormatCloser {
  void operator()(AVFormatContext* c) const { avformat_close_input(&c); }
};
struct CodecFreer {
  void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct SwrFreer {
  void operator()(SwrContext* c) const { swr_free(&c); }
};
struct FrameFreer {
  void operator()(AVFrame* f) const { av_frame_free(&f); }
};
struct PacketFreer {
  void operator()(AVPacket* p) const { av_packet_free(&p); }
};

// Converts what `frame` holds (nothing: drains the resampler) and appends it to `out`; throws
// AudioTooLong, before making room for them, when the samples would pass `maxSamples`.
void convert(SwrContext* swr, const AVFrame* frame, std::vector<float>& out, std::size_t maxSamples,
             const std::string& name) {
  const int in = frame != nullptr ? frame->nb_samples : 0;
  const int room = swr_get_out_samples(swr, in);
  if (room <= 0) return;
  const std::size_t at = out.size();
  // swr_get_out_samples errs on the large side; the check is exact once the samples are made.
  const std::size_t slack = std::size_t(kEngineRate);
  if (at + std::size_t(room) > maxSamples && at + std::size_t(room) - maxSamples > slack) {
    throw AudioTooLong(name + " holds more audio than is taken");
  }
  out.resize(at + static_cast<std::size_t>(room));
  auto* dst = reinterpret_cast<std::uint8_t*>(out.data() + at);
  const int got = swr_convert(
      swr, &dst, room,
      frame != nullptr ? const_cast<const std::uint8_t**>(frame->extended_data) : nullptr, in);
  out.resize(at + static_cast<std::size_t>(got > 0 ? got : 0));
  if (out.size() > maxSamples) throw AudioTooLong(name + " holds more audio than is taken");
}

}  // namespace

std::vector<float> decodeAudio(const std::filesystem::path& path, const DecodeProgress& progress,
                               std::size_t maxSamples) {
  const std::string name = path.string();
  AVFormatContext* raw = nullptr;
  if (int rc = avformat_open_input(&raw, name.c_str(), nullptr, nullptr); rc < 0) {
    throw ClientError("cannot read audio " + name + ": " + avError(rc));
  }
  std::unique_ptr<AVFormatContext, FormatCloser> format(raw);
  if (int rc = avformat_find_stream_info(format.get(), nullptr); rc < 0) {
    throw ClientError("cannot read audio " + name + ": " + avError(rc));
  }
  const AVCodec* codec = nullptr;
  const int stream = av_find_best_stream(format.get(), AVMEDIA_TYPE_AUDIO, -1, -1, &codec, 0);
  if (stream < 0 || codec == nullptr) throw ClientError(name + " has no audio stream");
  // A header that declares more than the limit is believed; one that declares less is not.
  const AVStream* audio = format->streams[stream];
  const double declared =
      audio->duration > 0 && audio->time_base.den > 0
          ? double(audio->duration) * av_q2d(audio->time_base)
          : (format->duration > 0 ? double(format->duration) / AV_TIME_BASE : 0);
  if (declared * kEngineRate > double(maxSamples) + kEngineRate) {
    throw AudioTooLong(name + " holds more audio than is taken");
  }

  std::unique_ptr<AVCodecContext, CodecFreer> decoder(avcodec_alloc_context3(codec));
  if (!decoder ||
      avcodec_parameters_to_context(decoder.get(), format->streams[stream]->codecpar) < 0 ||
      avcodec_open2(decoder.get(), codec, nullptr) < 0) {
    throw ClientError("cannot decode the audio of " + name + " (" + codec->name + ")");
  }
  if (decoder->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC) {
    const int channels = decoder->ch_layout.nb_channels > 0 ? decoder->ch_layout.nb_channels : 1;
    av_channel_layout_uninit(&decoder->ch_layout);
    av_channel_layout_default(&decoder->ch_layout, channels);
  }

  AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
  SwrContext* swrRaw = nullptr;
  if (swr_alloc_set_opts2(&swrRaw, &mono, AV_SAMPLE_FMT_FLT, kEngineRate, &decoder->ch_layout,
                          decoder->sample_fmt, decoder->sample_rate, 0, nullptr) < 0 ||
      swr_init(swrRaw) < 0) {
    swr_free(&swrRaw);
    throw ClientError("cannot convert the audio of " + name + " to 16 kHz mono");
  }
  std::unique_ptr<SwrContext, SwrFreer> swr(swrRaw);

  std::unique_ptr<AVPacket, PacketFreer> packet(av_packet_alloc());
  std::unique_ptr<AVFrame, FrameFreer> frame(av_frame_alloc());
  std::vector<float> samples;
  auto drain = [&] {
    while (avcodec_receive_frame(decoder.get(), frame.get()) == 0) {
      const std::size_t before = samples.size();
      convert(swr.get(), frame.get(), samples, maxSamples, name);
      av_frame_unref(frame.get());
      if (progress && samples.size() > before) {
        progress(samples.data() + before, samples.size() - before);
      }
    }
  };
  for (;;) {
    const int rc = av_read_frame(format.get(), packet.get());
    if (rc == AVERROR_EOF) break;
    if (rc < 0) throw ClientError("cannot read audio " + name + ": " + avError(rc));
    if (packet->stream_index == stream) {
      // A damaged packet is skipped, as players do; the rest of the file still counts.
      if (avcodec_send_packet(decoder.get(), packet.get()) == 0) drain();
    }
    av_packet_unref(packet.get());
  }
  avcodec_send_packet(decoder.get(), nullptr);
  drain();
  const std::size_t before = samples.size();
  convert(swr.get(), nullptr, samples, maxSamples, name);
  if (progress && samples.size() > before)
    progress(samples.data() + before, samples.size() - before);
  if (samples.empty()) throw ClientError(name + " holds no audio samples");
  return samples;
}

}  // namespace lumora2::render
