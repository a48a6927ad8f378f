// The transfer report of an offload as HTML and CSV.
#include "files/offload/TransferReport.h"

#include <ctime>
#include <map>
#include <set>
#include <vector>

#include "common/Utf8.h"
#include "common/XmlText.h"
#include "files/KdFileManager.h"

namespace kd {
namespace {

using SystemClock = std::chrono::system_clock;

constexpr const char* kNewOnCard = "on the card, not in its hash list";
constexpr const char* kMissingFromCard = "in the card's hash list, not on the card";

// Text as valid UTF-8: bytes that are none (a card's file names may hold
// any) shown as \xNN.
std::string shown(std::string_view text) {
  return utf8::withBytesShown(text);
}

// Text in the page: escaped, bytes that are not UTF-8 shown as \xNN, and
// control characters (which have no place in a page) as U+FFFD.
std::string html(std::string_view text) {
  std::string out;
  xml::appendEscaped(out, text, xml::Escape::Display);
  return out;
}

// One CSV field, always quoted. A field that a spreadsheet would take for a
// formula (a file named "=HYPERLINK(...)" on a card) gets a leading "'".
std::string csv(std::string_view text) {
  std::string value = shown(text);
  if (!value.empty() && std::string_view("=+-@\t\r").find(value[0]) != std::string_view::npos)
    value.insert(0, "'");
  std::string out = "\"";
  for (char c : value) {
    if (c == '"') out += '"';
    out += c;
  }
  return out + "\"";
}

std::string utc(SystemClock::time_point t, const char* format = "%Y-%m-%d %H:%M:%S UTC") {
  const std::time_t seconds = SystemClock::to_time_t(t);
  std::tm tm{};
  ::gmtime_r(&seconds, &tm);
  char text[40];
  return std::strftime(text, sizeof text, format, &tm) ? text : "";
}

std::string size(std::uint64_t bytes) {
  return KdFileManager::formatFileSize(static_cast<double>(bytes)) + " (" + std::to_string(bytes) +
         " bytes)";
}

std::string clock(double seconds) {
  const long s = static_cast<long>(seconds);
  char text[32];
  std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
  return text;
}

// The failures of one destination by the card file's path.
std::map<std::string, const OffloadFailure*> failuresByFile(const OffloadDestination& d) {
  std::map<std::string, const OffloadFailure*> byFile;
  const std::string prefix = d.folder + "/";
  for (const OffloadFailure& f : d.failures)
    if (f.path.compare(0, prefix.size(), prefix) == 0) byFile[f.path.substr(prefix.size())] = &f;
  return byFile;
}

// The card file's digest in each kind of the run, in their order; empty
// where it is not known.
std::vector<std::string> digestsOf(const OffloadReport& r, const OffloadCardFile& f) {
  std::vector<std::string> out;
  for (std::size_t k = 0; k < r.hash.size(); ++k)
    out.push_back(k == 0                          ? f.digest.value_or("")
                  : k - 1 < f.otherDigests.size() ? f.otherDigests[k - 1]
                                                  : "");
  return out;
}

const char* stateText(OffloadFileState state) {
  switch (state) {
    case OffloadFileState::Copied:
      return "copied, verified";
    case OffloadFileState::AlreadyThere:
      return "already there, verified";
    case OffloadFileState::Failed:
      return "FAILED";
    case OffloadFileState::NotCopied:
      break;
  }
  return "not copied";
}

OffloadFileState stateOf(const OffloadDestination& d, std::size_t file) {
  return file < d.states.size() ? d.states[file] : OffloadFileState::NotCopied;
}

std::string result(const OffloadReport& r, const OffloadDestination& d) {
  if (d.good() && r.error.empty()) return "every file verified";
  if (!d.lost.empty()) return "FAILED: given up (" + d.lost + ")";
  return "FAILED";
}

constexpr const char* kStyle = R"(<style>
body { font: 10pt/1.35 sans-serif; margin: 1.5em; color: #111; }
h1 { font-size: 15pt; margin: 0 0 .6em; }
h2 { font-size: 11.5pt; margin: 1.4em 0 .4em; }
table { border-collapse: collapse; width: 100%; }
th, td { border: 1px solid #bbb; padding: .2em .45em; text-align: left; vertical-align: top; }
th { background: #eee; }
table.facts th { width: 11em; }
td.n { text-align: right; white-space: nowrap; }
td.d { font-family: monospace; word-break: break-all; }
.good { color: #05620f; font-weight: bold; }
.bad { color: #a00; font-weight: bold; }
thead { display: table-header-group; }
tr { page-break-inside: avoid; }
@media print { body { margin: 0; font-size: 8.5pt; } th { background: #eee !important; } }
</style>)";

}  // namespace

std::string transferReportName(const OffloadReport& report, std::string_view extension) {
  return "offload-report_" + report.name + "_" + utc(report.started, "%Y-%m-%d_%H%M%SZ") + "." +
         std::string(extension);
}

std::string transferReportHtml(const OffloadReport& r, std::size_t destination) {
  const OffloadDestination& here = r.destinations.at(destination);
  const bool good = here.good() && r.error.empty();
  const double seconds = r.elapsed.count();
  std::string out =
      "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n<title>Offload "
      "report: " +
      html(r.name) + "</title>\n" + kStyle +
      "\n</head>\n<body>\n<h1>Offload report: " + html(r.name) + "</h1>\n<table class=\"facts\">\n";
  auto fact = [&](const char* name, const std::string& value) {
    out += "<tr><th>" + std::string(name) + "</th><td>" + value + "</td></tr>\n";
  };
  fact("Result here", std::string("<span class=\"") + (good ? "good" : "bad") + "\">" +
                          html(result(r, here)) + "</span>");
  fact("Destination", html(here.folder));
  fact("Card", html(r.card));
  if (!r.layout.empty()) fact("Camera layout", html(r.layout));
  fact("Started", utc(r.started));
  fact("Ended", utc(r.ended));
  fact("Elapsed", clock(seconds));
  fact("Files", std::to_string(r.cardFiles.size()) + ", " + size(r.bytes));
  fact("Read from the card", size(r.bytesRead) + ", " +
                                 KdFileManager::formatFileSize(
                                     seconds > 0 ? static_cast<double>(r.bytesRead) / seconds : 0) +
                                 "/s");
  fact(r.hash.size() > 1 ? "Hashes" : "Hash",
       html(r.hash.text(", ")) +
           (r.hash.size() > 1 ? " (" + html(r.hash.verifying()) + " verifies the copies)" : ""));
  if (here.manifest) fact("Hash list", html(*here.manifest));
  if (!r.cardHistories.empty()) {
    std::string lists;
    for (const std::string& h : r.cardHistories)
      lists += (lists.empty() ? "" : ", ") + html(h.empty() ? "ascmhl" : h + "/ascmhl");
    fact("Card's hash list",
         lists + ": " + std::to_string(r.filesMatchingHistory) + " matched, " +
             std::to_string(r.newOnCard.size()) + " new on the card, " +
             (r.missingFromCard.empty()
                  ? std::string("none missing")
                  : "<span class=\"bad\">" + std::to_string(r.missingFromCard.size()) +
                        " missing from the card</span>"));
  }
  if (r.sourceVerify)
    fact("Card read twice",
         std::to_string(r.filesReadTwice) + " files gave the same bytes both times");
  for (const std::string& w : r.warnings) fact("Warning", html(w));
  if (!r.error.empty()) fact("Stopped", "<span class=\"bad\">" + html(r.error) + "</span>");
  out += "</table>\n";

  out +=
      "<h2>Every destination of this offload</h2>\n<table>\n<thead><tr><th>Destination</th>"
      "<th>Result</th><th>Copied</th><th>Already there</th><th>Read again</th><th>Failed</th>"
      "<th>Not copied</th></tr></thead>\n";
  for (const OffloadDestination& d : r.destinations) {
    out += "<tr><td>" + html(d.folder) + "</td><td>" + html(result(r, d)) +
           "</td><td class=\"n\">" + std::to_string(d.filesCopied) + "</td><td class=\"n\">" +
           std::to_string(d.filesSkipped) + "</td><td class=\"n\">" +
           std::to_string(d.filesReverified) + "</td><td class=\"n\">" +
           std::to_string(d.failures.size()) + "</td><td class=\"n\">" +
           std::to_string(d.filesMissing) + "</td></tr>\n";
  }
  out += "</table>\n";

  if (!here.failures.empty()) {
    out +=
        "<h2>Failures here</h2>\n<table>\n<thead><tr><th>File</th><th>Why</th><th>Card's "
        "digest</th><th>Found</th></tr></thead>\n";
    for (const OffloadFailure& f : here.failures)
      out += "<tr><td>" + html(f.path) + "</td><td>" + html(f.reason) + "</td><td class=\"d\">" +
             html(f.sourceDigest.value_or("")) + "</td><td class=\"d\">" +
             html(f.destinationDigest.value_or("")) + "</td></tr>\n";
    out += "</table>\n";
  }
  if (!r.missingFromCard.empty()) {
    out +=
        "<h2>In the card's hash list, not on the card</h2>\n<table>\n<thead><tr><th>File</th>"
        "</tr></thead>\n";
    for (const std::string& m : r.missingFromCard) out += "<tr><td>" + html(m) + "</td></tr>\n";
    out += "</table>\n";
  }
  if (!r.excluded.empty()) {
    out += "<h2>Left out</h2>\n<table>\n<thead><tr><th>On the card</th><th>Why</th></tr></thead>\n";
    for (const OffloadExclusion& e : r.excluded)
      out += "<tr><td>" + html(e.path) + "</td><td>" + html(e.reason) + "</td></tr>\n";
    out += "</table>\n";
  }

  out += "<h2>Files</h2>\n<table>\n<thead><tr><th>File</th><th>Size</th><th>Modified</th>";
  for (const std::string& kind : r.hash.all()) out += "<th>" + html(kind) + "</th>";
  out += "<th>Here</th></tr></thead>\n";
  for (std::size_t i = 0; i < r.cardFiles.size(); ++i) {
    const OffloadCardFile& f = r.cardFiles[i];
    const OffloadFileState state = stateOf(here, i);
    out += "<tr><td>" + html(f.path) + "</td><td class=\"n\">" + std::to_string(f.size) +
           "</td><td>" + utc(f.modified) + "</td>";
    for (const std::string& digest : digestsOf(r, f))
      out += "<td class=\"d\">" + html(digest) + "</td>";
    out += std::string("<td") + (state == OffloadFileState::Failed ? " class=\"bad\"" : "") + ">" +
           stateText(state) + "</td></tr>\n";
  }
  out += "</table>\n</body>\n</html>\n";
  return out;
}

std::string transferReportCsv(const OffloadReport& r, std::size_t destination) {
  const OffloadDestination& here = r.destinations.at(destination);
  const std::map<std::string, const OffloadFailure*> failures = failuresByFile(here);
  const std::set<std::string_view> newOnCard(r.newOnCard.begin(), r.newOnCard.end());
  std::string out = "path,size,modified_utc,";
  for (const std::string& kind : r.hash.all()) out += csv(kind) + ",";
  out += "state,reason\r\n";
  for (std::size_t i = 0; i < r.cardFiles.size(); ++i) {
    const OffloadCardFile& f = r.cardFiles[i];
    const OffloadFileState state = stateOf(here, i);
    const auto failure = failures.find(f.path);
    out += csv(f.path) + "," + std::to_string(f.size) + "," +
           csv(utc(f.modified, "%Y-%m-%dT%H:%M:%SZ")) + ",";
    for (const std::string& digest : digestsOf(r, f)) out += csv(digest) + ",";
    out += csv(stateText(state)) + "," +
           csv(failure != failures.end() ? failure->second->reason
               : newOnCard.count(f.path) ? kNewOnCard
                                         : "") +
           "\r\n";
  }
  // What the card's hash list promised and the card no longer holds.
  for (const std::string& m : r.missingFromCard) {
    out += csv(m) + ",,,";
    for (std::size_t k = 0; k < r.hash.size(); ++k) out += ",";
    out += csv("missing from the card") + "," + csv(kMissingFromCard) + "\r\n";
  }
  return out;
}

}  // namespace kd
