// A settings file shared between programs (the helper and Ferrimo write the
// same file): read, changed and written back without ever losing what it held.
//
//   - A missing file starts empty.
//   - A file that is there but cannot be read (permissions, an I/O error, a
//     pipe or a folder in its place, or a link where links are refused) is
//     left exactly as it is, and nothing is written over it.
//   - A damaged file (it does not parse) is kept beside the original as
//     "<name>.damaged-<UTC stamp>" before a fresh one is written.
//   - A file is written back in the form it was read in (XML or binary).
//
// Stateless functions; callable from any thread. Two writers of one file race
// as two programs writing one file always do: the last rename wins.
#pragma once

#include "../KdExport.h"

#include <optional>
#include <string>

#include "FileOwner.h"
#include "PropertyList.h"

namespace kd {

struct Settings {
  PlistDict dict;
  PlistFormat format = PlistFormat::Xml;
  // False when the file must be left alone (it could not be read).
  bool writable = true;
  // What the caller should log about the file; empty when all was well.
  std::string message;
};

// Reads the settings file at `path`; a damaged file is moved aside here. With
// `followLinks` false (a root process reading a user's file) a link at the
// path counts as unreadable.
KD_EXPORT Settings loadSettings(const std::string& path, bool followLinks = true);

// Writes `settings` back to `path` in its form, atomically, with `owner`. A
// dictionary the XML form cannot carry (text with control characters) is
// written in the binary form instead of being refused. False, with the reason
// in `error`, when the settings are not writable or the write failed.
KD_EXPORT bool saveSettings(const Settings& settings, const std::string& path,
                            const std::optional<FileOwner>& owner, std::string* error = nullptr);

}  // namespace kd
