#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "tasks/KdTaskEx.h"
#include "tasks/TaskTestSupport.h"

using kd::test::childArgs;
using kd::test::selfExecutable;
using ::testing::HasSubstr;

namespace {

using namespace std::chrono_literals;

std::string pattern(std::size_t size, char seed) {
  std::string s(size, '\0');
  for (std::size_t i = 0; i < size; ++i) s[i] = static_cast<char>(seed + i % 23);
  return s;
}

// Records the delegate's calls; thread-safe.
class Recorder {
 public:
  struct Call {
    std::string bytes;
    const KdTaskEx* runner;
    std::optional<int> object;
  };

  KdTaskEx::AsyncDataHandler handler() {
    return [this](const KdTaskEx::Data& bytes, KdTaskEx& runner, const std::any& object) {
      std::lock_guard lock(mutex_);
      Call call{bytes, &runner, std::nullopt};
      if (object.has_value()) call.object = std::any_cast<int>(object);
      calls_.push_back(call);
      if (onCall_) onCall_(runner);
      cv_.notify_all();
    };
  }
  // Called (under the recorder's lock) on the run's thread after each call.
  void setOnCall(std::function<void(KdTaskEx&)> fn) { onCall_ = std::move(fn); }

  // Waits for the final empty chunk.
  bool waitForEnd(std::chrono::seconds limit = 20s) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, limit,
                        [&] { return !calls_.empty() && calls_.back().bytes.empty(); });
  }
  bool waitForCalls(std::size_t n, std::chrono::seconds limit = 20s) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, limit, [&] { return calls_.size() >= n; });
  }
  std::vector<Call> calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
  }
  std::string joined() const {
    std::string all;
    for (const Call& c : calls()) all += c.bytes;
    return all;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<Call> calls_;
  std::function<void(KdTaskEx&)> onCall_;
};

// The run clears its fields when it ends; its thread may still be finishing.
bool waitUntilCleared(const KdTaskEx& runner) {
  for (int i = 0; i < 2000; ++i) {
    if (!runner.theTask()) return true;
    std::this_thread::sleep_for(10ms);
  }
  return false;
}

bool processGone(pid_t pid) {
  for (int i = 0; i < 1000; ++i) {
    if (::kill(pid, 0) != 0 && errno == ESRCH) return true;
    std::this_thread::sleep_for(10ms);
  }
  return false;
}

TEST(AsyncTask, DeliversChunksThenOneEmptyChunk) {
  std::string lines;
  for (int i = 0; i < 20; ++i) lines += "line " + std::to_string(i) + "\n";
  struct Case {
    const char* name;
    KdTaskEx::Arguments args;
    std::string expected;
    std::any object;
  };
  const Case cases[] = {
      {"nothing", childArgs("write"), "", 42},
      {"several chunks", childArgs("chunks", {"20"}), lines, {}},
      {"large", childArgs("big", {"1048576", "70000"}), pattern(1048576, 'A'), 7},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Recorder recorder;
    auto runner = KdTaskEx::create();
    runner->asyncDataFromTask(selfExecutable(), c.args, recorder.handler(), c.object);
    ASSERT_TRUE(recorder.waitForEnd());
    ASSERT_TRUE(waitUntilCleared(*runner));
    std::vector<Recorder::Call> calls = recorder.calls();
    // No output: exactly one call, the empty one.
    if (c.expected.empty()) {
      EXPECT_EQ(calls.size(), 1u);
    }
    EXPECT_TRUE(recorder.joined() == c.expected);
    for (const auto& call : calls) {
      EXPECT_EQ(call.runner, runner.get());
      if (c.object.has_value()) {
        EXPECT_EQ(call.object, std::any_cast<int>(c.object));
      } else {
        EXPECT_EQ(call.object, std::nullopt);
      }
    }
    // Only the last chunk is empty.
    for (std::size_t i = 0; i + 1 < calls.size(); ++i) EXPECT_FALSE(calls[i].bytes.empty());
  }
}

TEST(AsyncTask, MissingExecutableNeverCallsTheDelegate) {
  const std::string marker =
      "Unable to launch async task - task does not exist or is not executable";
  const std::size_t before = kd::test::logText().find(marker);
  Recorder recorder;
  auto runner = KdTaskEx::create();
  runner->asyncDataFromTask("/nonexistent/tool", {}, recorder.handler());
  ASSERT_TRUE(waitUntilCleared(*runner));
  // Nothing is delivered after the run has ended either.
  std::this_thread::sleep_for(100ms);
  EXPECT_TRUE(recorder.calls().empty());
  const std::string log = kd::test::logText();
  EXPECT_NE(log.rfind(marker), before);
  EXPECT_NE(log.rfind(marker), std::string::npos);
}

