// Digest text and whole-file hashes: known answers, the delegate's questions
// on regular files and on a pipe fed piece by piece, failures, descriptors.
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/UniqueFd.h"
#include "common/WorkQueue.h"
#include "files/KdFileManager.h"
#include "files/copy/Digest.h"
#include "log/KdLog.h"
#include "support/FakeMacPlatform.h"
#include "support/Process.h"
#include "support/TempDir.h"

namespace {

using kd::test::varyingBytes;
using Text = std::optional<std::string>;
constexpr std::size_t kChunk = 65536;
constexpr std::size_t kInterval = 52428800;  // 800 chunks

// Digest text of `data` through the context form.
Text contextText(KdDigestKind kind, const std::string& data) {
  auto fed = [&](auto context) {
    context.update(data.data(), data.size());
    return context;
  };
  switch (kind) {
    case KdDigestKind::MD5:
      return KdFileManager::md5HashWithContext(fed(KdMD5Context()));
    case KdDigestKind::SHA1:
      return KdFileManager::sha1HashWithContext(fed(KdSHA1Context()));
    case KdDigestKind::SHA256:
      return KdFileManager::sha256HashWithContext(fed(KdSHA256Context()));
    case KdDigestKind::SHA512:
      return KdFileManager::sha512HashWithContext(fed(KdSHA512Context()));
  }
  return std::nullopt;
}

// The whole-file hash of a kind (SHA-256 has none).
Text fileHash(KdDigestKind kind, const std::string& path,
              std::shared_ptr<const KdChecksumDelegate> delegate = nullptr) {
  switch (kind) {
    case KdDigestKind::MD5:
      return KdFileManager::md5HashForFile(path, delegate);
    case KdDigestKind::SHA1:
      return KdFileManager::sha1HashForFile(path, delegate);
    case KdDigestKind::SHA512:
      return KdFileManager::sha512HashForFile(path, delegate);
    case KdDigestKind::SHA256:
      break;
  }
  ADD_FAILURE() << "no whole-file SHA-256";
  return std::nullopt;
}

constexpr KdDigestKind kFileKinds[] = {KdDigestKind::MD5, KdDigestKind::SHA1, KdDigestKind::SHA512};

// A delegate that counts its questions and gives one answer.
struct Asked {
  std::atomic<int> count{0};
  static std::shared_ptr<KdChecksumDelegate> delegate(const std::shared_ptr<Asked>& asked,
                                                      bool answer) {
    auto d = std::make_shared<KdChecksumDelegate>();
    d->checksumShouldContinue = [asked, answer](const std::string&) {
      ++asked->count;
      return answer;
    };
    return d;
  }
};

TEST(DigestText, KnownAnswersFromACopyOfTheContext) {
  struct Case {
    KdDigestKind kind;
    std::string input, digest;
  };
  const Case cases[] = {
      {KdDigestKind::MD5, "", "d41d8cd98f00b204e9800998ecf8427e"},
      {KdDigestKind::MD5, "abc", "900150983cd24fb0d6963f7d28e17f72"},
      {KdDigestKind::SHA1, "", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
      {KdDigestKind::SHA1, "abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
      {KdDigestKind::SHA256, "",
       "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {KdDigestKind::SHA256, "abc",
       "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {KdDigestKind::SHA512, "",
       "cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce"
       "47d0d13c5d85f2b0ff8318d2877eec2f63b931bd47417a81a538327af927da3e"},
      {KdDigestKind::SHA512, "abc",
       "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
       "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.digest);
    EXPECT_EQ(contextText(c.kind, c.input), c.digest);
  }

  // The same context twice gives the same text, and stays usable: fed on, it
  // gives the digest of everything it was fed.
  KdSHA256Context context;
  context.update("ab", 2);
  const Text first = KdFileManager::sha256HashWithContext(context);
  EXPECT_EQ(KdFileManager::sha256HashWithContext(context), first);
  EXPECT_EQ(first, contextText(KdDigestKind::SHA256, "ab"));
  context.update("c", 1);
  EXPECT_EQ(KdFileManager::sha256HashWithContext(context), cases[5].digest);
  const KdSHA256Context copy = context;
  context.update("d", 1);
  EXPECT_EQ(KdFileManager::sha256HashWithContext(copy), cases[5].digest);
}

// Every kind of the one digest type: a copy taken midway goes on on its own,
// and telling the digest leaves it usable; the xxHash kinds' known answers.
TEST(Digest, CopiesGoOnOnTheirOwnInEveryKind) {
  const struct {
    const char* name;
    const char* empty;  // the digest of nothing, where known here
  } kinds[] = {{"md5", "d41d8cd98f00b204e9800998ecf8427e"},
               {"sha1", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
               {"sha256", nullptr},
               {"sha512", nullptr},
               {"xxh64", "ef46db3751d8e999"},
               {"xxh3", "2d06800538d394c2"},
               {"xxh128", "99aa06d3014798d86001c324468d497f"}};
  for (const auto& k : kinds) {
    SCOPED_TRACE(k.name);
    const std::optional<kd::Digest::Kind> kind = kd::Digest::kindNamed(k.name);
    ASSERT_TRUE(kind);
    if (k.empty) {
      EXPECT_EQ(kd::Digest(*kind).text(), k.empty);
    }
    kd::Digest whole(*kind);
    whole.update("abcd", 4);
    kd::Digest fed(*kind);
    fed.update("ab", 2);
    kd::Digest copy = fed;
    const std::optional<std::string> half = fed.text();
    EXPECT_EQ(fed.text(), half);
    fed.update("cd", 2);
    copy.update("cd", 2);
    ASSERT_TRUE(whole.text());
    EXPECT_EQ(whole.text()->size(), 2 * kd::Digest::length(*kind));
    EXPECT_EQ(fed.text(), whole.text());
    EXPECT_EQ(copy.text(), whole.text());
    EXPECT_NE(half, whole.text());
  }
  EXPECT_FALSE(kd::Digest::kindNamed("none"));
  EXPECT_FALSE(kd::Digest::kindNamed("crc32"));
}

TEST(HashForFile, KnownAnswersAndEveryReadOfAnySize) {
  kd::test::TempDir tmp;
  struct Case {
    std::string name, contents;
    std::optional<std::string> md5;  // a known answer, where there is one
  };
  const Case cases[] = {
      {"empty", "", "d41d8cd98f00b204e9800998ecf8427e"},
      {"abc", "abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"million", std::string(1000000, 'a'), "7707d6ae4e027c70eea2a935c2296f21"},
      {"chunk-1", varyingBytes(kChunk - 1), std::nullopt},
      {"chunk", varyingBytes(kChunk), std::nullopt},
      {"chunk+1", varyingBytes(kChunk + 1), std::nullopt},
      // Larger than one read-ahead slot (1 MiB): read on a thread of its own.
      {"slots", varyingBytes(3 * 1048576 + 5), std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = tmp.touch(c.name, c.contents);
    if (c.md5) {
      EXPECT_EQ(KdFileManager::md5HashForFile(path), c.md5);
    }
    for (KdDigestKind kind : kFileKinds) {
      // An empty file is never a multiple of 50 MiB reached by a read.
      auto asked = std::make_shared<Asked>();
      EXPECT_EQ(fileHash(kind, path, Asked::delegate(asked, false)), contextText(kind, c.contents));
      kd::WorkQueue::shared().waitUntilIdle();
      EXPECT_EQ(asked->count, 0);
    }
  }
  EXPECT_EQ(KdFileManager::sha1HashForFile(tmp / "million"),
            "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
  EXPECT_EQ(KdFileManager::sha512HashForFile(tmp / "million"),
            "e718483d0ce769644e2e42c7bc15b4638e1f98b13b2044285632a803afa973eb"
            "de0ff244877ea60a4cb0432ce577c31beb009c5c2c49aa2e4eadb217ad8cc09b");
}

TEST(HashForFile, AFileOfExactly50MiBAsksOnce) {
  kd::test::TempDir tmp;
  const std::string contents = varyingBytes(kInterval, 7);
  const std::string path = tmp.touch("50MiB", contents);
  const Text expected = contextText(KdDigestKind::MD5, contents);

  auto asked = std::make_shared<Asked>();
  auto silent = std::make_shared<KdChecksumDelegate>();  // lacks the method
  auto throwing = std::make_shared<KdChecksumDelegate>();
  throwing->checksumShouldContinue = [](const std::string&) -> bool {
    throw std::runtime_error("delegate failed");
  };
  EXPECT_EQ(KdFileManager::md5HashForFile(path), expected);
  EXPECT_EQ(KdFileManager::md5HashForFile(path, silent), expected);
  EXPECT_EQ(KdFileManager::md5HashForFile(path, Asked::delegate(asked, true)), expected);
  // A delegate that throws is reported and counts as no answer.
  testing::internal::CaptureStdout();
  EXPECT_EQ(KdFileManager::md5HashForFile(path, throwing), expected);
  kd::WorkQueue::shared().waitUntilIdle();
  KdLog::finishWriting();
  EXPECT_NE(testing::internal::GetCapturedStdout().find("delegate failed"), std::string::npos);
  EXPECT_EQ(asked->count, 1);
}

// Feeds a FIFO piece by piece, each piece written once the previous one has
// been read, so that every read of the hash returns exactly one piece.
class FifoFeeder {
 public:
  FifoFeeder(std::string path, std::vector<std::size_t> pieces,
             std::function<void()> afterGridPoint)
      : pieces_(std::move(pieces)),
        thread_([this, path = std::move(path), after = std::move(afterGridPoint)] {
          feed(path, after);
        }) {}
  ~FifoFeeder() { thread_.join(); }
  // Everything that was written, for the expected digest.
  static std::string contents(const std::vector<std::size_t>& pieces) {
    std::string all;
    for (std::size_t i = 0; i < pieces.size(); ++i) all += varyingBytes(pieces[i], i + 1);
    return all;
  }

 private:
  void feed(const std::string& path, const std::function<void()>& after) {
    kd::UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (!fd) return;
    std::size_t total = 0;
    for (std::size_t i = 0; i < pieces_.size(); ++i) {
      const std::string piece = varyingBytes(pieces_[i], i + 1);
      if (::write(fd.get(), piece.data(), piece.size()) != static_cast<ssize_t>(piece.size()))
        return;  // the reader has gone
      // Waits until the piece has been read, or the reader has gone (POLLERR).
      for (int pending = 1; ::ioctl(fd.get(), FIONREAD, &pending) == 0 && pending > 0;) {
        pollfd p{fd.get(), POLLOUT, 0};
        if (::poll(&p, 1, 0) == 1 && (p.revents & POLLERR)) return;
        std::this_thread::sleep_for(std::chrono::microseconds(20));
      }
      total += piece.size();
      if (total == kInterval && after) after();
    }
  }

  std::vector<std::size_t> pieces_;
  std::thread thread_;
};

TEST(HashForFile, ReadsFromAFifoAskOnlyOnTheGrid) {
  // The reader may be gone when the feeder writes its last piece.
  std::signal(SIGPIPE, SIG_IGN);
  struct Case {
    const char* name;
    std::size_t firstPiece;
    bool answer;
    int questions;
    bool digest;
  };
  const Case cases[] = {
      {"on the grid, delegate goes on", kChunk, true, 1, true},
      {"on the grid, delegate stops", kChunk, false, 1, false},
      // A short first read leaves the grid: 1000 + k * 65536 never reaches a
      // multiple of 50 MiB.
      {"off the grid, delegate would stop", 1000, false, 0, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    kd::test::TempDir tmp;
    const std::string fifo = tmp / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    std::vector<std::size_t> pieces(1 + 800, kChunk);
    pieces[0] = c.firstPiece;

    auto asked = std::make_shared<Asked>();
    const auto delegate = Asked::delegate(asked, c.answer);
    // At the 50 MiB point the feeder waits for the answer to be in before it
    // writes on, so that a stop is seen at the next read.
    auto waitForAnswer = [&] {
      for (int i = 0; i < 5000 && asked->count == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      kd::WorkQueue::shared().waitUntilIdle();
    };
    Text digest;
    {
      FifoFeeder feeder(fifo, pieces,
                        c.questions > 0 ? std::function<void()>(waitForAnswer) : nullptr);
      digest = KdFileManager::sha1HashForFile(fifo, delegate);
    }
    kd::WorkQueue::shared().waitUntilIdle();
    EXPECT_EQ(asked->count, c.questions);
    if (c.digest) {
      EXPECT_EQ(digest, contextText(KdDigestKind::SHA1, FifoFeeder::contents(pieces)));
    } else {
      EXPECT_EQ(digest, std::nullopt);
    }
  }
}

TEST(HashForFile, FailuresReturnNothingWithTheirMessages) {
  kd::test::FakeMacPlatform platform;
  kd::test::ScopedPlatform scoped(platform);
  kd::test::TempDir tmp;
  const std::string missing = tmp / "missing.mov";
  tmp.touch("file");

  EXPECT_EQ(KdFileManager::md5HashForFile(missing), std::nullopt);
  // A NUL would otherwise cut the path to "…/file", which exists.
  EXPECT_EQ(KdFileManager::sha1HashForFile(tmp / std::string("file\0.mov", 9)), std::nullopt);
  EXPECT_EQ(
      platform.systemLogMessages(),
      (std::vector<std::string>{
          "Error: Unable to open destination file " + missing + ". Aborting hash verification...",
          "Error: Unable to open destination file " + tmp / std::string("file\0.mov", 9) +
              ". Aborting hash verification..."}));

  // A folder opens but cannot be read.
  testing::internal::CaptureStdout();
  EXPECT_EQ(KdFileManager::sha512HashForFile(tmp.path()), std::nullopt);
  KdLog::finishWriting();
  EXPECT_NE(testing::internal::GetCapturedStdout().find("Error reading file " + tmp.path() +
                                                        " - aborting..."),
            std::string::npos);
}

TEST(HashForFile, LeavesNoDescriptorOpen) {
  kd::test::FakeMacPlatform platform;  // takes the open failures' messages
  kd::test::ScopedPlatform scoped(platform);
  kd::test::TempDir tmp;
  const std::string small = tmp.touch("small", "footage"),
                    large = tmp.touch("large", varyingBytes(3 << 20));
  const std::size_t before = kd::test::openFds().size();
  for (int i = 0; i < 5000; ++i) {
    const KdDigestKind kind = kFileKinds[i % 3];
    ASSERT_TRUE(fileHash(kind, i % 100 == 0 ? large : small)) << i;
  }
  for (int i = 0; i < 100; ++i) EXPECT_FALSE(KdFileManager::md5HashForFile(tmp / "missing"));
  testing::internal::CaptureStdout();
  for (int i = 0; i < 20; ++i) EXPECT_FALSE(KdFileManager::md5HashForFile(tmp.path()));
  KdLog::finishWriting();
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(kd::test::openFds().size(), before);
}

}  // namespace
