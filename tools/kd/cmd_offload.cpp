// kd offload: a whole card to several destinations, verified, with a hash
// list in each, resumable.
#include <unistd.h>
#include <climits>
#include <cstdlib>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "Commands.h"
#include "Output.h"
#include "Progress.h"
#include "Rights.h"
#include "files/KdFileManager.h"
#include "files/offload/Offload.h"
#include "helper/FerrimoVolumeChecker.h"
#include "log/KdLog.h"

namespace {

using kd::tool::clock;
using kd::tool::size;

// How the helper's detection names a card's layout, for the transfer report.
std::string layoutOf(const std::string& card) {
  char resolved[PATH_MAX];
  const std::string path = ::realpath(card.c_str(), resolved) ? resolved : card;
  return FerrimoVolumeChecker::layoutDescription(FerrimoVolumeChecker::verifyVolumeType(path));
}

double rateOf(const kd::OffloadReport& r) {
  const double seconds = r.elapsed.count();
  return seconds > 0 ? static_cast<double>(r.bytesRead) / seconds : 0;
}

void printText(const kd::OffloadReport& r) {
  std::ostringstream out;
  out << "Card:        " << r.card << "  (as \"" << r.name << "\", " << r.hash.text(", ") << ")\n";
  out << "Files:       " << r.files << " (" << size(r.bytes) << "), " << r.excluded.size()
      << " excluded\n";
  out << "Elapsed:     " << clock(r.elapsed.count()) << "  (" << size(r.bytesRead) << " read, "
      << KdFileManager::formatFileSize(rateOf(r)) << "/s)\n";
  if (r.sourceVerify)
    out << "Card read:   twice; " << r.filesReadTwice
        << (r.filesReadTwice == 1 ? " file" : " files") << " gave the same bytes both times\n";
  for (const std::string& w : r.warnings) out << "Warning:     " << w << "\n";
  for (const std::string& h : r.cardHistories)
    out << "Hash list:   the card's " << (h.empty() ? std::string("ascmhl") : h + "/ascmhl")
        << ", continued in each destination\n";
  if (!r.cardHistories.empty())
    out << "Checked:     " << r.filesMatchingHistory
        << (r.filesMatchingHistory == 1 ? " file matches" : " files match")
        << " the card's hash list, " << r.newOnCard.size() << " new on the card, "
        << r.missingFromCard.size() << " missing from the card\n";
  for (const std::string& m : r.missingFromCard)
    out << "Missing:     " << m << " (in the card's hash list, not on the card)\n";
  for (const std::string& n : r.newOnCard)
    out << "New:         " << n << " (on the card, not in its hash list)\n";
  for (const kd::OffloadDestination& d : r.destinations) {
    out << "Destination: " << d.folder << ": " << (d.good() ? "all verified" : "FAILED") << ", "
        << d.filesCopied << " copied, " << d.filesSkipped << " already there";
    if (d.filesReverified) out << ", " << d.filesReverified << " read again from the device";
    if (!d.failures.empty()) out << ", " << d.failures.size() << " failed";
    if (d.filesMissing) out << ", " << d.filesMissing << " not copied";
    out << "\n";
    if (!d.lost.empty()) out << "  Given up:  " << d.lost << "\n";
    if (d.manifest) out << "  Manifest:  " << *d.manifest << "\n";
    if (d.reportHtml) out << "  Report:    " << *d.reportHtml << " (and .csv)\n";
    if (d.filesWithAttributesNotKept)
      out << "  Not kept:  the extended attributes (labels, tags) of "
          << d.filesWithAttributesNotKept
          << (d.filesWithAttributesNotKept == 1 ? " file" : " files")
          << ": the destination's file system holds none (first: " << d.attributesNotKeptExample
          << ")\n";
    for (const kd::OffloadFailure& f : d.failures) {
      out << "  Failed:    " << f.path << ": " << f.reason << "\n";
      if (f.sourceDigest) out << "             card        " << *f.sourceDigest << "\n";
      if (f.destinationDigest) out << "             destination " << *f.destinationDigest << "\n";
    }
  }
  for (const kd::OffloadExclusion& e : r.excluded)
    out << "Excluded:    " << e.path << " (" << e.reason << ")\n";
  if (!r.error.empty()) out << "Stopped:     " << r.error << "\n";
  out << "Result:      "
      << (r.allGood() ? "every file of every destination verified" : "FAILED: see above") << "\n";
  std::cout << out.str();
}

void printJson(const kd::OffloadReport& r) {
  using kd::tool::jsonString;
  std::ostringstream out;
  auto optional = [](const std::optional<std::string>& s) {
    return s ? jsonString(*s) : std::string("null");
  };
  out << "{\"card\": " << jsonString(r.card) << ", \"name\": " << jsonString(r.name)
      << ", \"hash\": " << jsonString(r.hash.verifying()) << ", \"hashes\": [";
  for (std::size_t i = 0; i < r.hash.size(); ++i)
    out << (i ? ", " : "") << jsonString(r.hash.all()[i]);
  out << "], \"ok\": " << (r.allGood() ? "true" : "false")
      << ", \"error\": " << (r.error.empty() ? "null" : jsonString(r.error))
      << ", \"files\": " << r.files << ", \"bytes\": " << r.bytes
      << ", \"bytesRead\": " << r.bytesRead << ", \"seconds\": " << r.elapsed.count()
      << ", \"bytesPerSecond\": " << static_cast<std::uint64_t>(rateOf(r))
      << ", \"sourceVerify\": " << (r.sourceVerify ? "true" : "false")
      << ", \"filesReadTwice\": " << r.filesReadTwice
      << ", \"filesMatchingHistory\": " << r.filesMatchingHistory;
  for (const auto& [key, list] :
       {std::pair{"cardHistories", &r.cardHistories},
        std::pair{"missingFromCard", &r.missingFromCard}, std::pair{"newOnCard", &r.newOnCard}}) {
    out << ", \"" << key << "\": [";
    for (std::size_t i = 0; i < list->size(); ++i) out << (i ? ", " : "") << jsonString((*list)[i]);
    out << "]";
  }
  out << ", \"warnings\": [";
  for (std::size_t i = 0; i < r.warnings.size(); ++i)
    out << (i ? ", " : "") << jsonString(r.warnings[i]);
  out << "], \"excluded\": [";
  for (std::size_t i = 0; i < r.excluded.size(); ++i)
    out << (i ? ", " : "") << "{\"path\": " << jsonString(r.excluded[i].path)
        << ", \"reason\": " << jsonString(r.excluded[i].reason) << "}";
  out << "], \"destinations\": [";
  for (std::size_t i = 0; i < r.destinations.size(); ++i) {
    const kd::OffloadDestination& d = r.destinations[i];
    out << (i ? ", " : "") << "{\"folder\": " << jsonString(d.folder)
        << ", \"ok\": " << (d.good() ? "true" : "false") << ", \"filesCopied\": " << d.filesCopied
        << ", \"filesSkipped\": " << d.filesSkipped
        << ", \"filesReverified\": " << d.filesReverified
        << ", \"filesMissing\": " << d.filesMissing << ", \"bytesCopied\": " << d.bytesCopied
        << ", \"lost\": " << (d.lost.empty() ? "null" : jsonString(d.lost))
        << ", \"manifest\": " << optional(d.manifest)
        << ", \"reportHtml\": " << optional(d.reportHtml)
        << ", \"reportCsv\": " << optional(d.reportCsv)
        << ", \"filesWithAttributesNotKept\": " << d.filesWithAttributesNotKept
        << ", \"failures\": [";
    for (std::size_t k = 0; k < d.failures.size(); ++k) {
      const kd::OffloadFailure& f = d.failures[k];
      out << (k ? ", " : "") << "{\"path\": " << jsonString(f.path)
          << ", \"reason\": " << jsonString(f.reason)
          << ", \"sourceDigest\": " << optional(f.sourceDigest)
          << ", \"destinationDigest\": " << optional(f.destinationDigest) << "}";
    }
    out << "]}";
  }
  out << "]}\n";
  std::cout << out.str();
}

void setupOffload(CLI::App& app) {
  auto* cmd = app.add_subcommand("offload", "Copy a whole card to several destinations, verified");
  static kd::OffloadOptions options;
  static bool json = false, noMhl = false, noReport = false;
  static std::string hashes = "xxh64";
  cmd->add_option("--hash", hashes,
                  "Digest kinds, comma-separated: xxh64 (the default), xxh3, xxh128, md5, "
                  "sha1, sha256, sha512; the first verifies the copies, all are recorded")
      ->type_name("KIND[,KIND...]");
  cmd->add_flag("--reverify", options.reverify,
                "Read every copy again from its device after it was written");
  cmd->add_flag("--source-verify", options.sourceVerify,
                "Read every card file a second time, from the card, and compare");
  cmd->add_flag("--no-mhl", noMhl, "Keep no hash list (ascmhl folder) in the destinations");
  cmd->add_flag("--no-report", noReport, "Write no transfer report into the destinations");
  cmd->add_flag("--ignore-source-history", options.ignoreSourceHistory,
                "Leave the card's own hash lists (ascmhl) out and start new ones");
  cmd->add_option("--exclude", options.exclude,
                  "Leave out what matches PATTERN (\"*.tmp\", \"PRIVATE/\", \"A/B*\"); repeatable")
      ->type_name("PATTERN")
      ->allow_extra_args(false);  // one pattern a time: CARD and DEST are never patterns
  cmd->add_flag("--force", options.force,
                "Go on with a destination that has less free space than the card needs");
  cmd->add_flag("--json", json, "Print the summary as JSON");
  cmd->add_option("--name", options.name, "Folder made in each DEST (default: CARD's name)");
  cmd->add_option("CARD", options.card, "The card's folder (its mount point)")->required();
  cmd->add_option("DEST", options.destinations, "Existing destination folders")->required();
  cmd->footer(
      "Copies every file of CARD to DEST/NAME/ in each DEST, reading each card file\n"
      "once for all destinations. Each copy is written as .FILE.kdpart, read back\n"
      "and digested, flushed, and takes its name only when its digest equals the\n"
      "card file's; nothing already there is replaced. With --reverify each copy is\n"
      "read again from its device, not from memory; with --source-verify every card\n"
      "file is read a second time after the copies verified, and a difference fails\n"
      "it everywhere (the card or its reader is suspect). Each DEST/NAME gets an\n"
      "ascmhl folder with one manifest per offload and the chain file, and a\n"
      "transfer report (offload-report_*.html and .csv). When CARD (or a folder in\n"
      "it) keeps an ascmhl hash list of its own, every file is checked against it\n"
      "first (a file that differs fails everywhere; a damaged list stops the run\n"
      "before anything is written), and each DEST gets that list, copied byte for\n"
      "byte and verified, with a new generation: \"verified\" for files that\n"
      "matched, \"original\" for files new on the card. A DEST that keeps another\n"
      "hash list there is refused. --ignore-source-history leaves the card's lists\n"
      "out and starts new ones. A repeated run skips files already there with the\n"
      "same size and digest. With --hash xxh64,md5 each card file is still read\n"
      "once, digested in both kinds; xxh64 (the first) verifies the copies, and\n"
      "both go into the hash lists, reports and summary. Copies keep their card\n"
      "file's dates, permission bits and extended attributes where DEST's file\n"
      "system holds them (the summary says where it does not). Before anything is\n"
      "written, a DEST without room for the card is refused (--force goes on) and\n"
      "two DESTs on one drive are warned of. What systems keep on a card (.Trashes,\n"
      ".Spotlight-V100, .fseventsd, .TemporaryItems, ._*, .DS_Store, .Trash-<uid>,\n"
      "System Volume Information, $RECYCLE.BIN) and what --exclude names are left\n"
      "out, and recorded as the hash list's ignore patterns.\n"
      "A summary goes to standard output (--json: as JSON), progress to standard\n"
      "error. Exits 0 when every file of every DEST verified, 1 when anything\n"
      "failed, 2 on usage errors. Ctrl-C stops after the current stretch.\n"
      "Example: kd offload --reverify /media/$USER/A001 /mnt/shuttle1 /mnt/raid/Day01");
  cmd->callback([] {
    kd::tool::openCommandLog();
    options.hash = hashes;
    options.mhl = !noMhl;
    options.report = !noReport;
    options.layout = layoutOf(options.card);
    options.toolVersion = KD_VERSION;
    if (const std::optional<std::string> problem = kd::offloadOptionsProblem(options)) {
      std::fprintf(stderr, "kd offload: %s\n", problem->c_str());
      kd::tool::exitWith(2);
    }
    options.stop = kd::tool::stopOnInterrupt();
    kd::tool::runLongCommand(
        "kd offload",
        [](const kd::OffloadProgress& callbacks) { return kd::offloadCard(options, callbacks); },
        [](const kd::OffloadReport& report) { json ? printJson(report) : printText(report); });
  });
}

}  // namespace
KD_COMMAND(setupOffload);
