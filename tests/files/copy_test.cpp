// The verified copy: digests against the coreutils tools, progress steps,
// the early checks and refusals, cancellation, and the outcome without a
// delegate.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/UniqueFd.h"
#include "common/WorkQueue.h"
#include "files/FilesFixture.h"
#include "files/KdFileManager.h"
#include "files/offload/Offload.h"
#include "platform/FileMetadata.h"
#include "platform/Platform.h"

namespace {

using kd::test::FilesTest;
using kd::test::readFile;
using kd::test::varyingBytes;
using Strings = std::vector<std::string>;

constexpr std::uint64_t kMiB = 1048576;

// The first word of a command's output.
std::string run(const std::string& command) {
  std::string out;
  if (FILE* p = ::popen(command.c_str(), "r")) {
    char buf[256];
    while (std::fgets(buf, sizeof buf, p)) out += buf;
    ::pclose(p);
  }
  return out.substr(0, out.find(' '));
}

std::uint64_t sizeOf(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? static_cast<std::uint64_t>(st.st_size) : 0;
}

// A delegate that records everything it hears. Shared with its tasks.
struct Recorder {
  std::mutex mu;
  std::vector<std::uint64_t> steps;  // totals of the progress steps
  std::vector<std::uint64_t> finals;
  Strings failed, failedChecksums;
  int finished = 0, questions = 0;
  bool answer = true;
  std::function<void()> onQuestion;
  std::thread::id copyingThread = std::this_thread::get_id();

