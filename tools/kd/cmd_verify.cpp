// kd verify: check a copy later, without the card, against its hash list.
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include "Commands.h"
#include "Output.h"
#include "Progress.h"
#include "Rights.h"
#include "files/KdFileManager.h"
#include "files/mhl/MhlHistory.h"
#include "files/offload/FolderVerify.h"
#include "log/KdLog.h"

namespace {

using kd::tool::clock;
using kd::tool::size;

std::string utc(std::chrono::system_clock::time_point t) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(t);
  std::tm tm{};
  ::gmtime_r(&seconds, &tm);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &tm);
  return text;
}

// kd verify --info: one line per generation.
int printInfo(const std::string& folder) {
  kd::MhlHistory history;
  std::string error;
  if (!kd::MhlHistory::load(folder, history, error)) {
    std::fprintf(stderr, "kd verify: %s: the hash list cannot be read (%s)\n", folder.c_str(),
                 error.c_str());
    return 1;
  }
  if (history.generations() == 0) {
    std::fprintf(stderr, "kd verify: %s: no hash list (no ascmhl folder)\n", folder.c_str());
    return 1;
  }
  std::ostringstream out;
  for (const kd::MhlGeneration& g : history.generationList()) {
    out << g.entry.sequence << "  " << utc(g.creator.creationDate) << "  " << g.process << "  "
        << g.files << (g.files == 1 ? " file (" : " files (") << g.original << " original, "
        << g.verified << " verified, " << g.failed << " failed)  by " << g.creator.tool
        << (g.creator.toolVersion.empty() ? "" : " " + g.creator.toolVersion) << " on "
        << g.creator.hostname << "  " << g.entry.file << "\n";
  }
  std::cout << out.str();
  return 0;
}

// The findings of one folder's check (the folder's own lines, without the
// folders inside).
void printFindings(std::ostringstream& out, const kd::FolderVerifyReport& r) {
  out << "Folder:      " << r.folder << "  (" << r.generations << " generation"
      << (r.generations == 1 ? "" : "s") << " in its hash list)\n";
  out << "Verified:    " << r.filesVerified << " files equal to the hash list\n";
  for (const kd::FolderVerifyProblem& p : r.changed) {
    out << "Changed:     " << p.path << ": " << p.reason << "\n";
    if (p.recorded) out << "             recorded " << *p.recorded << "\n";
    if (p.found) out << "             found    " << *p.found << "\n";
  }
  for (const std::string& path : r.missing) out << "Missing:     " << path << "\n";
  for (const auto& [from, to] : r.renamed)
    out << "Renamed?     " << from << " -> " << to << " (same " << r.hash << " digest)\n";
  for (const std::string& path : r.added)
    out << "New:         " << path << " (not in the hash list)\n";
  for (const kd::OffloadExclusion& e : r.excluded)
    out << "Excluded:    " << e.path << " (" << e.reason << ")\n";
  if (r.manifest) out << "Manifest:    " << *r.manifest << "\n";
  if (!r.error.empty()) out << "Error:       " << r.error << "\n";
}

void printText(const kd::FolderVerifyReport& r) {
  std::ostringstream out;
  printFindings(out, r);
  for (const kd::FolderVerifyReport& inside : r.inside) {
    out << "\n";
    printFindings(out, inside);
  }
  const double seconds = r.elapsed.count();
  if (!r.inside.empty()) out << "\n";
  out << "Read:        " << size(r.bytesRead) << " in " << clock(seconds) << "  ("
      << KdFileManager::formatFileSize(seconds > 0 ? static_cast<double>(r.bytesRead) / seconds : 0)
      << "/s)\n";
  out << "Result:      "
      << (r.allGood() ? "every file is as the hash list recorded it" : "FAILED: see above") << "\n";
  std::cout << out.str();
}

