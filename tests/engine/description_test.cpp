// The io.json description format and the half-precision conversions graphs exchange.
#include <gtest/gtest.h>

#include <cmath>

#include "engine/model_description.h"
#include "engine/multi_array.h"

namespace lumora2 {
namespace {

struct DescriptionCase {
  const char* json;
  const char* error;  // empty: valid
};

class DescriptionParsing : public ::testing::TestWithParam<DescriptionCase> {};

TEST_P(DescriptionParsing, AcceptsTheFormatAndNamesWhatIsWrong) {
  std::string error;
  auto d = ModelDescription::parse(GetParam().json, &error);
  EXPECT_EQ(d.has_value(), std::string(GetParam().error).empty());
  EXPECT_EQ(error, GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    IoJson, DescriptionParsing,
    ::testing::Values(
        DescriptionCase{
            R"({"inputs":[{"name":"x","shape":[1,-1],"dtype":"int32"}],"outputs":[{"name":"y","shape":[],"dtype":"float16"}]})",
            ""},
        DescriptionCase{R"({"inputs":[{"name":"x"}],"outputs":[]})", ""},
        DescriptionCase{R"([1])", "io.json is not a JSON object"},
        DescriptionCase{R"({"inputs":[]})", "\"outputs\" is not a list"},
        DescriptionCase{R"({"inputs":[{"shape":[1],"dtype":"int32"}],"outputs":[]})",
                        "inputs entry 0 has no name"},
        DescriptionCase{R"({"inputs":[{"name":"x","shape":[1]}],"outputs":[]})",
                        "feature \"x\" needs both \"shape\" and \"dtype\""},
        DescriptionCase{R"({"inputs":[{"name":"x","shape":[1.5],"dtype":"int32"}],"outputs":[]})",
                        "feature \"x\" has a non-integer dimension"},
        DescriptionCase{R"({"inputs":[],"outputs":[{"name":"y","shape":[1],"dtype":"float64"}]})",
                        "feature \"y\" has an unknown dtype \"float64\""},
        DescriptionCase{R"({"inputs":[{"name":"x"},{"name":"x"}],"outputs":[]})",
                        "feature \"x\" is listed twice in \"inputs\""}));

TEST(HalfConversion, RoundTripsEveryHalfAndRoundsToNearestEven) {
  for (std::uint32_t bits = 0; bits <= 0xFFFF; ++bits) {
    auto h = static_cast<std::uint16_t>(bits);
    float f = halfToFloat(h);
    if (std::isnan(f)) {
      EXPECT_EQ(floatToHalf(f) & 0x7C00u, 0x7C00u);
      EXPECT_NE(floatToHalf(f) & 0x3FFu, 0u);
    } else {
      ASSERT_EQ(floatToHalf(f), h) << bits;
    }
  }
  EXPECT_EQ(floatToHalf(65520.0f), 0x7C00);               // rounds up to infinity
  EXPECT_EQ(floatToHalf(1.0f + 1.0f / 2048.0f), 0x3C00);  // tie goes to even
  EXPECT_EQ(floatToHalf(std::ldexp(1.0f, -25)), 0x0000);  // tie below the smallest subnormal
}

}  // namespace
}  // namespace lumora2