TEST(AsyncTask, DelegateWithoutOperationStillEndsTheRun) {
  auto runner = KdTaskEx::create();
  runner->asyncDataFromTask(selfExecutable(), childArgs("write", {"x"}), nullptr);
  EXPECT_TRUE(waitUntilCleared(*runner));
}

TEST(AsyncTask, ThrowingDelegateEndsTheRunAndIsReported) {
  auto runner = KdTaskEx::create();
  runner->asyncDataFromTask(selfExecutable(), childArgs("sleep", {"30"}),
                            [](const KdTaskEx::Data&, KdTaskEx&, const std::any&) {
                              throw std::runtime_error("delegate gave up");
                            });
  EXPECT_TRUE(waitUntilCleared(*runner));
  EXPECT_THAT(kd::test::logText(),
              HasSubstr("Exception in -[KdTaskEx launchAsyncTask]. std::runtime_error - "
                        "delegate gave up."));
}

TEST(AsyncTask, EarlyTerminateEndsChildAndDelivers) {
  Recorder recorder;
  auto runner = KdTaskEx::create();
  runner->asyncDataFromTask(selfExecutable(), childArgs("sleep", {"30"}), recorder.handler());
  ASSERT_TRUE(recorder.waitForCalls(1));
  KdTaskEx::TaskHandle task = runner->theTask();
  ASSERT_TRUE(task);
  const pid_t pid = task->processIdentifier();
  runner->terminateTask();
  EXPECT_FALSE(runner->theTask());
  EXPECT_TRUE(processGone(pid));
  EXPECT_EQ(task->outcome().kind, KdTask::Outcome::Kind::Signalled);
  // The final empty chunk found no delegate.
  std::this_thread::sleep_for(100ms);
  ASSERT_EQ(recorder.calls().size(), 1u);
  EXPECT_EQ(recorder.calls()[0].bytes, "started\n");
}

TEST(AsyncTask, TerminateFromTheDelegateItself) {
  Recorder recorder;
  recorder.setOnCall([](KdTaskEx& runner) { runner.terminateTask(); });
  auto runner = KdTaskEx::create();
  runner->asyncDataFromTask(selfExecutable(), childArgs("sleep", {"30"}), recorder.handler());
  ASSERT_TRUE(recorder.waitForCalls(1));
  EXPECT_TRUE(waitUntilCleared(*runner));
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(recorder.calls().size(), 1u);
}

TEST(AsyncTask, NewSetUpReplacesTheRunningOne) {
  Recorder first;
  Recorder second;
  auto runner = KdTaskEx::create();
  runner->asyncDataFromTask(selfExecutable(), childArgs("sleep", {"30"}), first.handler());
  ASSERT_TRUE(first.waitForCalls(1));
  const pid_t firstPid = runner->theTask()->processIdentifier();
  runner->asyncDataFromTask(selfExecutable(), childArgs("chunks", {"3"}), second.handler(), 5);
  ASSERT_TRUE(second.waitForEnd());
  EXPECT_TRUE(processGone(firstPid));
  EXPECT_EQ(second.joined(), "line 0\nline 1\nline 2\n");
  EXPECT_TRUE(waitUntilCleared(*runner));
  EXPECT_EQ(first.calls().size(), 1u);
}

TEST(AsyncTask, RunKeepsItsInstanceAlive) {
  Recorder recorder;
  std::weak_ptr<KdTaskEx> weak;
  {
    auto runner = KdTaskEx::create();
    weak = runner;
    runner->asyncDataFromTask(selfExecutable(), childArgs("chunks", {"5"}), recorder.handler());
  }
  ASSERT_TRUE(recorder.waitForEnd());
  EXPECT_EQ(recorder.joined(), "line 0\nline 1\nline 2\nline 3\nline 4\n");
  for (int i = 0; i < 1000 && !weak.expired(); ++i) std::this_thread::sleep_for(10ms);
  EXPECT_TRUE(weak.expired());
}

TEST(AsyncTask, LaunchWithoutTaskIsReported) {
  testing::internal::CaptureStdout();
  KdTaskEx::create()->launchAsyncTask();
  EXPECT_THAT(testing::internal::GetCapturedStdout(),
              HasSubstr("Unable to launch async task - no task set"));
}

TEST(AsyncTask, NoDescriptorStaysOpen) {
  const std::vector<int> before = kd::test::openFds();
  {
    Recorder recorder;
    auto runner = KdTaskEx::create();
    runner->asyncDataFromTask(selfExecutable(), childArgs("write", {"x"}), recorder.handler());
    ASSERT_TRUE(recorder.waitForEnd());
    auto stopped = KdTaskEx::create();
    stopped->asyncDataFromTask(selfExecutable(), childArgs("sleep", {"30"}), nullptr);
    stopped->terminateTask();
  }
  // The runs' threads close their pipes as they end.
  std::vector<int> after;
  for (int i = 0; i < 500; ++i) {
    after = kd::test::openFds();
    if (after == before) break;
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_EQ(after, before);
}

}  // namespace
