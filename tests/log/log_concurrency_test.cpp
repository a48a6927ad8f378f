#include <unistd.h>

#include <atomic>
#include <map>
#include <thread>

#include "LogFixture.h"

namespace kd::test {
namespace {

TEST_F(LogTest, ConcurrentWritersLoseNothingAndKeepOrder) {
  constexpr int kThreads = 8;
  constexpr int kLines = 10000;
  // Nearly 3 MB of lines: more than five files hold, so the oldest is saved
  // as rotation is about to remove it.
  const std::string saved = tmp_.mkdir("saved");
  std::atomic<int> savedCount{0};
  KdLogTestAccess::setBeforeRemovingOldest([&](const std::string& path) {
    const std::string keep = saved + "/" + std::to_string(savedCount.load());
    ASSERT_EQ(::link(path.c_str(), keep.c_str()), 0);
    savedCount.fetch_add(1);
  });
  KdLog::createNewLog();

  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      // Half the threads may wait for the writer, half never do.
      for (int i = 0; i < kLines; ++i)
        t % 2 ? KdLog::appendLog("T%d %05d", t, i) : KdLog::fastAppendLog("T%d %05d", t, i);
    });
  }
  for (auto& th : threads) th.join();
  KdLog::finishWriting();
  KdLogTestAccess::setBeforeRemovingOldest(nullptr);

  // Oldest first: the saved files, then .5 down to .1, all of which exist.
  std::vector<std::string> files;
  for (int i = 0; i < savedCount.load(); ++i) files.push_back(saved + "/" + std::to_string(i));
  for (int i = 5; i >= 1; --i) files.push_back(logPath(i));

  std::map<int, int> next;
  int total = 0;
  const std::size_t longestLine = std::string("2024-01-01 00:00:00 +0000 - T0 00000\n").size();
  for (std::size_t f = 0; f < files.size(); ++f) {
    SCOPED_TRACE(files[f]);
    const std::size_t size = readFile(files[f]).size();
    // A file is full once it passes 500,000 bytes; only the current one is not.
    EXPECT_GE(size, f + 1 < files.size() ? 500000u : 1u);
    EXPECT_LT(size, f + 1 < files.size() ? 500000u + longestLine : 500000u);
    const Lines lines = messages(files[f]);
    const Lines head = withHeader(f > 0 ? Lines{"Log truncated at 500KB"} : Lines{});
    ASSERT_GE(lines.size(), head.size());
    EXPECT_EQ(Lines(lines.begin(), lines.begin() + head.size()), head);
    for (std::size_t i = head.size(); i < lines.size(); ++i) {
      int t = -1, seq = -1;
      ASSERT_EQ(std::sscanf(lines[i].c_str(), "T%d %d", &t, &seq), 2) << lines[i];
      ASSERT_EQ(seq, next[t]) << "thread " << t;
      next[t] = seq + 1;
      ++total;
    }
  }
  EXPECT_EQ(total, kThreads * kLines);
}

}  // namespace
}  // namespace kd::test
