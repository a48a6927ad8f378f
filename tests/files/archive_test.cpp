// Zip archives written and read back, listed by unzip, and hostile archives
// that try to write outside their folder.
#include <archive.h>
#include <archive_entry.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>

#include "FilesFixture.h"
#include "common/Path.h"
#include "tasks/KdTaskEx.h"

namespace fs = std::filesystem;

namespace kd::test {
namespace {

using FM = KdFileManager;

// One entry of a hand-made archive: a file with `data`, a folder (name ending
// in "/"), a symbolic link (`link`) or a hard link (`hard`).
struct Item {
  std::string name, data = {}, link = {}, hard = {};
};

bool writeArchive(const std::string& path, const std::vector<Item>& items, bool zip) {
  archive* a = archive_write_new();
  zip ? archive_write_set_format_zip(a) : archive_write_set_format_pax_restricted(a);
  bool ok = archive_write_open_filename(a, path.c_str()) == ARCHIVE_OK;
  for (const Item& item : items) {
    archive_entry* e = archive_entry_new();
    archive_entry_set_pathname(e, item.name.c_str());
    archive_entry_set_perm(e, 0644);
    if (!item.hard.empty()) {
      archive_entry_set_filetype(e, AE_IFREG);
      archive_entry_set_hardlink(e, item.hard.c_str());
    } else if (!item.link.empty()) {
      archive_entry_set_filetype(e, AE_IFLNK);
      archive_entry_set_symlink(e, item.link.c_str());
    } else if (item.name.back() == '/') {
      archive_entry_set_filetype(e, AE_IFDIR);
      archive_entry_set_perm(e, 0755);
    } else {
      archive_entry_set_filetype(e, AE_IFREG);
      archive_entry_set_size(e, static_cast<la_int64_t>(item.data.size()));
    }
    ok = ok && archive_write_header(a, e) == ARCHIVE_OK;
    if (!item.data.empty())
      ok = ok && archive_write_data(a, item.data.data(), item.data.size()) ==
                     static_cast<la_ssize_t>(item.data.size());
    archive_entry_free(e);
  }
  ok = archive_write_close(a) == ARCHIVE_OK && ok;
  archive_write_free(a);
  return ok;
}

using Archives = FilesTest;

TEST_F(Archives, RoundTripWithAndWithoutTheParent) {
  dir_.touch("Clips/Café 1.mov", "one");
  dir_.touch("Clips/日本/two.txt", "two");
  dir_.mkdir("Clips/empty");
  ASSERT_EQ(::symlink("日本/two.txt", work("Clips/link").c_str()), 0);
  ::chmod(work("Clips/Café 1.mov").c_str(), 0750);
  const auto old = secondsAgo(86400);
  ASSERT_TRUE(FM::setModificationDate(old, work("Clips/Café 1.mov")));

  ASSERT_TRUE(FM::compressFile(work("Clips"), work("with.zip")));
  ASSERT_TRUE(FM::compressFile(work("Clips"), work("without.zip"), false));
  const std::set<std::string> inside = {"Café 1.mov", "日本", "日本/two.txt", "empty", "link"};

  ASSERT_TRUE(FM::decompressFile(work("with.zip"), work("out1")))
      << ::testing::PrintToString(logged());
  std::set<std::string> withParent = {"Clips"};
  for (const auto& p : inside) withParent.insert("Clips/" + p);
  EXPECT_EQ(namesIn(work("out1"), true), withParent);
  EXPECT_EQ(readFile(work("out1/Clips/Café 1.mov")), "one");
  EXPECT_EQ(readFile(work("out1/Clips/link")), "two");
  EXPECT_EQ(fs::read_symlink(work("out1/Clips/link")), "日本/two.txt");
  struct stat st {};
  ASSERT_EQ(::stat(work("out1/Clips/Café 1.mov").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0750u);
  EXPECT_EQ(std::chrono::time_point_cast<std::chrono::seconds>(
                *FM::modificationDateForFile(work("out1/Clips/Café 1.mov"))),
            std::chrono::time_point_cast<std::chrono::seconds>(old));

  ASSERT_TRUE(FM::decompressFile(work("without.zip"), work("out2")));
  EXPECT_EQ(namesIn(work("out2"), true), inside);
  // An archive written inside its own folder does not hold itself.
  ASSERT_TRUE(FM::compressFile(work("Clips"), work("Clips/self.zip"), false));
  ASSERT_TRUE(FM::decompressFile(work("Clips/self.zip"), work("out3")));
  EXPECT_EQ(namesIn(work("out3"), true), inside);
  ASSERT_EQ(::unlink(work("Clips/self.zip").c_str()), 0);

  // An existing archive goes to the trash first; so does an existing folder,
  // and only once the new one is complete.
  dir_.touch("single.txt", "s");
  ASSERT_TRUE(FM::compressFile(work("single.txt"), work("with.zip"), false));
  ASSERT_TRUE(FM::decompressFile(work("with.zip"), work("out1")));
  EXPECT_EQ(namesIn(work("out1"), true), std::set<std::string>{"single.txt"});
  EXPECT_TRUE(exists(trash() + "/files/with.zip"));
  EXPECT_TRUE(exists(trash() + "/files/out1/Clips/link"));

  if (::access("/usr/bin/unzip", X_OK) != 0) GTEST_SKIP() << "needs unzip (scripts/deps.sh)";
  const std::string listing = KdTaskEx::stringFromTask(
      "/usr/bin/env", {"LC_ALL=C.UTF-8", "/usr/bin/unzip", "-l", work("without.zip")},
      KdTaskEx::UTF8StringEncoding, 10.0);
  EXPECT_NE(listing.find(" Café 1.mov\n"), std::string::npos) << listing;
  EXPECT_NE(listing.find(" 日本/two.txt\n"), std::string::npos) << listing;
  EXPECT_EQ(listing.find(" Clips/"), std::string::npos) << listing;
}

TEST_F(Archives, HostileEntriesAreRefusedAndNothingIsWritten) {
  const std::string outside = dir_.mkdir("outside");
  const std::string absolute = outside + "/abs";
  const struct {
    const char* what;
    std::vector<Item> items;
  } cases[] = {
      {"climbs", {{"ok.txt", "ok"}, {"../outside/x", "x"}}},
      {"climbs in the middle", {{"a/../../outside/x", "x"}}},
      {"absolute", {{absolute, "x"}}},
      {"link out, then through it", {{"l", "", outside}, {"l/x", "x"}}},
      {"relative link out", {{"d/", ""}, {"d/l", "", "../../outside"}}},
      {"link in, then through it", {{"d/", ""}, {"l", "", "d"}, {"l/x", "x"}}},
      {"link through a link", {{"l", "", "."}, {"m", "", "l/.."}}},
      {"hard link out", {{"h", "", "", "../outside/keep"}}},
      {"hard link to a link, shallower",
       {{"a/", ""}, {"a/b/", ""}, {"a/b/up", "", "../.."}, {"esc", "", "", "a/b/up"}}},
      {"duplicate", {{"f", "1"}, {"f", "2"}}},
  };
  dir_.touch("dest/keep", "mine");
  dir_.touch("outside/keep", "keep");
  for (bool zip : {true, false}) {
    for (const auto& c : cases) {
      if (zip && !c.items.back().hard.empty()) continue;  // zip has no hard links
      SCOPED_TRACE(std::string(c.what) + (zip ? " (zip)" : " (tar)"));
      const std::string archive = work(zip ? "hostile.zip" : "hostile.tar");
      ::unlink(archive.c_str());
      ASSERT_TRUE(writeArchive(archive, c.items, zip));
      EXPECT_FALSE(FM::decompressFile(archive, work("dest")));
      EXPECT_EQ(namesIn(outside, true), std::set<std::string>{"keep"});
      EXPECT_EQ(namesIn(work("dest"), true), std::set<std::string>{"keep"});
      EXPECT_EQ(namesIn(dir_.path(), true),
                (std::set<std::string>{"outside", "outside/keep", "dest", "dest/keep",
                                       zip ? "hostile.zip" : "hostile.tar"}));
      ::unlink(archive.c_str());
    }
  }
  const Lines lines = logged();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0], "Unable to extract " + work("hostile.zip") +
                          ": the entry ../outside/x would land outside the folder");
}

// A name that is no UTF-8 cannot be stored as the UTF-8 name the archive
// promises: the file is refused, by name, and nothing is left behind.
TEST_F(Archives, NamesThatAreNoUtf8AreRefusedWithoutACrash) {
  const struct {
    const char* what;
    std::string file, link;
  } cases[] = {
      {"file", "Clips/clip\xff.mov", ""},
      {"folder", "Clips/d\xe9j\xe0/clip.mov", ""},
      {"link target", "Clips/clip.mov", "clip\xff.mov"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    fs::remove_all(work("Clips"));
    dir_.touch(c.file, "c");
    if (!c.link.empty()) {
      ASSERT_EQ(::symlink(c.link.c_str(), work("Clips/link").c_str()), 0);
    }
    EXPECT_FALSE(FM::compressFile(work("Clips"), work("clips.zip")));
    EXPECT_NE(FM::lastFailureReason().find("not valid UTF-8"), std::string::npos)
        << FM::lastFailureReason();
    EXPECT_EQ(namesIn(dir_.path()), std::set<std::string>{"Clips"});
  }
}

// Folders made on the way to an entry that has none of its own get the usual
// mode, as if made by hand.
TEST_F(Archives, FoldersWithoutAnEntryGetTheUsualMode) {
  ASSERT_TRUE(writeArchive(work("a.tar"), {{"p/q/f", "f"}}, false));
  const mode_t saved = ::umask(022);
  const bool extracted = FM::decompressFile(work("a.tar"), work("out"));
  ::umask(saved);
  ASSERT_TRUE(extracted);
  for (const char* folder : {"out/p", "out/p/q"}) {
    struct stat st {};
    ASSERT_EQ(::stat(work(folder).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u) << folder;
  }
}

TEST_F(Archives, DamagedOrMissingArchivesFail) {
  dir_.touch("junk.zip", "this is no archive");
  EXPECT_FALSE(FM::decompressFile(work("junk.zip"), work("out")));
  EXPECT_FALSE(FM::decompressFile(work("missing.zip"), work("out")));
  EXPECT_FALSE(exists(work("out")));
  // What each failure says, in the log line and the reason, word for word.
  const struct {
    bool compress;
    std::string from, to, reason;
  } told[] = {
      {true, work("missing"), work("a.zip"), "missing: No such file or directory"},
      {true, work("gone/x"), work("a.zip"), work("gone/x") + ": No such file or directory"},
      {true, work("junk.zip"), work("gone/a.zip"),
       work("gone/a.zip") + ": No such file or directory"},
      {false, work("junk.zip"), work("junk.zip/out"), work("junk.zip/out") + ": Not a directory"},
  };
  for (const auto& c : told) {
    EXPECT_FALSE(c.compress ? FM::compressFile(c.from, c.to) : FM::decompressFile(c.from, c.to));
    EXPECT_EQ(FM::lastFailureReason(), c.reason);
    EXPECT_EQ(logged().back(), (c.compress ? "Unable to compress " : "Unable to extract ") +
                                   c.from + ": " + c.reason);
  }
  EXPECT_FALSE(exists(work("a.zip")));
  EXPECT_EQ(namesIn(dir_.path(), true), std::set<std::string>{"junk.zip"});
}

}  // namespace
}  // namespace kd::test
