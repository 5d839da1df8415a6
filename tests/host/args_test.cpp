// The shared argument grammar and the number readers, as tables.
#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "host/args.h"

namespace lumora2 {
namespace {

struct GrammarCase {
  std::vector<std::string> words;
  Positionals positionals;
  Options options;
};

class ParseArgsTest : public ::testing::TestWithParam<GrammarCase> {};

TEST_P(ParseArgsTest, SplitsPositionalsAndOptions) {
  ParsedArgs parsed = parseArgs(GetParam().words);
  EXPECT_EQ(parsed.positionals, GetParam().positionals);
  EXPECT_EQ(parsed.options, GetParam().options);
}

// The grammar's edges as the commands see them (a greedy option, "--abi" before another option)
// are the golden cases' concern; these are the rules each word meets.
INSTANTIATE_TEST_SUITE_P(
    Grammar, ParseArgsTest,
    ::testing::Values(
        GrammarCase{{"b", "a", "c"}, {"b", "a", "c"}, {}},
        GrammarCase{{"dir", "-o", "x.model"}, {"dir"}, {{"o", "x.model"}}},
        GrammarCase{{"-o", "--abi"}, {}, {{"o", "--abi"}}},  // -o takes any next word
        // A trailing bare -o cancels an earlier one and nothing else.
        GrammarCase{{"in.model", "--abi", "3", "-o", "x", "-o"}, {"in.model"}, {{"abi", "3"}}},
        GrammarCase{{"--abi", "1", "--abi", "2"}, {}, {{"abi", "2"}}},
        // Before "-o" and at the end, an option holds "true"; a single "-" starts a value.
        GrammarCase{{"--verify", "-o", "x"}, {}, {{"verify", "true"}, {"o", "x"}}},
        GrammarCase{{"x", "--no-verify"}, {"x"}, {{"no-verify", "true"}}},
        GrammarCase{{"--abi", "-3", "--name", "-"}, {}, {{"abi", "-3"}, {"name", "-"}}},
        GrammarCase{{"-v", "-", "-oo", "-O"}, {"-v", "-", "-oo", "-O"}, {}}));

struct NumberCase {
  std::string text;
  std::optional<double> decimal;
  std::optional<std::int64_t> integer;
};

constexpr std::nullopt_t no = std::nullopt;
constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

class ParseNumberTest : public ::testing::TestWithParam<NumberCase> {};

TEST_P(ParseNumberTest, WholeTextMustBeTheNumber) {
  EXPECT_EQ(parseDecimal(GetParam().text), GetParam().decimal) << "'" << GetParam().text << "'";
  EXPECT_EQ(parseInteger(GetParam().text), GetParam().integer) << "'" << GetParam().text << "'";
}

// Sign, exponent, the int64 limit and one past it, and text that is not wholly a number.
INSTANTIATE_TEST_SUITE_P(
    Numbers, ParseNumberTest,
    ::testing::Values(NumberCase{"2.5", 2.5, no}, NumberCase{"-3", -3.0, -3},
                      NumberCase{"1e3", 1000.0, no},
                      NumberCase{"9223372036854775807", static_cast<double>(kMax), kMax},
                      NumberCase{"9223372036854775808", 9223372036854775808.0, no},
                      NumberCase{"", no, no}, NumberCase{" 2", no, no}, NumberCase{"2x", no, no},
                      NumberCase{"-", no, no}, NumberCase{"0x10", no, no},
                      NumberCase{"nan", no, no}));

}  // namespace
}  // namespace lumora2
