// The verified copy when its parts fail under it. I/O faults come from the
// preloaded fault library (tests/files/shim) in a child copy, run twice: this
// program copying in a child (the outcome, the delegate and the messages) and
// `kd copy` (its exit status). Files that change under a copy in this process
// are changed by another thread while the copy runs. Each test fails when a
// bad destination is reported written or verified, when the copy hangs, or
// when the source loses a byte the copy did not cause.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/WorkQueue.h"
#include "files/DuringCopy.h"
#include "files/FaultShim.h"
#include "files/FilesFixture.h"
#include "files/KdFileManager.h"
#include "files/copy/CopyEngine.h"
#include "log/KdLog.h"
#include "support/ChildMode.h"

namespace {

using kd::test::readFile;
using Strings = std::vector<std::string>;

constexpr std::size_t kMiB = 1048576;

// Bytes that differ from place to place: a misplaced or changed chunk shows.
std::string varied(std::size_t size) {
  std::string block(kMiB, '\0');
  std::uint32_t x = 12345;
  for (char& c : block) {
    x = x * 1103515245u + 12345;
    c = static_cast<char>(x >> 24);
  }
  std::string s;
  s.reserve(size);
  for (unsigned i = 0; s.size() < size; ++i) {
    block[0] = static_cast<char>(i);  // each MiB differs from the others
    s.append(block, 0, std::min(kMiB, size - s.size()));
  }
  return s;
}

// Records what the delegate is told; shared with the copy's tasks.
struct Heard {
  std::mutex mu;
  Strings told;  // fileCopyVerificationFailed's files
  int finished = 0;

  static std::shared_ptr<KdFileCopyDelegate> delegate(const std::shared_ptr<Heard>& h) {
    auto d = std::make_shared<KdFileCopyDelegate>();
    d->fileCopyVerificationFailed = [h](const KdCopySettings&, const std::string& file) {
      std::lock_guard lock(h->mu);
      h->told.push_back(file);
    };
    d->fileCopyFinished = [h](const KdCopySettings&) {
      std::lock_guard lock(h->mu);
      ++h->finished;
    };
    return d;
  }
};

// The child: copyFileWithOutcome(args[2], args[3...]) with the digest named
// args[1], its outcome written to the file args[0], one fact a line.
int copyAndReport(const std::vector<std::string>& args) {
  if (args.size() < 4) return 2;
  auto heard = std::make_shared<Heard>();
  const KdFileManager::CopyResult r = KdFileManager::copyFileWithOutcome(
      args[2], Strings(args.begin() + 3, args.end()), *KdFileManager::copyDigestNamed(args[1]),
      Heard::delegate(heard));
  kd::WorkQueue::shared().waitUntilIdle();
  KdLog::finishWriting();
  std::ofstream out(args[0]);
  out << "completed " << r.completed << "\nsource " << r.sourceDigest.value_or("-") << '\n';
  for (const auto& d : r.destinations)
    out << "dest " << d.written << ' ' << d.verified << ' ' << d.error << ' '
        << d.digest.value_or("-") << ' ' << d.path << '\n';
  for (const std::string& f : r.settings.failedDestinations.value_or(Strings{}))
    out << "failed " << f << '\n';
  for (const std::string& f : heard->told) out << "told " << f << '\n';
  out << "finished " << heard->finished << '\n';
  return out ? 0 : 3;
}
KD_CHILD_MODE("copy-and-report", copyAndReport);

// What a child copy reported.
struct Report {
  struct Dest {
    bool written = false, verified = false;
    int error = 0;
    std::string digest, path;
  };
  bool completed = false;
  std::string source;
  std::vector<Dest> dests;
  Strings failed, told;
  int finished = -1;
  Strings messages;  // the system log's lines, without the program's name
  std::string out;   // what the copy printed

  static Report read(const std::string& path) {
    Report r;
    std::istringstream in(readFile(path));
    for (std::string word; in >> word;) {
      if (word == "completed") in >> r.completed;
      if (word == "source") in >> r.source;
      if (word == "dest") {
        Dest& d = r.dests.emplace_back();
        in >> d.written >> d.verified >> d.error >> d.digest >> d.path;
      }
      if (word == "failed" || word == "told") {
        std::string path;
        in >> path;
        (word == "failed" ? r.failed : r.told).push_back(path);
      }
      if (word == "finished") in >> r.finished;
    }
    return r;
  }
};

// Lines of `text`, each without the "name[pid] " the system log puts first.
Strings logLines(const std::string& text) {
  Strings lines;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) {
    const std::size_t name = l.find("] ");
    const std::size_t space = l.find(' ');
    lines.push_back(name != std::string::npos && name < space ? l.substr(name + 2) : l);
  }
  return lines;
}

