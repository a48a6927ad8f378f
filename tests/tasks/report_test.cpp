// The reporting run: how a run ended, the time-out included, even for a child
// that closed its output long before it ends.
#include <gtest/gtest.h>
#include <signal.h>

#include "TaskTestSupport.h"

TEST(TaskReport, TellsHowTheRunEnded) {
  using Kind = KdTask::Outcome::Kind;
  struct Case {
    const char* script;
    std::optional<double> timeout;
    std::optional<std::string> data;
    bool timedOut;
    Kind kind;
    int value;
  } cases[] = {
      {"echo out; exit 3", std::nullopt, "out\n", false, Kind::Exited, 3},
      {"kill -KILL $$", 5.0, "", false, Kind::Signalled, SIGKILL},
      // Output closed at once: the data is complete, but the time-out still
      // ends the child, which the report says.
      {"echo early; exec >&- 2>&-; exec sleep 30", 1.0, "early\n", true, Kind::Signalled, SIGTERM},
  };
  for (const Case& c : cases) {
    KdTaskEx::RunReport report;
    const auto start = std::chrono::steady_clock::now();
    auto data = KdTaskEx::dataFromTaskWithReport("/bin/sh", {"-c", c.script}, c.timeout, report);
    EXPECT_EQ(data, c.data) << c.script;
    EXPECT_EQ(report.timedOut, c.timedOut) << c.script;
    EXPECT_EQ(report.outcome.kind, c.kind) << c.script;
    EXPECT_EQ(report.outcome.value, c.value) << c.script;
    EXPECT_LT(kd::test::secondsSince(start), 10.0) << c.script;
  }

  KdTaskEx::RunReport report;
  report.timedOut = true;
  EXPECT_EQ(KdTaskEx::dataFromTaskWithReport("/nonexistent/tool", {}, 1.0, report), std::nullopt);
  EXPECT_FALSE(report.timedOut);
  EXPECT_EQ(report.outcome.kind, Kind::NotLaunched);
}
