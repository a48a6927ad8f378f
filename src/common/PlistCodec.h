// The two property-list forms, read and written by our own code rather than a
// library: the readers must refuse deep nesting before any recursion, read
// strings and keys with their lengths (NUL bytes included) and keep 64-bit
// dates and unsigned integers, which the library on our platforms cannot all
// do. Internal to PropertyList.cpp and SettingsFile.cpp; stateless, callable
// from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "common/Error.h"
#include "common/FileOwner.h"
#include "common/PropertyList.h"

namespace kd::plist {

// Each reader gives the root value, or a short reason (without a code).
Result<PlistValue> readXml(std::string_view bytes);
Result<PlistValue> readBinary(std::string_view bytes);

// Each writer gives the whole file, or a short reason (without a code).
Result<std::string> writeXml(const PlistDict& root);
Result<std::string> writeBinary(const PlistDict& root);
// The writer of `format`.
Result<std::string> write(const PlistDict& root, PlistFormat format);
// Writes the file atomically (writeFileAtomically); a dictionary the form
// cannot carry fails with "cannot write <path>: <reason>".
Result<void> writeFile(const PlistDict& root, const std::string& path, PlistFormat format,
                       const std::optional<FileOwner>& owner);

// Seconds between 1970-01-01 and the property-list reference date 2001-01-01.
inline constexpr long long kReferenceSince1970 = 978307200;

// A date value for seconds since the reference date: a PlistDate when it holds
// the value exactly, else a PlistStoredDate.
PlistValue dateValue(double sinceReference);
// Seconds since the reference date of a PlistDate.
double sinceReference(PlistDate date);

}  // namespace kd::plist
