// Where kd writes: data (what a command answers) to standard output through
// std::cout; everything else, the library's own messages included, to standard
// error. A failed write of data is remembered and turned into "kd: write error"
// and exit status 1 when the command ends.
//
// Commands write their data with std::cout (or `record` for listings), never
// with printf or to file descriptor 1: after `separateDataFromMessages`, file
// descriptor 1 is standard error.
//
// Ownership: one data buffer for the process, made by separateDataFromMessages
// and never destroyed. Threads: main thread only (kd runs one command).
#pragma once

#include <CLI/CLI.hpp>

#include <string>
#include <string_view>

namespace kd::tool {

// Points std::cout at the process's standard output and file descriptor 1
// (and so C's stdout and anything the library prints there) at standard
// error. Call once, first thing in main.
void separateDataFromMessages();

// Flushes the data. False, after printing "kd: write error" on standard
// error, when any data could not be written.
bool finishData();

// Adds -z/--null to a listing command: its records then end with a NUL
// instead of a line end, for names that hold line ends.
void addNullOption(CLI::App* command);

// Writes one record of a listing: the text and its end (line end or NUL).
void record(std::string_view text);

// `text` as a JSON string, quoted; bytes that are not UTF-8 become U+FFFD.
std::string jsonString(std::string_view text);

}  // namespace kd::tool
