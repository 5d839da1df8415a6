// The engine's log lines: their prefix, and that concurrent writers never tear a line.
#include <gtest/gtest.h>
#include <unistd.h>

#include <regex>
#include <sstream>
#include <thread>

#include "engine/log.h"
#include "support/harness.h"

namespace lumora2 {
namespace {

TEST(EngineLog, LineIsLocalIsoTimeProcessTagAndText) {
  std::string line = formatLogLine("[vivra] mlmodelc cache HIT: k — “é”");
  std::regex shape(R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d lumora2-model\[)" +
                   std::to_string(getpid()) + R"(\] \[vivra\] mlmodelc cache HIT: k — “é”\n$)");
  EXPECT_TRUE(std::regex_match(line, shape)) << line;
}

TEST(EngineLog, ConcurrentLinesArriveWhole) {
  constexpr int kThreads = 8, kLines = 200;
  testing::StderrCapture capture;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      // Long lines: a torn write would show as a line mixing two threads' letters.
      std::string text(3000, static_cast<char>('a' + t));
      for (int i = 0; i < kLines; ++i) engineLog(text);
    });
  }
  for (auto& thread : threads) thread.join();
  auto lines = testing::logTexts(capture.finish());
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kLines));
  for (const auto& line : lines) {
    ASSERT_EQ(line.size(), 3000u);
    ASSERT_EQ(line.find_first_not_of(line[0]), std::string::npos);
  }
}

}  // namespace
}  // namespace lumora2
