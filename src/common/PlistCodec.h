// The two property-list forms, read and written by our own code rather than a
// library: the readers must refuse deep nesting before any recursion, read
// strings and keys with their lengths (NUL bytes included) and keep 64-bit
// dates and unsigned integers, which the library on our platforms cannot all
// do. Internal to PropertyList.cpp; stateless, callable from any thread.
#pragma once

#include <string>
#include <string_view>

#include "common/PropertyList.h"

namespace kd::plist {

// Each reader gives the root value, or false with a short reason.
bool readXml(std::string_view bytes, PlistValue& root, std::string& reason);
bool readBinary(std::string_view bytes, PlistValue& root, std::string& reason);

// Each writer appends the whole file to `out`, or gives false with a reason.
bool writeXml(const PlistDict& root, std::string& out, std::string& error);
bool writeBinary(const PlistDict& root, std::string& out, std::string& error);

// Seconds between 1970-01-01 and the property-list reference date 2001-01-01.
inline constexpr long long kReferenceSince1970 = 978307200;

// A date value for seconds since the reference date: a PlistDate when it holds
// the value exactly, else a PlistStoredDate.
PlistValue dateValue(double sinceReference);
// Seconds since the reference date of a PlistDate.
double sinceReference(PlistDate date);

}  // namespace kd::plist
