#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <mutex>

#include "engine/idle_clip_stream.h"
#include "engine/log.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/log.h>
#include <libswscale/swscale.h>
}

namespace lumora2 {

namespace {

// Rows of the BGRA pictures start 64-byte aligned, as the converter prefers; consumers honour
// PixelBuffer::stride.
constexpr int kRowAlignment = 64;

// Exact rounding and chroma interpolated to every pixel, bit-exact: the pictures are the ones
// FFmpeg's own tools give for `-vf scale=flags=bicubic+accurate_rnd+full_chroma_int+bitexact` to
// BGRA. The converter's fast paths truncate instead, which left every idle picture about one luma
// level darker than its clip.
constexpr int kConversionFlags =
    SWS_BICUBIC | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT | SWS_BITEXACT;

// The libraries' own diagnostics would repeat on every pass over a damaged clip; the stream
// reports what matters in its own words.
void quietLibraries() {
  static std::once_flag once;
  std::call_once(once, [] { av_log_set_level(AV_LOG_QUIET); });
}

int swsColorspace(AVColorSpace space) {
  switch (space) {
    case AVCOL_SPC_BT709:
      return SWS_CS_ITU709;
    case AVCOL_SPC_FCC:
      return SWS_CS_FCC;
    case AVCOL_SPC_SMPTE240M:
      return SWS_CS_SMPTE240M;
    case AVCOL_SPC_BT2020_NCL:
    case AVCOL_SPC_BT2020_CL:
      return SWS_CS_BT2020;
    default:  // BT.601 and untagged pictures
      return SWS_CS_DEFAULT;
  }
}

bool fullRange(const AVFrame& frame) {
  switch (frame.format) {
    case AV_PIX_FMT_YUVJ420P:
    case AV_PIX_FMT_YUVJ422P:
    case AV_PIX_FMT_YUVJ444P:
    case AV_PIX_FMT_YUVJ440P:
    case AV_PIX_FMT_YUVJ411P:
      return true;
    default:
      return frame.color_range == AVCOL_RANGE_JPEG;
  }
}

}  // namespace

// One pass over the clip: the demuxer of the file and a decoder of its first video stream. read()
// hands out the stream's pictures in presentation order, converted to BGRA at their own size; at
// the end of the file the decoder is drained so that the pictures it still holds come out too.
struct IdleClipStream::Reader {
  enum class Status { picture, noPicture, end };
  struct Sample {
    Status status = Status::end;
    std::optional<PixelBuffer> picture;  // with Status::picture only
  };

  AVFormatContext* format = nullptr;
  int streamIndex = -1;
  AVCodecContext* decoder = nullptr;
  AVPacket* packet = nullptr;
  AVFrame* frame = nullptr;
  SwsContext* converter = nullptr;
  int convertedSpace = -1, convertedFullRange = -1;  // colour details set on `converter`
  bool draining = false, finished = false;

  Reader() = default;
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;
  ~Reader() {
    sws_freeContext(converter);
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&decoder);
    avformat_close_input(&format);
  }

  // The file opened and its first video stream chosen (cover pictures are not video); null when
  // the file is not readable media or has no video stream.
  static std::unique_ptr<Reader> demux(const Path& path) {
    auto reader = std::make_unique<Reader>();
    if (avformat_open_input(&reader->format, path.c_str(), nullptr, nullptr) < 0) return nullptr;
    // Fills in durations and rates the container header lacks. A stream it cannot describe
    // fully stays a video stream; whether it decodes is found out by reading it.
    avformat_find_stream_info(reader->format, nullptr);
    for (unsigned i = 0; i < reader->format->nb_streams; ++i) {
      const AVStream* stream = reader->format->streams[i];
      if (stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO &&
          (stream->disposition & AV_DISPOSITION_ATTACHED_PIC) == 0) {
        reader->streamIndex = static_cast<int>(i);
        return reader;
      }
    }
    return nullptr;
  }

  const AVStream& stream() const { return *format->streams[streamIndex]; }

  // Opens the decoder. One decoding thread: a picture every 50 ms needs no more, and frame
  // threads would hold pictures back and multiply with the standby reader.
  bool start() {
    const AVCodec* codec = avcodec_find_decoder(stream().codecpar->codec_id);
    if (codec == nullptr) return false;
    decoder = avcodec_alloc_context3(codec);
    packet = av_packet_alloc();
    frame = av_frame_alloc();
    if (decoder == nullptr || packet == nullptr || frame == nullptr) return false;
    if (avcodec_parameters_to_context(decoder, stream().codecpar) < 0) return false;
    decoder->thread_count = 1;
    decoder->pkt_timebase = stream().time_base;
    return avcodec_open2(decoder, codec, nullptr) >= 0;
  }

