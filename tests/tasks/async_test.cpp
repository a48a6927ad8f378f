// Asynchronous runs, and descriptors of every kind of run.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <condition_variable>
#include <mutex>
#include <stdexcept>

#include "tasks/TaskTestSupport.h"

namespace kd::test {
namespace {

using namespace std::chrono_literals;

// Records the delegate's calls (bytes, runner, object); thread-safe.
class Recorder {
 public:
  struct Call {
    std::string bytes;
    const KdTaskEx* runner;
    std::any object;
  };
  std::function<void(KdTaskEx&)> onCall;  // on the run's thread, under the lock

  KdTaskEx::AsyncDataHandler handler() {
    return [this](const KdTaskEx::Data& bytes, KdTaskEx& runner, const std::any& object) {
      std::lock_guard lock(mutex_);
      calls_.push_back({bytes, &runner, object});
      if (onCall) onCall(runner);
      cv_.notify_all();
    };
  }
  // Waits for `n` calls, or for the final empty chunk when `n` is 0.
  bool waitFor(std::size_t n = 0) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, 20s, [&] {
      return n ? calls_.size() >= n : !calls_.empty() && calls_.back().bytes.empty();
    });
  }
  std::vector<Call> calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<Call> calls_;
};

TEST(AsyncTask, DeliversChunksThenOneEmptyChunk) {
  for (const auto& [args, expected] :
       {std::pair{childArgs("write"), std::string()},
        std::pair{childArgs("big", {"1048576", "70000"}), pattern(1048576, 'A')}}) {
    SCOPED_TRACE(expected.size());
    Recorder recorder;
    auto runner = KdTaskEx::create();
    const KdTaskEx* raw = runner.get();
    const std::weak_ptr<KdTaskEx> weak = runner;
    runner->asyncDataFromTask(selfExecutable(), args, recorder.handler(), 42);
    runner.reset();  // the run keeps its instance until it ends
    ASSERT_TRUE(recorder.waitFor());
    ASSERT_TRUE(eventually([&] { return weak.expired(); }));
    const std::vector<Recorder::Call> calls = recorder.calls();
    std::string all;
    for (std::size_t i = 0; i < calls.size(); ++i) {
      all += calls[i].bytes;
      EXPECT_EQ(calls[i].bytes.empty(), i + 1 == calls.size());  // only the last is empty
      EXPECT_EQ(calls[i].runner, raw);
      EXPECT_EQ(std::any_cast<int>(calls[i].object), 42);
    }
    EXPECT_TRUE(all == expected);
  }
}

TEST(AsyncTask, RunsThatCannotDeliverStillEnd) {
  const std::string marker =
      "Unable to launch async task - task does not exist or is not executable";
  const std::size_t before = logText().rfind(marker);
  Recorder recorder;
  auto runner = KdTaskEx::create();
  runner->asyncDataFromTask("/nonexistent/tool", {}, recorder.handler());
  EXPECT_TRUE(eventually([&] { return !runner->theTask(); }));
  EXPECT_NE(logText().rfind(marker), before);

  // A delegate without the operation.
  runner->asyncDataFromTask(selfExecutable(), childArgs("write", {"x"}), nullptr);
  EXPECT_TRUE(eventually([&] { return !runner->theTask(); }));

  // A delegate that throws.
  runner->asyncDataFromTask(selfExecutable(), childArgs("sleep", {"30"}),
                            [](const KdTaskEx::Data&, KdTaskEx&, const std::any&) {
                              throw std::runtime_error("delegate gave up");
                            });
  EXPECT_TRUE(eventually([&] { return !runner->theTask(); }));
  EXPECT_THAT(logText(), ::testing::HasSubstr("Exception in -[KdTaskEx launchAsyncTask]. "
                                              "std::runtime_error - delegate gave up."));
  std::this_thread::sleep_for(100ms);  // nothing is delivered after the end either
  EXPECT_TRUE(recorder.calls().empty());
}

TEST(AsyncTask, EarlyTerminateEndsTheChild) {
  for (bool fromDelegate : {false, true}) {
    SCOPED_TRACE(fromDelegate);
    Recorder recorder;
    KdTaskEx::TaskHandle task;
    recorder.onCall = [&](KdTaskEx& runner) {
      task = runner.theTask();
      if (fromDelegate) runner.terminateTask();
    };
    auto runner = KdTaskEx::create();
    runner->asyncDataFromTask(selfExecutable(), childArgs("sleep", {"30"}), recorder.handler());
    ASSERT_TRUE(recorder.waitFor(1));
    if (!fromDelegate) runner->terminateTask();
    EXPECT_FALSE(runner->theTask());
    ASSERT_TRUE(task);
    EXPECT_TRUE(eventually([&] { return ::kill(task->processIdentifier(), 0) != 0; }));
    EXPECT_EQ(task->outcome().kind, KdTask::Outcome::Kind::Signalled);
    // The final empty chunk found no delegate.
    std::this_thread::sleep_for(100ms);
    ASSERT_EQ(recorder.calls().size(), 1u);
    EXPECT_EQ(recorder.calls()[0].bytes, "started\n");
  }
}

TEST(AsyncTask, NewSetUpReplacesTheRunningOne) {
  Recorder first, second;
  auto runner = KdTaskEx::create();
  runner->asyncDataFromTask(selfExecutable(), childArgs("sleep", {"30"}), first.handler());
  ASSERT_TRUE(first.waitFor(1));
  const pid_t firstPid = runner->theTask()->processIdentifier();
  runner->asyncDataFromTask(selfExecutable(), childArgs("write", {"x"}), second.handler());
  ASSERT_TRUE(second.waitFor());
  EXPECT_TRUE(eventually([&] { return ::kill(firstPid, 0) != 0; }));
  EXPECT_EQ(second.calls().front().bytes, "x");
  EXPECT_EQ(first.calls().size(), 1u);
  // Both runs end and let go of the instance.
  const std::weak_ptr<KdTaskEx> weak = std::exchange(runner, nullptr);
  EXPECT_TRUE(eventually([&] { return weak.expired(); }));
}

TEST(TaskDescriptors, NoneLeakIntoTheChildOrStayOpen) {
  const std::vector<int> before = openFds();
  // Runs from other threads at the same time must not hand their pipes over.
  std::vector<std::thread> others;
  for (int i = 0; i < 3; ++i) {
    others.emplace_back([] {
      for (int k = 0; k < 5; ++k)
        KdTaskEx::dataFromTask(selfExecutable(), childArgs("write", {"x"}), nullptr);
    });
  }
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(KdTaskEx::dataFromTask(selfExecutable(), childArgs("fds"), nullptr), "0\n1\n2\n");
  for (auto& t : others) t.join();
  KdTaskEx::runTask(selfExecutable(), childArgs("write", {"x"}));
  KdTaskEx::terminationCodeFromTask(selfExecutable(), childArgs("write"), 10.0);
  KdTaskEx::dataFromTask(selfExecutable(), childArgs("write", {"x"}), 10.0);
  KdTaskEx::dataFromTask("/nonexistent/tool", {}, nullptr);
  auto runner = KdTaskEx::create();
  runner->asyncDataFromTask(selfExecutable(), childArgs("big", {"300000", "0"}), nullptr);
  auto stopped = KdTaskEx::create();
  stopped->asyncDataFromTask(selfExecutable(), childArgs("sleep", {"30"}), nullptr);
  stopped->terminateTask();
  // The asynchronous runs' threads close their pipes as they end.
  EXPECT_TRUE(eventually([&] { return openFds() == before; }));
  EXPECT_EQ(openFds(), before);
}

}  // namespace
}  // namespace kd::test
