#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/ReadAhead.h"
#include "common/UniqueFd.h"
#include "support/TempDir.h"

namespace {

// A large regular file is read ahead on a thread, and still comes back as the
// reads that were made, in order; small files and FIFOs are read on the spot.
TEST(ReadAhead, LargeFilesAheadOnAThreadOthersOnTheSpot) {
  kd::test::TempDir tmp;
  std::string contents(3 * 1048576 + 5, '\0');
  for (std::size_t i = 0; i < contents.size(); ++i) contents[i] = static_cast<char>(i * 131 / 7);
  const std::string large = tmp.touch("large", contents), small = tmp.touch("small", "abc");
  ASSERT_EQ(::mkfifo((tmp / "fifo").c_str(), 0600), 0);
  kd::UniqueFd fifoWriter;  // keeps the FIFO's open from blocking
  kd::UniqueFd fifo(::open((tmp / "fifo").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  fifoWriter.reset(::open((tmp / "fifo").c_str(), O_WRONLY | O_CLOEXEC));

  kd::UniqueFd fd(::open(large.c_str(), O_RDONLY | O_CLOEXEC));
  {
    kd::ReadAhead reader(fd.get());
    EXPECT_TRUE(reader.readsAhead());
    std::string read;
    std::vector<ssize_t> lengths;
    for (kd::ReadAhead::Read r = reader.next(); r.length > 0; r = reader.next()) {
      lengths.push_back(r.length);
      read.append(reinterpret_cast<const char*>(r.data), static_cast<std::size_t>(r.length));
    }
    EXPECT_EQ(reader.next().length, 0);  // the end stays the end
    EXPECT_EQ(read, contents);
    ASSERT_EQ(lengths.size(), 49u);
    EXPECT_EQ(lengths.back(), 5);
  }
  kd::UniqueFd smallFd(::open(small.c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_FALSE(kd::ReadAhead(smallFd.get()).readsAhead());
  kd::ReadAhead fifoReader(fifo.get());
  EXPECT_FALSE(fifoReader.readsAhead());
  // A failed read is reported with its error (nothing to read, non-blocking).
  const kd::ReadAhead::Read r = fifoReader.next();
  EXPECT_EQ(r.length, -1);
  EXPECT_EQ(r.error, EAGAIN);
}

}  // namespace