  // The next picture; Status::end once the file and the decoder are exhausted or fail.
  Sample read() {
    while (!finished) {
      int rc = avcodec_receive_frame(decoder, frame);
      if (rc == 0) {
        Sample sample = convert();
        av_frame_unref(frame);
        return sample;
      }
      if (rc != AVERROR(EAGAIN) || draining) break;
      rc = av_read_frame(format, packet);
      if (rc < 0) {  // end of file, or a read error that ends the pass there
        draining = true;
        if (avcodec_send_packet(decoder, nullptr) < 0) break;
        continue;
      }
      if (packet->stream_index == streamIndex) {
        // A packet the decoder refuses is skipped; the pictures after it may still decode.
        avcodec_send_packet(decoder, packet);
      }
      av_packet_unref(packet);
    }
    finished = true;
    return {};
  }

  // The decoded picture as BGRA at its own size.
  Sample convert() {
    const int width = frame->width, height = frame->height;
    if (width <= 0 || height <= 0) return {Status::noPicture, std::nullopt};
    converter = sws_getCachedContext(converter, width, height,
                                     static_cast<AVPixelFormat>(frame->format), width, height,
                                     AV_PIX_FMT_BGRA, kConversionFlags, nullptr, nullptr, nullptr);
    if (converter == nullptr) return {Status::noPicture, std::nullopt};
    applyColourDetails();
    const std::size_t stride =
        (static_cast<std::size_t>(width) * 4 + kRowAlignment - 1) / kRowAlignment * kRowAlignment;
    auto bytes = std::make_shared<std::vector<std::uint8_t>>(stride * height);
    std::uint8_t* planes[4] = {bytes->data(), nullptr, nullptr, nullptr};
    const int strides[4] = {static_cast<int>(stride), 0, 0, 0};
    if (sws_scale(converter, frame->data, frame->linesize, 0, height, planes, strides) != height) {
      return {Status::noPicture, std::nullopt};
    }
    return {Status::picture, PixelBuffer{width, height, stride, std::move(bytes)}};
  }

  // YUV pictures are converted with the matrix and range they are tagged with (untagged ones as
  // BT.601 limited range). A freshly made or re-made converter starts from the defaults, so the
  // details are set whenever the converter or the tags change.
  void applyColourDetails() {
    const int space = swsColorspace(frame->colorspace), full = fullRange(*frame) ? 1 : 0;
    int *inverse = nullptr, *table = nullptr;
    int srcRange = 0, dstRange = 0, brightness = 0, contrast = 0, saturation = 0;
    if (sws_getColorspaceDetails(converter, &inverse, &srcRange, &table, &dstRange, &brightness,
                                 &contrast, &saturation) < 0) {
      return;  // not a YUV source: nothing to choose
    }
    if (space == convertedSpace && full == convertedFullRange &&
        inverse == sws_getCoefficients(space) && srcRange == full) {
      return;
    }
    sws_setColorspaceDetails(converter, sws_getCoefficients(space), full, table, dstRange,
                             brightness, contrast, saturation);
    convertedSpace = space;
    convertedFullRange = full;
  }
};

namespace {

// max(trunc(seconds x frames per second), 1) from the video stream's duration (the container's
// when the stream has none) and its nominal rate (the average rate, else the stream's base rate,
// else 0). A product that is not a finite int64 aborts: see IdleClipStream::open.
std::int64_t estimatedFrameCount(const AVFormatContext& format, const AVStream& stream,
                                 const std::filesystem::path& path) {
  // duration = ticks x tickNum / tickDen seconds; unknown is NaN.
  double ticks = std::numeric_limits<double>::quiet_NaN(), tickNum = 1, tickDen = 1;
  if (stream.duration != AV_NOPTS_VALUE) {
    ticks = static_cast<double>(stream.duration);
    tickNum = stream.time_base.num;
    tickDen = stream.time_base.den;
  } else if (format.duration != AV_NOPTS_VALUE) {
    ticks = static_cast<double>(format.duration);
    tickDen = AV_TIME_BASE;
  }
  AVRational rate = stream.avg_frame_rate;
  if (rate.num <= 0 || rate.den <= 0) rate = stream.r_frame_rate;
  if (rate.num <= 0 || rate.den <= 0) rate = AVRational{0, 1};
  // One rounding at the end, so that a whole number of frames comes out whole (1.2 s at 10
  // frames per second is 12 frames, not 11.999...).
  const double product = ticks * tickNum * rate.num / (tickDen * rate.den);
  const double seconds = ticks * tickNum / tickDen;
  if (!std::isfinite(product) ||
      std::fabs(product) >= static_cast<double>(std::numeric_limits<std::int64_t>::max())) {
    engineLog("[lumora2-idle] FATAL: idle.mp4 at " + path.string() +
              " has no finite length (duration " + std::to_string(seconds) + " s x " +
              std::to_string(rate.num) + "/" + std::to_string(rate.den) + " frames per second)");
    std::abort();
  }
  return std::max<std::int64_t>(static_cast<std::int64_t>(std::trunc(product)), 1);
}

}  // namespace