std::string jsonOf(const kd::FolderVerifyReport& r) {
  using kd::tool::jsonString;
  auto optional = [](const std::optional<std::string>& s) {
    return s ? jsonString(*s) : std::string("null");
  };
  auto list = [](const std::vector<std::string>& items) {
    std::string text = "[";
    for (std::size_t i = 0; i < items.size(); ++i) text += (i ? ", " : "") + jsonString(items[i]);
    return text + "]";
  };
  std::ostringstream out;
  out << "{\"folder\": " << jsonString(r.folder) << ", \"ok\": " << (r.allGood() ? "true" : "false")
      << ", \"error\": " << (r.error.empty() ? "null" : jsonString(r.error))
      << ", \"generations\": " << r.generations << ", \"hash\": " << jsonString(r.hash)
      << ", \"filesVerified\": " << r.filesVerified << ", \"bytesRead\": " << r.bytesRead
      << ", \"seconds\": " << r.elapsed.count() << ", \"changed\": [";
  for (std::size_t i = 0; i < r.changed.size(); ++i)
    out << (i ? ", " : "") << "{\"path\": " << jsonString(r.changed[i].path)
        << ", \"reason\": " << jsonString(r.changed[i].reason)
        << ", \"recorded\": " << optional(r.changed[i].recorded)
        << ", \"found\": " << optional(r.changed[i].found) << "}";
  out << "], \"missing\": " << list(r.missing) << ", \"added\": " << list(r.added)
      << ", \"renamed\": [";
  for (std::size_t i = 0; i < r.renamed.size(); ++i)
    out << (i ? ", " : "") << "{\"from\": " << jsonString(r.renamed[i].first)
        << ", \"to\": " << jsonString(r.renamed[i].second) << "}";
  out << "], \"manifest\": " << optional(r.manifest) << ", \"inside\": [";
  for (std::size_t i = 0; i < r.inside.size(); ++i) out << (i ? ", " : "") << jsonOf(r.inside[i]);
  out << "]}";
  return out.str();
}

void printJson(const kd::FolderVerifyReport& r) {
  std::cout << jsonOf(r) + "\n";
}

void setupVerify(CLI::App& app) {
  auto* cmd = app.add_subcommand("verify", "Check a copy against its hash list, without the card");
  static kd::FolderVerifyOptions options;
  static bool json = false, noMhl = false, info = false;
  cmd->add_flag("--info", info, "List the generations of the folder's hash list and exit");
  cmd->add_flag("--no-mhl", noMhl, "Add nothing to the hash list");
  cmd->add_flag("--json", json, "Print the summary as JSON");
  cmd->add_option("FOLDER", options.folder, "A folder with an ascmhl hash list (DEST/NAME)")
      ->required();
  cmd->footer(
      "Reads every file of FOLDER again from its device and compares it with the\n"
      "newest good record of the folder's ascmhl hash list (written by kd offload\n"
      "or another ASC MHL tool); a folder inside with a hash list of its own is\n"
      "checked with that one. Reports files that changed, are missing, are new,\n"
      "or look renamed (a new file with a missing file's digest). Adds a generation\n"
      "to the hash list with each file read marked verified or failed (not with\n"
      "--no-mhl); nothing else in FOLDER is changed. --info lists the generations.\n"
      "A summary goes to standard output (--json: as JSON), progress to standard\n"
      "error. Exits 0 when every recorded file is there and equal and nothing is\n"
      "new, 1 otherwise (also when the hash list is missing or damaged), 2 on\n"
      "usage errors. Ctrl-C stops and adds nothing to the hash list.\n"
      "Example: kd verify /mnt/raid/Day01/A001");
  cmd->callback([] {
    kd::tool::openCommandLog();
    if (info) {
      KdLog::finishWriting();
      if (const int status = printInfo(options.folder)) kd::tool::exitWith(status);
      if (!kd::tool::finishData()) kd::tool::exitWith(1);
      return;
    }
    options.mhl = !noMhl;
    options.toolVersion = KD_VERSION;
    options.stop = kd::tool::stopOnInterrupt();
    kd::tool::runLongCommand(
        "kd verify",
        [](const kd::OffloadProgress& callbacks) { return kd::verifyFolder(options, callbacks); },
        [](const kd::FolderVerifyReport& report) { json ? printJson(report) : printText(report); });
  });
}

}  // namespace
KD_COMMAND(setupVerify);
