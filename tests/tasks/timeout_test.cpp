// Time-outs. Timings are asserted loosely: the machine may be busy.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "tasks/KdTaskEx.h"
#include "tasks/TaskTestSupport.h"

using kd::test::childArgs;
using kd::test::secondsSince;
using kd::test::selfExecutable;
using ::testing::HasSubstr;

namespace {

TEST(TaskTimeout, WholeSecondsThenTerminated) {
  struct Case {
    double timeout;
    double atLeast;
    double below;
  };
  // 0.9 truncates to 0 s and fires at once; 2.5 fires after 2 s.
  const Case cases[] = {{0.9, 0.0, 1.8}, {2.5, 1.9, 6.0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.timeout);
    const auto start = std::chrono::steady_clock::now();
    std::optional<std::string> data =
        KdTaskEx::dataFromTask(selfExecutable(), childArgs("sleep", {"30"}), c.timeout);
    const double took = secondsSince(start);
    EXPECT_GE(took, c.atLeast);
    EXPECT_LT(took, c.below);
    ASSERT_TRUE(data.has_value());
    // What the child wrote before its end is kept; "late" never comes.
    if (c.timeout > 1) {
      EXPECT_EQ(*data, "started\n");
    }
    EXPECT_THAT(kd::test::logText(),
                HasSubstr("Task " + selfExecutable() + " timed out. Terminating..."));
  }
}

TEST(TaskTimeout, EveryFormEndsTheChild) {
  const KdTaskEx::Arguments sleeper = childArgs("sleep", {"30"});
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(KdTaskEx::runTask(selfExecutable(), sleeper, 1.0));
  EXPECT_EQ(KdTaskEx::terminationCodeFromTask(selfExecutable(), sleeper, 1.0), SIGTERM);
  EXPECT_EQ(KdTaskEx::stringFromTask(selfExecutable(), sleeper, 1.0), "started\n");
  EXPECT_LT(secondsSince(start), 15.0);
}

TEST(TaskTimeout, ChildIgnoringSigtermIsKilledAfterGrace) {
  const auto start = std::chrono::steady_clock::now();
  std::int32_t code = KdTaskEx::terminationCodeFromTask(
      selfExecutable(), childArgs("sleep", {"30", "ignore-term"}), 1.0);
  const double took = secondsSince(start);
  EXPECT_EQ(code, SIGKILL);
  EXPECT_GE(took, 1.0 + 1.9);  // the time-out plus the grace
  EXPECT_LT(took, 15.0);
}

TEST(TaskTimeout, ProcessLeftHoldingThePipeDoesNotHoldTheRun) {
  // The child exits at once; its own child keeps the output pipe open for 8 s.
  const auto start = std::chrono::steady_clock::now();
  std::optional<std::string> data =
      KdTaskEx::dataFromTask(selfExecutable(), childArgs("orphan", {"8"}), 1.0);
  EXPECT_LT(secondsSince(start), 6.0);
  EXPECT_EQ(data, "parent\n");
}

TEST(TaskTimeout, RunEndingFirstReturnsAtOnce) {
  const std::string before = kd::test::logText();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(KdTaskEx::dataFromTask(selfExecutable(), childArgs("write", {"hi"}), 30.0), "hi");
  EXPECT_EQ(KdTaskEx::terminationCodeFromTask(selfExecutable(), childArgs("exit", {"4"}), 30.0), 4);
  EXPECT_LT(secondsSince(start), 10.0);
  EXPECT_EQ(kd::test::logText().size(), before.size());
}

}  // namespace