std::pair<std::unique_ptr<IdleClipStream>, std::optional<std::string>> IdleClipStream::open(
    const std::optional<Path>& url, int width, int height, const std::optional<Path>& avatarDir) {
  if (!url) {
    return {nullptr, "no idle.mp4 for this identity (activeAgentDir=" +
                         (avatarDir ? avatarDir->string() : std::string("nil")) +
                         "; the per-identity dir is the only place a downloaded agent's clip is "
                         "looked for)"};
  }
  quietLibraries();
  const std::string where = "idle.mp4 at " + url->string();

  std::unique_ptr<Reader> live = Reader::demux(*url);
  if (!live) return {nullptr, where + " has no video track"};
  const std::int64_t frameCount = estimatedFrameCount(*live->format, live->stream(), *url);
  if (!live->start()) return {nullptr, where + ": AVAssetReader could not start"};

  Reader::Sample first = live->read();
  if (first.status != Reader::Status::picture) return {nullptr, where + " decoded no frame"};
  const PixelBuffer& image = *first.picture;
  if (image.width != width || image.height != height) {
    return {nullptr, "idle.mp4 is " + std::to_string(image.width) + "x" +
                         std::to_string(image.height) + ", the engine's frames are " +
                         std::to_string(width) + "x" + std::to_string(height)};
  }

  // B, G, R of every pixel, the fourth byte dropped, rows read at the picture's own stride.
  std::vector<std::uint8_t> bgr(static_cast<std::size_t>(width) * height * 3);
  if (image.bytes) {
    for (int y = 0; y < height; ++y) {
      const std::uint8_t* src = image.bytes->data() + y * image.stride;
      std::uint8_t* dst = bgr.data() + static_cast<std::size_t>(y) * width * 3;
      for (int x = 0; x < width; ++x, src += 4, dst += 3) {
        dst[0] = src[0];
        dst[1] = src[1];
        dst[2] = src[2];
      }
    }
  }
  return {std::unique_ptr<IdleClipStream>(new IdleClipStream(*url, width, height, frameCount,
                                                             std::move(bgr), std::move(live),
                                                             std::move(*first.picture))),
          std::nullopt};
}

IdleClipStream::IdleClipStream(Path path, int width, int height, std::int64_t frameCount,
                               std::vector<std::uint8_t> firstFrameBGR,
                               std::unique_ptr<Reader> live, PixelBuffer first)
    : path_(std::move(path)),
      width_(width),
      height_(height),
      firstFrameBGR_(std::move(firstFrameBGR)),
      frameCount_(frameCount),
      live_(std::move(live)),
      pendingFirst_(std::move(first)) {}

IdleClipStream::~IdleClipStream() = default;

std::unique_ptr<IdleClipStream::Reader> IdleClipStream::openReader() const {
  std::unique_ptr<Reader> reader = Reader::demux(path_);
  if (!reader || !reader->start()) return nullptr;
  return reader;
}

std::optional<PixelBuffer> IdleClipStream::next() {
  MutexLock guard(lock_);
  if (pendingFirst_) {
    lastIndex_.store(0, std::memory_order_relaxed);
    nextIndex_ = 1;
    std::optional<PixelBuffer> first = std::move(pendingFirst_);
    pendingFirst_.reset();
    return first;
  }
  // The standby opens 10 frames before the estimated end, so that the seam does not wait on
  // opening the file; a failed attempt is repeated on the following calls.
  if (!standby_ && nextIndex_ >= frameCount_.load(std::memory_order_relaxed) - 10) {
    standby_ = openReader();
  }

  Reader::Sample sample = live_ ? live_->read() : Reader::Sample{};
  if (sample.status == Reader::Status::end) {
    // The authored end: what was delivered is the clip's true length.
    frameCount_.store(nextIndex_, std::memory_order_relaxed);
    const std::int64_t wraps = wraps_.fetch_add(1, std::memory_order_relaxed) + 1;
    live_.reset();
    std::unique_ptr<Reader> fresh = standby_ ? std::move(standby_) : openReader();
    char line[160];
    if (!fresh) {
      std::snprintf(
          line, sizeof line,
          "[lumora2-idle] wrap %lld: could not reopen the clip \u2014 idle holds its last "
          "frame",
          static_cast<long long>(wraps));
      engineLog(line);
      return std::nullopt;
    }
    live_ = std::move(fresh);
    standby_.reset();
    nextIndex_ = 0;
    sample = live_->read();
    const std::int64_t count = frameCount_.load(std::memory_order_relaxed);
    std::snprintf(line, sizeof line,
                  "[lumora2-idle] wrap %lld: frame %lld -> 0 (clip %lld frames, the authored seam)",
                  static_cast<long long>(wraps), static_cast<long long>(count - 1),
                  static_cast<long long>(count));
    engineLog(line);
    if (sample.status == Reader::Status::end) return std::nullopt;
  }

  // A picture of another size than the clip's first (a stream that changes size midway) cannot
  // be shown in the engine's frames and counts as a sample without a picture.
  if (sample.status != Reader::Status::picture || sample.picture->width != width_ ||
      sample.picture->height != height_) {
    return std::nullopt;
  }
  lastIndex_.store(nextIndex_, std::memory_order_relaxed);
  ++nextIndex_;
  return std::move(sample.picture);
}

}  // namespace lumora2