using kd::test::Fault;
using kd::test::runWithFault;

std::string words(const Strings& args) {
  std::string s;
  for (const std::string& a : args) s += " '" + a + "'";
  return s;
}

class CopyFaults : public kd::test::FilesTest {};

TEST_F(CopyFaults, IoFaultsFailTheirDestinationOrTheCopyAndNothingElse) {
  const std::string tmp = dir_.path();
  const std::string src = tmp + "/A001.mov", a = tmp + "/one/A001.mov", b = tmp + "/two/A001.mov";
  const std::string contents = varied(3 * kMiB + 123);
  const std::string small = contents.substr(0, 100000);  // copied without threads
  dir_.mkdir("home");
  const Strings seek = {"Error: unable to seek within file " + b, "read size: 65536", "errno: 5",
                        "err: 1"};
  enum Expect { kCopyFails, kBFails, kAllVerify };
  struct Case {
    const char* name;
    Fault fault;
    Expect expect;
    Strings messages;  // lines the system log or output must hold
    std::string digest = "sha256";
    const std::string* source = nullptr;  // the 3 MiB contents when null
  };
  const Case cases[] = {
      {"source read error at the start",
       {"read", "eio", src, 0},
       kCopyFails,
       {"Error reading file " + src + " - aborting..."}},
      {"source read error mid-file",
       {"read", "eio", src, kMiB + 4096},
       kCopyFails,
       {"Error reading file " + src + " - aborting..."}},
      {"source read error past the last byte",
       {"read", "eio", src, contents.size()},
       kCopyFails,
       {"Error reading file " + src + " - aborting..."}},
      {"source cut while read",
       {"read", "shrink", src, kMiB},
       kCopyFails,
       {"Error: copied file size does not match original source " + src}},
      {"source removed while read", {"read", "unlink", src, kMiB}, kAllVerify, {}},
      {"read-back error", {"pread", "eio", b, 2 * kMiB}, kBFails, seek},
      {"read-back error, small file", {"pread", "eio", b, 0}, kBFails, seek, "md5", &small},
      {"read-back gives other bytes", {"pread", "flip", b, 3 * kMiB}, kBFails, {}, "xxh64"},
      {"flush fails", {"fdatasync", "eio", b, 0}, kBFails, {"Error writing file " + b + ": 5"}},
      {"flush fails, no verification",
       {"fdatasync", "eio", b, 0},
       kBFails,
       {"Error writing file " + b + ": 5"},
       "none"},
      {"close fails", {"close", "eio", b, 0}, kBFails, {"Error writing file " + b + ": 5"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string& data = c.source ? *c.source : contents;
    kd::test::removeTree(tmp + "/one");
    kd::test::removeTree(tmp + "/two");
    dir_.touch("A001.mov", data);
    // This program's copy: the outcome, the delegate, the messages.
    std::string out, err;
    const int status =
        runWithFault(dir_, c.fault,
                     "'" + kd::test::selfExecutable() + "' --kd-child copy-and-report" +
                         words({tmp + "/report", c.digest, src, a, b}),
                     out, err);
    ASSERT_EQ(status, 0) << err;
    Report r = Report::read(tmp + "/report");
    const Strings said = logLines(out + err);
    for (const std::string& line : c.messages)
      EXPECT_NE(std::find(said.begin(), said.end(), line), said.end()) << line << "\n"
                                                                       << out << err;
    const bool verifying = c.digest != "none";
    if (c.expect == kCopyFails) {
      EXPECT_FALSE(r.completed);
      EXPECT_TRUE(r.dests.empty());
      EXPECT_EQ(r.finished, 0);
      EXPECT_TRUE(r.told.empty());
    } else {
      EXPECT_TRUE(r.completed);
      ASSERT_EQ(r.dests.size(), 2u);
      EXPECT_EQ(r.finished, 1);
      // The first destination is whole and verified whatever befell the second.
      EXPECT_TRUE(r.dests[0].written && r.dests[0].verified);
      EXPECT_EQ(readFile(a), data);
      if (verifying) {
        EXPECT_EQ(r.dests[0].digest, r.source);
      }
      const bool bGood = c.expect == kAllVerify;
      EXPECT_EQ(r.dests[1].verified, bGood);
      EXPECT_EQ(r.failed, bGood ? Strings{} : Strings{b});
      EXPECT_EQ(r.told, bGood || !verifying ? Strings{} : Strings{b});
      if (bGood) {
        EXPECT_EQ(readFile(b), data);
      }
    }
    // The source keeps every byte, unless the fault itself cut or removed it.
    if (c.fault.kind == "shrink") {
      EXPECT_EQ(readFile(src), data.substr(0, kMiB));
    } else if (c.fault.kind == "unlink") {
      EXPECT_FALSE(KdFileManager::fileExistsAtPath(src));
    } else {
      EXPECT_EQ(readFile(src), data);
    }

    // kd copy: the same copy tells the fault by its exit status.
    kd::test::removeTree(tmp + "/one");
    kd::test::removeTree(tmp + "/two");
    dir_.touch("A001.mov", data);
    const int kd = runWithFault(
        dir_, c.fault,
        std::string("'" KD_TOOL_PATH "' copy --verify ") + c.digest + words({src, a, b}), out, err);
    EXPECT_EQ(kd, c.expect == kAllVerify ? 0 : 1) << err;
    if (c.expect == kBFails) {
      // Why, in the words of the outcome.
      const std::string why = c.fault.call != "pread" ? "flushing to the device or closing failed"
                              : c.fault.kind == "eio"
                                  ? "reading it back failed"
                                  : "what was read back differs from the source";
      EXPECT_NE(err.find("kd copy: " + b + ": " + why), std::string::npos) << err;
    }
    if (c.expect == kCopyFails) {
      EXPECT_EQ(out, "") << "digests printed for a failed copy";
    }
  }
}

TEST_F(CopyFaults, FilesChangedByAnotherThreadMidCopy) {
  const std::size_t size = 40 * kMiB;
  const std::string contents = varied(size);
  const std::string src = dir_ / "A001.mov", a = dir_ / "one/A001.mov", b = dir_ / "two/A001.mov";
  const std::string other = "another program's file";
  struct Case {
    const char* name;
    std::function<void()> action;
    bool completes;
    bool bVerifies;
    Strings messages;
  };
  const Case cases[] = {
      {"source removed", [&] { ::unlink(src.c_str()); }, true, true, {}},
      {"source cut",
       [&] {
         if (::truncate(src.c_str(), kMiB) != 0) ADD_FAILURE() << "cannot cut the source";
       },
       false,
       false,
       {"Error: copied file size does not match original source " + src}},
      {"destination folder removed",
       [&] {
         ::unlink(b.c_str());
         ::rmdir((dir_ / "two").c_str());
       },
       true,
       false,
       {"Error writing file " + b + ": 2"}},
      {"destination replaced",
       [&] { ::rename(dir_.touch("other", other).c_str(), b.c_str()); },
       true,
       false,
       {"Error writing file " + b + ": 2"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    kd::test::removeTree(dir_ / "one");
    kd::test::removeTree(dir_ / "two");
    dir_.touch("A001.mov", contents);
    ASSERT_TRUE(KdFileManager::setModificationDate(kd::test::secondsAgo(86400), src));
    const std::size_t before = platform_.systemLogMessages().size();
    auto heard = std::make_shared<Heard>();
    kd::test::DuringCopy during(a, 4 * kMiB, c.action);
    const KdFileManager::CopyResult r = KdFileManager::copyFileWithOutcome(
        src, {a, b}, *KdFileManager::copyDigestNamed("sha256"), Heard::delegate(heard));
    const long long at = during.end();
    kd::WorkQueue::shared().waitUntilIdle();
    // The reader is at most a ring (4 MiB) ahead of the slowest destination.
    if (at < 0 || at + 8 * kMiB > size) GTEST_SKIP() << "the copy ended before the change";
    const Strings console = platform_.systemLogMessages();
    const Strings said(console.begin() + static_cast<long>(before), console.end());
    EXPECT_EQ(said, c.messages);
    EXPECT_EQ(r.completed, c.completes);
    EXPECT_EQ(heard->finished, c.completes ? 1 : 0);
    if (!c.completes) {
      EXPECT_TRUE(r.destinations.empty());
      continue;
    }
    ASSERT_EQ(r.destinations.size(), 2u);
    EXPECT_TRUE(r.destinations[0].verified);
    EXPECT_EQ(readFile(a), contents);
    EXPECT_EQ(r.destinations[1].written, c.bVerifies);
    EXPECT_EQ(r.destinations[1].verified, c.bVerifies);
    EXPECT_EQ(r.settings.failedDestinations, c.bVerifies ? Strings{} : Strings{b});
    EXPECT_EQ(heard->told, c.bVerifies ? Strings{} : Strings{b});
    if (c.bVerifies) {
      EXPECT_EQ(readFile(b), contents);
    }
    if (std::string(c.name) == "destination replaced") {
      // What took the name is left as it is, dates and all.
      EXPECT_EQ(readFile(b), other);
      EXPECT_NE(KdFileManager::modificationDateForFile(b),
                KdFileManager::modificationDateForFile(src));
    }
  }
}

// What the hook does to the second destination's file, between a write and
// its read-back; read by the hook on the destination's thread.
struct Tamper {
  ino_t file = 0;
  enum { kFlip, kCut, kExtra } what = kFlip;
  std::uint64_t at = 0;  // the byte changed, or the stretch after which it acts
};
Tamper tamper;

void tamperWith(int fd, std::uint64_t offset, std::size_t length) {
  struct stat st {};
  if (::fstat(fd, &st) != 0 || st.st_ino != tamper.file) return;
  if (tamper.what == Tamper::kFlip && tamper.at >= offset && tamper.at < offset + length) {
    unsigned char c = 0;
    if (::pread(fd, &c, 1, static_cast<off_t>(tamper.at)) == 1) c ^= 0x01;
    if (::pwrite(fd, &c, 1, static_cast<off_t>(tamper.at)) != 1) ADD_FAILURE() << "no flip";
  }
  if (offset + length != tamper.at) return;  // the last stretch
  if (tamper.what == Tamper::kCut && ::ftruncate(fd, static_cast<off_t>(tamper.at - 1)) != 0)
    ADD_FAILURE() << "no cut";
  if (tamper.what == Tamper::kExtra && ::pwrite(fd, "x", 1, static_cast<off_t>(tamper.at)) != 1)
    ADD_FAILURE() << "no extra byte";
}

TEST_F(CopyFaults, ACopyChangedAfterItsWriteFailsWithItsOwnDigest) {
  const std::string src = dir_ / "A001.mov", a = dir_ / "one/A001.mov", b = dir_ / "two/A001.mov";
  const std::string contents = varied(3 * kMiB + 123);
  struct Case {
    const char* name;
    decltype(Tamper::what) what;
    std::uint64_t at;
    std::string held;  // what the second copy holds after the copy
  };
  std::string flipped = contents;
  flipped[kMiB + 5] = static_cast<char>(flipped[kMiB + 5] ^ 0x01);
  const Case cases[] = {
      {"one byte changed", Tamper::kFlip, kMiB + 5, flipped},
      {"cut short by a byte", Tamper::kCut, contents.size(),
       contents.substr(0, contents.size() - 1)},
      {"a byte past the end", Tamper::kExtra, contents.size(), contents + "x"},
  };
  dir_.touch("A001.mov", contents);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    kd::test::removeTree(dir_ / "one");
    kd::test::removeTree(dir_ / "two");
    dir_.mkdir("two");
    dir_.touch("two/A001.mov", "");
    struct stat st {};
    ASSERT_EQ(::stat(b.c_str(), &st), 0);
    tamper = {st.st_ino, c.what, c.at};
    auto heard = std::make_shared<Heard>();
    kd::copy::setAfterWriteHookForTesting(&tamperWith);
    const KdFileManager::CopyResult r = KdFileManager::copyFileWithOutcome(
        src, {a, b}, *KdFileManager::copyDigestNamed("sha256"), Heard::delegate(heard));
    kd::copy::setAfterWriteHookForTesting(nullptr);
    kd::WorkQueue::shared().waitUntilIdle();
    ASSERT_TRUE(r.completed);
    ASSERT_EQ(r.destinations.size(), 2u);
    EXPECT_TRUE(r.destinations[0].verified);
    EXPECT_EQ(r.destinations[0].digest, r.sourceDigest);
    ASSERT_EQ(readFile(b), c.held);
    KdSHA256Context held;
    held.update(c.held.data(), c.held.size());
    EXPECT_TRUE(r.destinations[1].written);
    EXPECT_FALSE(r.destinations[1].verified);
    EXPECT_EQ(r.destinations[1].failure, "what was read back differs from the source");
    EXPECT_EQ(r.destinations[1].digest, KdFileManager::sha256HashWithContext(held));
    EXPECT_NE(r.destinations[1].digest, r.sourceDigest);
    EXPECT_EQ(heard->told, Strings{b});
    EXPECT_EQ(r.settings.failedDestinations, Strings{b});
  }
}

}  // namespace
