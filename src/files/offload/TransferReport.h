// The transfer report of an offload, for one of its destinations: an HTML page
// that reads (and prints) well for a person handing drives on, and a CSV for a
// spreadsheet. Both are written into DEST/NAME beside the hash list; hash
// lists and later checks leave them out by their name.
//
// Pure functions of the report; callable from any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "files/offload/Offload.h"

namespace kd {

// The pattern (in the hash lists' notation) that report files match.
inline constexpr std::string_view kTransferReportPattern = "offload-report_*";

// "offload-report_<NAME>_<YYYY-MM-DD_HHMMSSZ>.<extension>", from the run's start.
std::string transferReportName(const OffloadReport& report, std::string_view extension);

// The report as seen from destination number `destination` of the run.
std::string transferReportHtml(const OffloadReport& report, std::size_t destination);
std::string transferReportCsv(const OffloadReport& report, std::size_t destination);

}  // namespace kd
