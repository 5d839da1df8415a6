// The wire format both ends of a render-stream share: messages written by appendAudio and
// appendControl decode to the same messages, frame records and markers survive any split of the
// byte stream, and header lines are refused with the reason in the message.
#include "protocol/stream_wire.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace lumora2::wire {
namespace {

using ::testing::HasSubstr;

StreamMessageReader readerOver(const std::string& bytes, std::size_t& at) {
  return StreamMessageReader([&bytes, &at](void* into, std::size_t n) {
    if (n > bytes.size() - at) {
      at = bytes.size();
      return false;
    }
    std::memcpy(into, bytes.data() + at, n);
    at += n;
    return true;
  });
}

TEST(StreamWire, MessagesWrittenByOneEndDecodeAtTheOther) {
  std::vector<float> samples(40000);
  for (std::size_t i = 0; i < samples.size(); ++i) samples[i] = float(i) * 0.25f - 7.0f;
  std::string bytes;
  appendAudio(bytes, samples.data(), samples.size(), 16000);
  appendControl(bytes, kFlush);
  appendControl(bytes, kNoOp);
  appendControl(bytes, 12345);  // the no-op's ignored word
  appendControl(bytes, kReset);
  appendControl(bytes, kEndOfStream);
  appendControl(bytes, kFlush);  // after the end: never read

  std::size_t at = 0;
  StreamMessageReader reader = readerOver(bytes, at);
  std::vector<float> decoded;
  std::vector<StreamMessage::Kind> kinds;
  for (;;) {
    StreamMessage m = reader.next();
    kinds.push_back(m.kind);
    if (m.kind == StreamMessage::Kind::audio) {
      EXPECT_LE(m.samples.size(), 16000u);
      decoded.insert(decoded.end(), m.samples.begin(), m.samples.end());
    }
    if (m.kind == StreamMessage::Kind::end) break;
  }
  EXPECT_EQ(decoded, samples);
  using K = StreamMessage::Kind;
  EXPECT_EQ(kinds, (std::vector<K>{K::audio, K::audio, K::audio, K::flush, K::reset, K::end}));
  EXPECT_EQ(at, bytes.size() - 4) << "read past the end-of-stream word";
  EXPECT_EQ(reader.next().kind, K::end);
}

// A source that ends inside a message ends the stream and drops the partial payload.
class TruncatedStream : public ::testing::TestWithParam<std::size_t> {};
TEST_P(TruncatedStream, EndsWithoutAPartialMessage) {
  std::vector<float> samples(100, 0.5f);
  std::string bytes;
  appendAudio(bytes, samples.data(), samples.size());
  bytes.resize(GetParam());
  std::size_t at = 0;
  StreamMessageReader reader = readerOver(bytes, at);
  EXPECT_EQ(reader.next().kind, StreamMessage::Kind::end);
}
INSTANTIATE_TEST_SUITE_P(Cuts, TruncatedStream, ::testing::Values(0, 3, 4, 5, 403));

TEST(StreamWire, RecordsAndMarkersSurviveAnySplit) {
  constexpr int kW = 6, kH = 4;
  std::string stream;
  for (std::uint32_t pos = 0; pos < 3; ++pos) {
    std::vector<std::uint8_t> record(frameRecordBytes(kW, kH));
    putLittleEndian(record.data(), pos);
    for (std::size_t i = 4; i < record.size(); ++i) record[i] = std::uint8_t((i - 4) * 3 + pos);
    stream.append(record.begin(), record.end());
    if (pos == 1) appendControl(stream, kMarker);
  }
  appendControl(stream, kMarker);

  for (std::size_t piece :
       {std::size_t(1), std::size_t(3), std::size_t(5), std::size_t(77), stream.size()}) {
    RecordReader reader(kW, kH);
    std::vector<std::string> seen;
    for (std::size_t at = 0; at < stream.size(); at += piece) {
      const std::size_t n = std::min(piece, stream.size() - at);
      reader.consume(reinterpret_cast<const std::uint8_t*>(stream.data()) + at, n,
                     [&](const RecordReader::Item& item) {
                       if (item.kind == RecordReader::Item::Kind::marker) {
                         seen.push_back("marker");
                         return;
                       }
                       EXPECT_EQ(item.rgb[0], std::uint8_t(item.position));
                       EXPECT_EQ(item.rgb[2], std::uint8_t(2 * 3 + item.position));
                       seen.push_back("frame " + std::to_string(item.position));
                     });
    }
    EXPECT_FALSE(reader.midRecord());
    EXPECT_EQ(seen, (std::vector<std::string>{"frame 0", "frame 1", "marker", "frame 2", "marker"}))
        << "pieces of " << piece;
  }
}

TEST(StreamWire, HeaderLineRoundTrips) {
  Header h;
  h.width = 416;
  h.height = 720;
  h.decoder = "tiny \"quoted\"";
  const std::string line = headerLine(h);
  ASSERT_EQ(line.back(), '\n');
  EXPECT_EQ(line.rfind(R"(READY {"fps":20,"width":416,"height":720,"sample_rate":16000,)", 0), 0u);
  const Header back = parseHeader(line.substr(0, line.size() - 1));
  EXPECT_EQ(back.width, 416);
  EXPECT_EQ(back.height, 720);
  EXPECT_EQ(back.decoder, h.decoder);
}

struct BadHeader {
  const char* line;
  const char* reason;
};
class RefusedHeader : public ::testing::TestWithParam<BadHeader> {};
TEST_P(RefusedHeader, NamesTheReason) {
  try {
    parseHeader(GetParam().line);
    FAIL() << "accepted " << GetParam().line;
  } catch (const WireError& e) {
    EXPECT_THAT(e.what(), HasSubstr(GetParam().reason));
    EXPECT_THAT(e.what(), HasSubstr(GetParam().line));
  }
}
INSTANTIATE_TEST_SUITE_P(
    Lines, RefusedHeader,
    ::testing::Values(
        BadHeader{"HELLO", "does not begin with \"READY \""},
        BadHeader{"READY {\"fps\":20", "is not a JSON object"},
        BadHeader{"READY {\"fps\":20,\"width\":416,\"height\":720}", "is not a JSON object"},
        BadHeader{"READY {\"fps\":25,\"width\":416,\"height\":720,\"sample_rate\":16000}",
                  "promises 25 fps from 16000 Hz"},
        BadHeader{"READY {\"fps\":20,\"width\":415,\"height\":720,\"sample_rate\":16000}",
                  "even dimensions"},
        BadHeader{"READY {\"fps\":20,\"width\":416,\"height\":0,\"sample_rate\":16000}",
                  "even dimensions"}));

}  // namespace
}  // namespace lumora2::wire
