#include "support/clip_writer.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>

namespace lumora2::testing {
namespace {

void check(int rc, const std::string& what) {
  if (rc < 0) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(rc, text, sizeof text);
    throw std::runtime_error(what + ": " + text);
  }
}

template <auto Free>
struct Deleter {
  template <typename T>
  void operator()(T* p) const {
    Free(p);
  }
};
void freeOutput(AVFormatContext* oc) {
  if (oc->pb != nullptr) avio_closep(&oc->pb);
  avformat_free_context(oc);
}
void freeCodec(AVCodecContext* c) { avcodec_free_context(&c); }
void freeFrame(AVFrame* f) { av_frame_free(&f); }
void freePacket(AVPacket* p) { av_packet_free(&p); }

// Sends one picture (nullptr: the end) and writes every packet the encoder releases.
void encode(AVCodecContext* codec, const AVFrame* frame, AVFormatContext* oc, AVStream* stream,
            AVPacket* packet, bool zeroPayload) {
  check(avcodec_send_frame(codec, frame), "encoding");
  while (true) {
    const int rc = avcodec_receive_packet(codec, packet);
    if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return;
    check(rc, "encoding");
    av_packet_rescale_ts(packet, codec->time_base, stream->time_base);
    packet->stream_index = stream->index;
    if (zeroPayload) {
      check(av_packet_make_writable(packet), "encoding");
      std::fill_n(packet->data, packet->size, std::uint8_t{0});
    }
    check(av_interleaved_write_frame(oc, packet), "writing");
  }
}

}  // namespace

void writeClip(const std::filesystem::path& path, const std::vector<std::vector<std::uint8_t>>& bgr,
               int width, int height, const ClipOptions& options) {
  av_log_set_level(AV_LOG_QUIET);
  AVFormatContext* rawOc = nullptr;
  check(avformat_alloc_output_context2(&rawOc, nullptr, options.container, path.c_str()),
        "creating " + path.string());
  std::unique_ptr<AVFormatContext, Deleter<freeOutput>> oc(rawOc);

  const AVCodec* encoder = avcodec_find_encoder_by_name("libx264");
  if (encoder == nullptr) throw std::runtime_error("no libx264 encoder");
  std::unique_ptr<AVCodecContext, Deleter<freeCodec>> codec(avcodec_alloc_context3(encoder));
  codec->width = width;
  codec->height = height;
  codec->pix_fmt = AV_PIX_FMT_YUV420P;
  codec->time_base = AVRational{1, options.fps};
  codec->framerate = AVRational{options.fps, 1};
  codec->gop_size = 8;
  codec->max_b_frames = 2;
  codec->thread_count = 1;
  if (oc->oformat->flags & AVFMT_GLOBALHEADER) codec->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  av_opt_set(codec->priv_data, "preset", "veryfast", 0);
  av_opt_set(codec->priv_data, "crf", "12", 0);
  check(avcodec_open2(codec.get(), encoder, nullptr), "opening the encoder");

  AVStream* stream = avformat_new_stream(oc.get(), nullptr);
  if (stream == nullptr) throw std::runtime_error("cannot add a video stream");
  stream->time_base = codec->time_base;
  stream->avg_frame_rate =
      AVRational{options.declaredFps > 0 ? options.declaredFps : options.fps, 1};
  check(avcodec_parameters_from_context(stream->codecpar, codec.get()), "describing the stream");
  check(avio_open(&oc->pb, path.c_str(), AVIO_FLAG_WRITE), "opening " + path.string());
  check(avformat_write_header(oc.get(), nullptr), "writing the header");

  std::unique_ptr<SwsContext, Deleter<sws_freeContext>> scale(
      sws_getContext(width, height, AV_PIX_FMT_BGR24, width, height, AV_PIX_FMT_YUV420P,
                     SWS_BILINEAR | SWS_ACCURATE_RND, nullptr, nullptr, nullptr));
  std::unique_ptr<AVFrame, Deleter<freeFrame>> frame(av_frame_alloc());
  frame->format = AV_PIX_FMT_YUV420P;
  frame->width = width;
  frame->height = height;
  check(av_frame_get_buffer(frame.get(), 0), "allocating a picture");
  std::unique_ptr<AVPacket, Deleter<freePacket>> packet(av_packet_alloc());
  for (std::size_t i = 0; i < bgr.size(); ++i) {
    check(av_frame_make_writable(frame.get()), "preparing a picture");
    const std::uint8_t* src[1] = {bgr[i].data()};
    const int srcStride[1] = {width * 3};
    sws_scale(scale.get(), src, srcStride, 0, height, frame->data, frame->linesize);
    frame->pts = static_cast<std::int64_t>(i);
    encode(codec.get(), frame.get(), oc.get(), stream, packet.get(), options.zeroPayloads);
  }
  encode(codec.get(), nullptr, oc.get(), stream, packet.get(), options.zeroPayloads);
  check(av_write_trailer(oc.get()), "finishing " + path.string());
}

}  // namespace lumora2::testing