  static std::shared_ptr<KdFileCopyDelegate> delegate(const std::shared_ptr<Recorder>& r) {
    auto d = std::make_shared<KdFileCopyDelegate>();
    d->fileCopyBytesWritten = [r](std::uint64_t total, const KdCopySettings&) {
      std::lock_guard lock(r->mu);
      (std::this_thread::get_id() == r->copyingThread ? r->finals : r->steps).push_back(total);
    };
    d->fileCopyShouldContinue = [r](const KdCopySettings&) {
      EXPECT_NE(std::this_thread::get_id(), r->copyingThread);
      if (r->onQuestion) r->onQuestion();
      std::lock_guard lock(r->mu);
      ++r->questions;
      return r->answer;
    };
    d->fileCopyVerificationFailed = [r](const KdCopySettings& s, const std::string& file) {
      EXPECT_EQ(std::this_thread::get_id(), r->copyingThread);
      std::lock_guard lock(r->mu);
      r->failed.push_back(file);
      r->failedChecksums.push_back(s.destChecksum.value_or("?"));
    };
    d->fileCopyFinished = [r](const KdCopySettings&) {
      std::lock_guard lock(r->mu);
      ++r->finished;
    };
    return d;
  }
};

class Copy : public FilesTest {
 protected:
  Strings console() { return platform_.systemLogMessages(); }
};

TEST_F(Copy, DigestsEqualTheCoreutilsToolsForEveryType) {
  const std::string source = dir_.touch("A001.mov", varyingBytes(3 * kMiB + 5));
  const char* tools[] = {nullptr, "md5sum", "sha1sum", "sha256sum", "sha512sum"};
  for (int type = 0; type <= 4; ++type) {
    SCOPED_TRACE(type);
    const Strings dests = {dir_ / ("one/" + std::to_string(type)),
                           dir_ / ("two/" + std::to_string(type))};
    auto recorder = std::make_shared<Recorder>();
    const KdFileManager::CopyResult r = KdFileManager::copyFileWithOutcome(
        source, dests, *KdFileManager::copyDigestForVerificationType(type),
        Recorder::delegate(recorder), std::string("first"), 7);
    kd::WorkQueue::shared().waitUntilIdle();
    ASSERT_TRUE(r.completed);
    EXPECT_TRUE(r.allGood());
    EXPECT_EQ(r.bytesCopied, 3 * kMiB + 5);
    for (const std::string& d : dests) EXPECT_EQ(readFile(d), readFile(source));
    EXPECT_EQ(recorder->finals, std::vector<std::uint64_t>{3 * kMiB + 5});
    EXPECT_EQ(recorder->finished, 1);
    EXPECT_TRUE(recorder->failed.empty());
    const kd::PlistDict values = r.settings.values();
    EXPECT_EQ(values.at("operationtype"), kd::PlistValue("copy"));
    EXPECT_EQ(std::any_cast<std::string>(r.settings.object), "first");
    EXPECT_EQ(std::any_cast<int>(r.settings.object2), 7);
    EXPECT_EQ(r.settings.failedDestinations, Strings{});
    if (type == 0) {
      EXPECT_EQ(values.count("sourceChecksum") + values.count("destChecksums"), 0u);
      continue;
    }
    const std::string expected = run(std::string(tools[type]) + " " + source);
    EXPECT_EQ(r.settings.sourceChecksum, expected);
    EXPECT_EQ(r.settings.destChecksums, (Strings{expected, expected}));
  }
  EXPECT_EQ(console(), Strings{});
}

// The xxHash kinds against xxhsum, which prints the same canonical form, on
// an empty file, a short one and one across several ring slots.
TEST_F(Copy, XxhashKindsEqualXxhsum) {
  if (::system("command -v xxhsum >/dev/null 2>&1") != 0) GTEST_SKIP() << "xxhsum is not installed";
  const struct {
    const char* name;
    const char* tool;
  } kinds[] = {{"xxh64", "xxhsum -H1"}, {"xxh128", "xxhsum -H2"}, {"xxh3", "xxhsum -H3"}};
  const std::size_t sizes[] = {0, 5, 9 * kMiB + 3};
  for (const std::size_t size : sizes) {
    const std::string source = dir_.touch("src" + std::to_string(size), varyingBytes(size, 3));
    for (const auto& kind : kinds) {
      SCOPED_TRACE(std::string(kind.name) + " " + std::to_string(size));
      const std::string dest = dir_ / ("x/" + std::string(kind.name) + std::to_string(size));
      const KdFileManager::CopyResult r = KdFileManager::copyFileWithOutcome(
          source, {dest}, *KdFileManager::copyDigestNamed(kind.name));
      ASSERT_TRUE(r.allGood());
      // xxhsum tells XXH3 as "XXH3 (path) = digest": keep the digest, then a space.
      const std::string expected =
          run(std::string(kind.tool) + " " + source + " | sed 's/.*= //; s/$/ -/'");
      EXPECT_EQ(r.sourceDigest, expected);
    }
  }
  EXPECT_FALSE(KdFileManager::copyDigestNamed("crc32"));
}

TEST_F(Copy, ProgressStepsFollowTheChunks) {
  struct Case {
    std::uint64_t size;
    std::vector<std::uint64_t> steps;
  };
  const Case cases[] = {
      {0, {}},
      {20 * kMiB - 1, {}},
      {20 * kMiB, {20 * kMiB}},  // after the 320th chunk
      {45 * kMiB + 3, {20 * kMiB, 40 * kMiB}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.size);
    const std::string source = dir_.touch("src", varyingBytes(c.size));
    const Strings dests = {dir_ / "a", dir_ / "b"};
    auto recorder = std::make_shared<Recorder>();
    EXPECT_TRUE(
        KdFileManager::copyFileWithProgress(source, dests, 3, Recorder::delegate(recorder)));
    kd::WorkQueue::shared().waitUntilIdle();
    std::sort(recorder->steps.begin(), recorder->steps.end());
    EXPECT_EQ(recorder->steps, c.steps);
    EXPECT_EQ(recorder->questions, static_cast<int>(c.steps.size()));
    EXPECT_EQ(recorder->finals, std::vector<std::uint64_t>{c.size});
    for (const std::string& d : dests) EXPECT_EQ(sizeOf(d), c.size);
  }
}

TEST_F(Copy, EmptySourceGivesEmptyDestinationsAndTheEmptyDigest) {
  const std::string source = dir_.touch("empty");
  const Strings dests = {dir_.touch("a", "old contents"), dir_ / "b"};
  const auto r = KdFileManager::copyFileWithOutcome(
      source, dests, *KdFileManager::copyDigestForVerificationType(3));
  const std::string empty = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
  EXPECT_TRUE(r.allGood());
  EXPECT_EQ(r.sourceDigest, empty);
  EXPECT_EQ(r.settings.destChecksums, (Strings{empty, empty}));
  for (const std::string& d : dests) {
    EXPECT_TRUE(KdFileManager::fileExistsAtPath(d));
    EXPECT_EQ(sizeOf(d), 0u);
  }
}

TEST_F(Copy, EarlyChecksStopWithTheirMessagesInOrder) {
  const std::string contents = varyingBytes(100000);
  const std::string source = dir_.touch("source.mov", contents);
  const std::string folder = dir_.mkdir("folder");
  const std::string blocker = dir_.touch("blocker", "a file, no folder");
  const std::string other = dir_.touch("other", "someone else's");
  ASSERT_EQ(::symlink(other.c_str(), (dir_ / "link").c_str()), 0);
  ASSERT_EQ(::mkfifo((dir_ / "fifo").c_str(), 0600), 0);
  ASSERT_EQ(::link(source.c_str(), (dir_ / "hardlink").c_str()), 0);

  struct Case {
    const char* name;
    std::string source;
    Strings dests;
    std::string message;
    int type = 3;
  };
  auto opening = [&](const std::string& path) {
    return "Error: Unable to open destination file " + path + ". Aborting copy process...";
  };
  const Case cases[] = {
      {"missing source",
       dir_ / "missing",
       {dir_ / "x"},
       "Error: File " + dir_ / "missing" + " doesn't exist. Aborting copy process..."},
      {"no destinations",
       source,
       {},
       "Error: You must have at least one destination. Aborting copy process..."},
      {"parent cannot be made",
       source,
       {dir_ / "y", blocker + "/sub/z"},
       "Unable to copy file " + source + " - destination directory " + blocker +
           "/sub doesn't exist. Aborting copy process..."},
      {"the source itself", source, {dir_ / "y", source}, opening(source)},
      {"the source by another name",
       source,
       {folder + "/../source.mov"},
       opening(folder + "/../source.mov")},
      {"a hard link to the source", source, {dir_ / "hardlink"}, opening(dir_ / "hardlink")},
      {"named twice",
       source,
       {dir_ / "twice", folder + "/../twice"},
       opening(folder + "/../twice")},
      {"a symbolic link", source, {dir_ / "y", dir_ / "link"}, opening(dir_ / "link")},
      {"a folder", source, {folder}, opening(folder)},
      {"a named pipe", source, {dir_ / "fifo"}, opening(dir_ / "fifo")},
      {"an unopenable source",
       dir_ / "fifo/x",
       {dir_ / "y"},
       "Error: File " + dir_ / "fifo/x" + " doesn't exist. Aborting copy process..."},
      // Only a regular file is a source: refused before any folder or file
      // is made, and never waiting for a pipe's writer.
      {"a folder as the source",
       folder,
       {dir_ / "new/folder"},
       "Error: Unable to read source file " + folder + ". Aborting copy process..."},
      {"a named pipe as the source",
       dir_ / "fifo",
       {dir_ / "new/x"},
       "Error: Unable to read source file " + dir_ / "fifo" + ". Aborting copy process..."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::size_t before = console().size();
    auto copying = std::async(std::launch::async, [&] {
      return KdFileManager::copyFileWithProgress(c.source, c.dests, c.type, nullptr);
    });
    if (copying.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
      ADD_FAILURE() << "the copy waits on the source";
      kd::UniqueFd writer(::open((dir_ / "fifo").c_str(), O_WRONLY | O_CLOEXEC));  // lets it go
    }
    EXPECT_FALSE(copying.get());
    const Strings messages = console();
    ASSERT_EQ(messages.size(), before + 1);
    EXPECT_EQ(messages.back(), c.message);
    EXPECT_FALSE(KdFileManager::fileExistsAtPath(dir_ / "new"));
  }
  // Nothing was written through a refused name.
  EXPECT_EQ(readFile(source), contents);
  EXPECT_EQ(readFile(other), "someone else's");
  EXPECT_FALSE(KdFileManager::fileExistsAtPath(dir_ / "twice"));
  EXPECT_FALSE(KdFileManager::copyFileWithProgress(source, Strings{dir_ / "x"}, 5, nullptr));
  EXPECT_FALSE(KdFileManager::fileExistsAtPath(dir_ / "x"));
}

TEST_F(Copy, MissingFoldersAreMadeBeforeAnyFileIsOpened) {
  const std::string source = dir_.touch("source", varyingBytes(5000));
  const std::string first = dir_.touch("first", "was here before");
  // The second destination cannot be opened (a folder); the third's folders
  // are made all the same, since folders come before any file.
  const std::string folder = dir_.mkdir("second");
  const std::string third = dir_ / "deep/er/third";
  EXPECT_FALSE(
      KdFileManager::copyFileWithProgress(source, Strings{first, folder, third}, 0, nullptr));
  EXPECT_TRUE(KdFileManager::isDirectoryAtPath(dir_ / "deep/er"));
  EXPECT_FALSE(KdFileManager::fileExistsAtPath(third));
  // The first was opened, and so truncated, before the second failed.
  EXPECT_TRUE(KdFileManager::fileExistsAtPath(first));
  EXPECT_EQ(sizeOf(first), 0u);
  EXPECT_EQ(console(), Strings{"Error: Unable to open destination file " + folder +
                               ". Aborting copy process..."});
}

TEST_F(Copy, AStopAnswerEndsTheCopyWithinAFewMiB) {
  const std::uint64_t size = 160 * kMiB;
  const std::string source = dir_.touch("big", varyingBytes(size));
  const Strings dests = {dir_ / "a", dir_ / "b"};
  auto recorder = std::make_shared<Recorder>();
  std::atomic<std::uint64_t> atAnswer{0};
  recorder->answer = false;
  recorder->onQuestion = [&] { atAnswer = std::max(sizeOf(dests[0]), sizeOf(dests[1])); };
  EXPECT_FALSE(KdFileManager::copyFileWithProgress(source, dests, 3, Recorder::delegate(recorder)));
  kd::WorkQueue::shared().waitUntilIdle();
  EXPECT_EQ(recorder->questions, 1);
  EXPECT_EQ(recorder->finished, 0);
  EXPECT_TRUE(recorder->finals.empty());
  EXPECT_GE(atAnswer.load(), 20 * kMiB);
  for (const std::string& d : dests) EXPECT_LE(sizeOf(d), atAnswer + 6 * kMiB) << d;
  EXPECT_EQ(console(), Strings{});
  EXPECT_EQ(logged(), kd::test::Lines{});
}

// Every way of copying a file keeps its dates, its labels and other user
// attributes, its stored creation date and (where the copy makes the file)
// its permission bits.
TEST_F(Copy, CopiesKeepDatesAttributesAndPermissions) {
  // A second file system for a move that must copy.
  char shm[] = "/dev/shm/kdtest-XXXXXX";
  ASSERT_NE(::mkdtemp(shm), nullptr);
  const std::unique_ptr<char, void (*)(char*)> removeShm(
      shm, [](char* p) { std::filesystem::remove_all(p); });
  const auto modified = kd::test::secondsAgo(86400 * 3);
  const auto created = kd::test::secondsAgo(86400 * 9);
  struct Case {
    const char* name;
    std::string folder;                                          // where the source is made
    std::function<std::string(const std::string& source)> copy;  // the copy's path
    bool keepsMode;
  };
  const Case cases[] = {
      {"verified copy", dir_.mkdir("c1"),
       [&](const std::string& source) {
         EXPECT_TRUE(
             KdFileManager::copyFileWithProgress(source, Strings{dir_ / "c1/copy"}, 1, nullptr));
         return dir_ / "c1/copy";
       },
       false},
      {"copy of a file", dir_.mkdir("c2"),
       [&](const std::string& source) {
         EXPECT_TRUE(KdFileManager::copyFile(source, dir_ / "c2/copy", false));
         return dir_ / "c2/copy";
       },
       true},
      {"copy of a folder", dir_.mkdir("c3"),
       [&](const std::string& source) {
         EXPECT_TRUE(KdFileManager::copyFile(dir_ / "c3", dir_ / "c3copy", false));
         return dir_ / "c3copy/source";
       },
       true},
      {"move to another file system", shm,
       [&](const std::string& source) {
         EXPECT_TRUE(KdFileManager::moveFile(source, dir_ / "moved", false));
         return dir_ / "moved";
       },
       true},
      {"offload", dir_.mkdir("CARD/CLIP"),
       [&](const std::string&) {
         kd::OffloadOptions options;
         options.card = dir_ / "CARD";
         options.destinations = {dir_.mkdir("shuttle")};
         const kd::OffloadReport report = kd::offloadCard(options);
         EXPECT_TRUE(report.allGood()) << report.error;
         return dir_ / "shuttle/CARD/CLIP/source";
       },
       true},
  };
  kd::FileMetadata& files = kd::platform().fileMetadata();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string source = c.folder + "/source";
    std::ofstream(source) << "footage";
    ASSERT_EQ(::chmod(source.c_str(), 0600), 0);
    ASSERT_TRUE(KdFileManager::setModificationDate(modified, source));
    if (files.setExtendedAttribute(source, "com.example.note", "keep me") != 0)
      GTEST_SKIP() << c.folder << " holds no extended attributes";
    KdFileManager::setFinderColorIndex(6, source);  // a label, and its tag for file managers
    ASSERT_TRUE(files.setCreationDate(source, created));
    const std::string copy = c.copy(source);
    EXPECT_EQ(readFile(copy), "footage");
    EXPECT_EQ(KdFileManager::modificationDateForFile(copy), modified);
    EXPECT_EQ(KdFileManager::creationDateForFile(copy), created);
    EXPECT_EQ(KdFileManager::finderColorIndexForPath(copy), 6);
    char value[64] = {};
    EXPECT_EQ(files.getExtendedAttribute(copy, "com.example.note", value, sizeof value), 7);
    EXPECT_STREQ(value, "keep me");
    EXPECT_EQ(files.getExtendedAttribute(copy, "xdg.tags", value, sizeof value), 3);
    struct stat st {};
    ASSERT_EQ(::stat(copy.c_str(), &st), 0);
    if (c.keepsMode) {
      EXPECT_EQ(st.st_mode & 07777, 0600u);
    }
  }
  EXPECT_EQ(console(), Strings{});
}

}  // namespace

