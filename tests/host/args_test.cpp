// The shared argument grammar, the number reader and the warm-up length, as tables.
#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "host/args.h"

namespace lumora2 {
namespace {

struct GrammarCase {
  std::string name;
  std::vector<std::string> words;
  Positionals positionals;
  Options options;
};

class ParseArgsTest : public ::testing::TestWithParam<GrammarCase> {};

TEST_P(ParseArgsTest, SplitsPositionalsAndOptions) {
  const GrammarCase& c = GetParam();
  ParsedArgs parsed = parseArgs(c.words);
  EXPECT_EQ(parsed.positionals, c.positionals);
  EXPECT_EQ(parsed.options, c.options);
}

INSTANTIATE_TEST_SUITE_P(
    Grammar, ParseArgsTest,
    ::testing::Values(
        GrammarCase{"Empty", {}, {}, {}},
        GrammarCase{"PositionalsKeepOrder", {"b", "a", "c"}, {"b", "a", "c"}, {}},
        GrammarCase{"OutputTakesNextWord", {"dir", "-o", "x.model"}, {"dir"}, {{"o", "x.model"}}},
        GrammarCase{"OutputValueMayLookLikeAnOption", {"-o", "--abi"}, {}, {{"o", "--abi"}}},
        GrammarCase{
            "TrailingOutputCancelsEarlierOne", {"in.model", "-o", "x.imx", "-o"}, {"in.model"}, {}},
        GrammarCase{"TrailingOutputAloneStoresNothing", {"-o"}, {}, {}},
        GrammarCase{
            "TrailingOutputKeepsOtherOptions", {"--abi", "3", "-o", "x", "-o"}, {}, {{"abi", "3"}}},
        GrammarCase{"RepeatedOutputKeepsLast", {"-o", "a", "-o", "b"}, {}, {{"o", "b"}}},
        GrammarCase{"RepeatedOptionKeepsLast", {"--abi", "1", "--abi", "2"}, {}, {{"abi", "2"}}},
        GrammarCase{"OptionGreedilyTakesPositional",
                    {"a.model", "--no-verify", "out"},
                    {"a.model"},
                    {{"no-verify", "out"}}},
        GrammarCase{"OptionBeforeOptionIsTrue",
                    {"--abi", "--code", "C"},
                    {},
                    {{"abi", "true"}, {"code", "C"}}},
        GrammarCase{"OptionBeforeOutputIsTrue",
                    {"--verify", "-o", "x"},
                    {},
                    {{"verify", "true"}, {"o", "x"}}},
        GrammarCase{"LastOptionIsTrue", {"x", "--no-verify"}, {"x"}, {{"no-verify", "true"}}},
        GrammarCase{"ValueMayBeginWithSingleDash",
                    {"--abi", "-3", "--name", "-"},
                    {},
                    {{"abi", "-3"}, {"name", "-"}}},
        GrammarCase{"DoubleDashAloneIsEmptyKey", {"--", "v"}, {}, {{"", "v"}}},
        GrammarCase{"DoubleDashAtEndIsEmptyKeyTrue", {"x", "--"}, {"x"}, {{"", "true"}}},
        GrammarCase{
            "SingleDashWordsArePositional", {"-v", "-", "-oo", "-O"}, {"-v", "-", "-oo", "-O"}, {}},
        GrammarCase{"EmptyWordIsPositional", {"", "--k", ""}, {""}, {{"k", ""}}},
        GrammarCase{"TripleDashKeepsOneDash", {"---x", "1"}, {}, {{"-x", "1"}}}),
    [](const ::testing::TestParamInfo<GrammarCase>& p) { return p.param.name; });

struct DecimalCase {
  std::string text;
  std::optional<double> value;
};

class ParseDecimalTest : public ::testing::TestWithParam<DecimalCase> {};

TEST_P(ParseDecimalTest, WholeTextMustBeTheNumber) {
  const DecimalCase& c = GetParam();
  EXPECT_EQ(parseDecimal(c.text), c.value) << "text '" << c.text << "'";
}

INSTANTIATE_TEST_SUITE_P(
    Numbers, ParseDecimalTest,
    ::testing::Values(DecimalCase{"2.5", 2.5}, DecimalCase{"-3", -3.0}, DecimalCase{"+4", 4.0},
                      DecimalCase{"0", 0.0}, DecimalCase{".5", 0.5}, DecimalCase{"5.", 5.0},
                      DecimalCase{"1e3", 1000.0}, DecimalCase{"-2E-1", -0.2},
                      DecimalCase{"", std::nullopt}, DecimalCase{" 2", std::nullopt},
                      DecimalCase{"2 ", std::nullopt}, DecimalCase{"abc", std::nullopt},
                      DecimalCase{"2x", std::nullopt}, DecimalCase{".", std::nullopt},
                      DecimalCase{"-", std::nullopt}, DecimalCase{"1e", std::nullopt},
                      DecimalCase{"0x10", std::nullopt}, DecimalCase{"inf", std::nullopt},
                      DecimalCase{"nan", std::nullopt}, DecimalCase{"1,5", std::nullopt},
                      DecimalCase{"--1", std::nullopt}));

struct IntegerCase {
  std::string text;
  std::optional<std::int64_t> value;
};

class ParseIntegerTest : public ::testing::TestWithParam<IntegerCase> {};

TEST_P(ParseIntegerTest, WholeTextMustBeTheNumber) {
  const IntegerCase& c = GetParam();
  EXPECT_EQ(parseInteger(c.text), c.value) << "text '" << c.text << "'";
}

INSTANTIATE_TEST_SUITE_P(
    Numbers, ParseIntegerTest,
    ::testing::Values(IntegerCase{"1", 1}, IntegerCase{"-7", -7}, IntegerCase{"+7", 7},
                      IntegerCase{"007", 7},
                      IntegerCase{"9223372036854775807", std::numeric_limits<std::int64_t>::max()},
                      IntegerCase{"-9223372036854775808", std::numeric_limits<std::int64_t>::min()},
                      IntegerCase{"9223372036854775808", std::nullopt},
                      IntegerCase{"1.0", std::nullopt}, IntegerCase{"true", std::nullopt},
                      IntegerCase{"", std::nullopt}, IntegerCase{"+", std::nullopt},
                      IntegerCase{" 1", std::nullopt}, IntegerCase{"1e2", std::nullopt}));

struct WarmCase {
  std::string name;
  std::optional<std::string> value;  // nullopt: LUMORA2_WARM_SECS unset
  std::int64_t samples;
};

class WarmSamplesTest : public ::testing::TestWithParam<WarmCase> {
 protected:
  void TearDown() override { unsetenv("LUMORA2_WARM_SECS"); }
};

TEST_P(WarmSamplesTest, ReadsSecondsOfWarmUpSpeech) {
  const WarmCase& c = GetParam();
  if (c.value) {
    setenv("LUMORA2_WARM_SECS", c.value->c_str(), 1);
  } else {
    unsetenv("LUMORA2_WARM_SECS");
  }
  EXPECT_EQ(warmSamples(), c.samples);
}

INSTANTIATE_TEST_SUITE_P(
    Env, WarmSamplesTest,
    ::testing::Values(WarmCase{"Fraction", "2.5", 40000}, WarmCase{"NegativeIsZero", "-3", 0},
                      WarmCase{"NotANumber", "abc", 320000},
                      WarmCase{"Unset", std::nullopt, 320000},
                      WarmCase{"LeadingBlank", " 2", 320000}, WarmCase{"Empty", "", 320000},
                      WarmCase{"Zero", "0", 0}, WarmCase{"SubSampleFractionDropped", "0.00001", 0},
                      WarmCase{"Exponent", "1e1", 160000},
                      WarmCase{"HugeSaturates", "1e300", std::numeric_limits<std::int64_t>::max()}),
    [](const ::testing::TestParamInfo<WarmCase>& p) { return p.param.name; });

}  // namespace
}  // namespace lumora2
