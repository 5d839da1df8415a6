#include "family/idle_video.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

#include <memory>
#include <stdexcept>

namespace lumora2::family {
namespace {

std::string avError(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(code, text, sizeof text);
  return text;
}

void check(int code, const std::string& what) {
  if (code < 0) throw std::runtime_error(what + ": " + avError(code));
}

struct OutputDeleter {
  void operator()(AVFormatContext* oc) const {
    if (oc->pb != nullptr) avio_closep(&oc->pb);
    avformat_free_context(oc);
  }
};
struct CodecDeleter {
  void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct FrameDeleter {
  void operator()(AVFrame* f) const { av_frame_free(&f); }
};
struct PacketDeleter {
  void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct ScaleDeleter {
  void operator()(SwsContext* s) const { sws_freeContext(s); }
};

// Sends one frame (or the end of the stream for nullptr) and writes every packet it releases.
void encode(AVCodecContext* codec, AVFrame* frame, AVFormatContext* oc, AVStream* stream,
            AVPacket* packet) {
  check(avcodec_send_frame(codec, frame), "encoding the idle clip");
  while (true) {
    const int rc = avcodec_receive_packet(codec, packet);
    if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return;
    check(rc, "encoding the idle clip");
    av_packet_rescale_ts(packet, codec->time_base, stream->time_base);
    packet->stream_index = stream->index;
    check(av_interleaved_write_frame(oc, packet), "writing the idle clip");
  }
}

}  // namespace

std::string writeIdleClip(const std::filesystem::path& path,
                          const std::vector<std::vector<std::uint8_t>>& frames, int width,
                          int height, int fps) {
  av_log_set_level(AV_LOG_ERROR);  // the encoder's statistics are not the tool's output
  AVFormatContext* rawOc = nullptr;
  check(avformat_alloc_output_context2(&rawOc, nullptr, "mp4", path.c_str()),
        "creating " + path.string());
  std::unique_ptr<AVFormatContext, OutputDeleter> oc(rawOc);
  oc->flags |= AVFMT_FLAG_BITEXACT;  // no library version strings in the file

  const AVCodec* encoder = avcodec_find_encoder_by_name("libx264");
  if (encoder == nullptr) encoder = avcodec_find_encoder(AV_CODEC_ID_MPEG4);
  if (encoder == nullptr) throw std::runtime_error("no H.264 or MPEG-4 encoder available");

  std::unique_ptr<AVCodecContext, CodecDeleter> codec(avcodec_alloc_context3(encoder));
  codec->width = width;
  codec->height = height;
  codec->pix_fmt = AV_PIX_FMT_YUV420P;
  codec->time_base = AVRational{1, fps};
  codec->framerate = AVRational{fps, 1};
  codec->gop_size = fps;
  codec->max_b_frames = 0;
  codec->thread_count = 1;
  codec->flags |= AV_CODEC_FLAG_BITEXACT;
  if (oc->oformat->flags & AVFMT_GLOBALHEADER) codec->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  if (std::string(encoder->name) == "libx264") {
    av_opt_set(codec->priv_data, "preset", "medium", 0);
    av_opt_set(codec->priv_data, "crf", "16", 0);
  } else {
    codec->flags |= AV_CODEC_FLAG_QSCALE;
    codec->global_quality = FF_QP2LAMBDA * 2;
  }
  check(avcodec_open2(codec.get(), encoder, nullptr),
        "opening the " + std::string(encoder->name) + " encoder");

  AVStream* stream = avformat_new_stream(oc.get(), nullptr);
  if (stream == nullptr) throw std::runtime_error("cannot add a video stream");
  stream->time_base = codec->time_base;
  stream->avg_frame_rate = codec->framerate;
  check(avcodec_parameters_from_context(stream->codecpar, codec.get()), "describing the stream");

  check(avio_open(&oc->pb, path.c_str(), AVIO_FLAG_WRITE), "opening " + path.string());
  check(avformat_write_header(oc.get(), nullptr), "writing the header of " + path.string());

  std::unique_ptr<SwsContext, ScaleDeleter> scale(
      sws_getContext(width, height, AV_PIX_FMT_RGB24, width, height, AV_PIX_FMT_YUV420P,
                     SWS_BICUBIC | SWS_ACCURATE_RND | SWS_BITEXACT, nullptr, nullptr, nullptr));
  if (!scale) throw std::runtime_error("cannot convert RGB24 to yuv420p");
  std::unique_ptr<AVFrame, FrameDeleter> frame(av_frame_alloc());
  frame->format = AV_PIX_FMT_YUV420P;
  frame->width = width;
  frame->height = height;
  check(av_frame_get_buffer(frame.get(), 0), "allocating a frame");
  std::unique_ptr<AVPacket, PacketDeleter> packet(av_packet_alloc());

  for (size_t i = 0; i < frames.size(); ++i) {
    if (frames[i].size() != static_cast<size_t>(width) * height * 3) {
      throw std::runtime_error("idle frame " + std::to_string(i) + " has the wrong size");
    }
    check(av_frame_make_writable(frame.get()), "preparing a frame");
    const std::uint8_t* src[1] = {frames[i].data()};
    const int srcStride[1] = {width * 3};
    sws_scale(scale.get(), src, srcStride, 0, height, frame->data, frame->linesize);
    frame->pts = static_cast<std::int64_t>(i);
    encode(codec.get(), frame.get(), oc.get(), stream, packet.get());
  }
  encode(codec.get(), nullptr, oc.get(), stream, packet.get());
  check(av_write_trailer(oc.get()), "finishing " + path.string());
  return encoder->name;
}

}  // namespace lumora2::family