namespace {

// A file-size limit for the process, so that writes past it fail (EFBIG) as
// on a full disk; restored when it goes.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    ::getrlimit(RLIMIT_FSIZE, &old_);
    previous_ = std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit = old_;
    limit.rlim_cur = bytes;
    ok_ = ::setrlimit(RLIMIT_FSIZE, &limit) == 0;
  }
  ~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &old_);
    std::signal(SIGXFSZ, previous_);
  }
  bool ok() const { return ok_; }

 private:
  rlimit old_{};
  void (*previous_)(int) = nullptr;
  bool ok_ = false;
};

TEST_F(Copy, ShortWritesAreToldPerChunkAndNeverVerify) {
  // Zeros, so that a hole or a short file would read back as the source if
  // the digest were fed what was not written.
  const std::string source = dir_.touch("zeros", std::string(2 * kMiB, '\0'));
  const Strings dests = {dir_ / "a", dir_ / "b"};
  KdFileManager::CopyResult r;
  {
    FileSizeLimit limit(kMiB + 1000);
    if (!limit.ok()) GTEST_SKIP() << "cannot lower the file-size limit";
    r = KdFileManager::copyFileWithOutcome(source, dests,
                                           *KdFileManager::copyDigestForVerificationType(1));
  }
  EXPECT_TRUE(r.completed);
  EXPECT_FALSE(r.allGood());
  EXPECT_EQ(r.settings.failedDestinations, dests);
  for (const auto& d : r.destinations) {
    EXPECT_FALSE(d.written);
    EXPECT_FALSE(d.verified);
    EXPECT_NE(d.digest, r.sourceDigest);
    EXPECT_EQ(sizeOf(d.path), kMiB + 1000);
  }
  // The chunks from the one that crossed the limit on, for each destination
  // in turn within each chunk.
  Strings expected;
  for (int chunk = 16; chunk < 32; ++chunk)
    for (const std::string& d : dests) expected.push_back("Error writing file " + d + ": 1");
  EXPECT_EQ(console(), expected);
}

}  // namespace

