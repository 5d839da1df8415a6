// The render-stream input decoder on byte strings: every message kind, no-ops consumed, and the
// stream ending wherever the input ends, a partial payload dropped.
#include "host/stream_messages.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace lumora2 {
namespace {

using Kind = StreamMessage::Kind;

std::vector<std::uint8_t> word(std::uint32_t v) {
  return {static_cast<std::uint8_t>(v), static_cast<std::uint8_t>(v >> 8),
          static_cast<std::uint8_t>(v >> 16), static_cast<std::uint8_t>(v >> 24)};
}

std::vector<std::uint8_t> join(std::initializer_list<std::vector<std::uint8_t>> parts) {
  std::vector<std::uint8_t> out;
  for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

std::vector<std::uint8_t> floats(std::initializer_list<float> values) {
  std::vector<std::uint8_t> out(values.size() * 4);
  std::memcpy(out.data(), std::data(values), out.size());
  return out;
}

// What the reader makes of `bytes`: one letter per message (a = audio with its sample count,
// r = reset, f = flush), up to and including the end.
std::string decode(const std::vector<std::uint8_t>& bytes) {
  std::size_t at = 0;
  StreamMessageReader reader([&](void* into, std::size_t n) {
    if (n > bytes.size() - at) {
      at = bytes.size();
      return false;
    }
    std::memcpy(into, bytes.data() + at, n);
    at += n;
    return true;
  });
  std::string out;
  for (;;) {
    StreamMessage m = reader.next();
    switch (m.kind) {
      case Kind::audio:
        out += "a" + std::to_string(m.samples.size()) + " ";
        break;
      case Kind::reset:
        out += "r ";
        break;
      case Kind::flush:
        out += "f ";
        break;
      case Kind::end:
        EXPECT_EQ(reader.next().kind, Kind::end) << "the end is final";
        return out + "end";
    }
  }
}

struct Case {
  const char* label;
  std::vector<std::uint8_t> bytes;
  std::string expected;
};

class Decode : public ::testing::TestWithParam<Case> {};

TEST_P(Decode, ReadsEachMessageAndEndsWhereTheInputEnds) {
  EXPECT_EQ(decode(GetParam().bytes), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Messages, Decode,
    ::testing::Values(Case{"empty", {}, "end"},
                      Case{"every_kind",
                           join({word(2), floats({0.5f, -1.0f}), word(0xFFFFFFFD), word(7),
                                 word(0xFFFFFFFE), word(0xFFFFFFFF), word(0), word(1),
                                 floats({1.0f})}),
                           "a2 r f end"},
                      Case{"short_count_word", {1, 0}, "end"},
                      Case{"short_payload", join({word(3), floats({1.0f, 2.0f})}), "end"},
                      Case{"short_noop_word", join({word(0xFFFFFFFD), {1, 2}}), "end"},
                      Case{"huge_count_without_payload", word(0xFFFFFFFC), "end"},
                      Case{"no_more_after_flush", word(0xFFFFFFFF), "f end"}),
    [](const auto& param) { return std::string(param.param.label); });

}  // namespace
}  // namespace lumora2
