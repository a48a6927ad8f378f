// The transfer report: every file with its state at the destination, hostile
// names from a card shown as text (never markup, never a spreadsheet formula,
// never bytes that are no UTF-8), and a page an HTML parser reads cleanly.
#include "files/offload/TransferReport.h"

#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include "common/Utf8.h"
#include "support/TempDir.h"

namespace kd::test {
namespace {

int countOf(const std::string& text, const std::string& what) {
  int n = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

TEST(TransferReport, ListsEveryFileAndShowsHostileNamesAsText) {
  OffloadReport r;
  r.card = "/media/u/A001";
  r.name = "A001";
  r.hash = "xxh64";
  r.layout = "Canon EOS (DCIM)";
  r.started = std::chrono::system_clock::time_point(std::chrono::seconds(1764057600));
  r.ended = r.started + std::chrono::seconds(75);
  r.elapsed = std::chrono::seconds(75);
  const std::vector<std::string> names = {"DCIM/A.MOV", "<script>alert(1)</script>.mov",
                                          "=HYPERLINK(\"x\").mov", "bad\xff\"quote.mov"};
  for (const std::string& name : names)
    r.cardFiles.push_back({name, 10, r.started, std::string("0123456789abcdef")});
  r.bytes = 40;
  OffloadDestination good, bad;
  good.folder = "/mnt/raid/A001";
  good.filesCopied = 4;
  good.states.assign(4, OffloadFileState::Copied);
  bad.folder = "/mnt/shuttle/A001";
  bad.filesCopied = 3;
  bad.states = {OffloadFileState::Copied, OffloadFileState::Copied, OffloadFileState::Failed,
                OffloadFileState::Copied};
  bad.failures.push_back({bad.folder + "/" + names[2], "read back <differs>", "aa", "bb"});
  r.destinations = {good, bad};
  r.cardHistories = {""};
  r.filesMatchingHistory = 2;
  r.newOnCard = {names[0]};
  r.missingFromCard = {"DCIM/GONE<.MOV"};

  const std::string page = transferReportHtml(r, 1);
  EXPECT_TRUE(utf8::isValid(page));
  EXPECT_EQ(page.find("<script>"), std::string::npos);
  EXPECT_NE(page.find("&lt;script&gt;"), std::string::npos);
  EXPECT_NE(page.find("bad\\xff&quot;quote.mov"), std::string::npos);
  EXPECT_NE(page.find("read back &lt;differs&gt;"), std::string::npos);
  EXPECT_NE(page.find("Canon EOS (DCIM)"), std::string::npos);
  EXPECT_EQ(countOf(page, "copied, verified"), 3);
  EXPECT_EQ(countOf(transferReportHtml(r, 0), "copied, verified"), 4);
  // The check against the card's own hash list, and what it found missing.
  EXPECT_NE(page.find("ascmhl: 2 matched, 1 new on the card, <span class=\"bad\">1 missing"),
            std::string::npos);
  EXPECT_NE(page.find("<td>DCIM/GONE&lt;.MOV</td>"), std::string::npos);
  // An HTML parser reads the page without a complaint.
  TempDir dir;
  const std::string file = dir.touch("report.html", page);
  std::string complaints;
  if (std::FILE* lint =
          ::popen(("/usr/bin/xmllint --html --noout '" + file + "' 2>&1").c_str(), "r")) {
    char buf[512];
    while (std::fgets(buf, sizeof buf, lint)) complaints += buf;
    EXPECT_EQ(::pclose(lint), 0) << complaints;
  }
  EXPECT_EQ(complaints, "");

  const std::string table = transferReportCsv(r, 1);
  EXPECT_EQ(countOf(table, "\r\n"), 6);  // the header, a row per file, one for the missing
  EXPECT_NE(table.find("\"DCIM/A.MOV\",10,\"2025-11-25T08:00:00Z\",\"0123456789abcdef\","
                       "\"copied, verified\",\"on the card, not in its hash list\"\r\n"),
            std::string::npos);
  EXPECT_NE(table.find("\r\n\"DCIM/GONE<.MOV\",,,,\"missing from the card\",\"in the card's "
                       "hash list, not on the card\"\r\n"),
            std::string::npos)
      << table;
  EXPECT_NE(table.find("\"'=HYPERLINK(\"\"x\"\").mov\",10,\"2025-11-25T08:00:00Z\","
                       "\"0123456789abcdef\",\"FAILED\",\"read back <differs>\""),
            std::string::npos)
      << table;
  EXPECT_EQ(transferReportName(r, "csv"), "offload-report_A001_2025-11-25_080000Z.csv");
}

}  // namespace
}  // namespace kd::test