namespace {

TEST_F(Copy, TheToolPrintsEveryDigestAndTellsFailureByItsStatus) {
  const std::string source = dir_.touch("A001.mov", varyingBytes(1500000));
  const std::string a = dir_ / "one/A001.mov", b = dir_ / "two/A001.mov";
  const std::string kd = KD_TOOL_PATH;
  std::string out;
  int status = 0;
  if (FILE* p = ::popen((kd + " copy " + source + " " + a + " " + b + " 2>&1").c_str(), "r")) {
    char buf[512];
    while (std::fgets(buf, sizeof buf, p)) out += buf;
    status = ::pclose(p);
  }
  const std::string digest = run("sha256sum " + source);
  EXPECT_EQ(out,
            digest + "  " + source + "\n" + digest + "  " + a + "\n" + digest + "  " + b + "\n");
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(readFile(a), readFile(source));
  // The source as a destination: refused, exit status 1, the source intact.
  const int refused = std::system(
      (kd + " copy --verify md5 " + source + " " + b + " " + source + " >/dev/null 2>&1").c_str());
  EXPECT_EQ(WEXITSTATUS(refused), 1);
  EXPECT_EQ(readFile(source), varyingBytes(1500000));
  EXPECT_EQ(WEXITSTATUS(std::system(
                (kd + " copy --verify crc " + source + " " + b + " >/dev/null 2>&1").c_str())),
            2);
}

}  // namespace
