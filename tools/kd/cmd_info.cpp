// kd info: the disk information of a mounted volume.
#include <limits.h>
#include <stdlib.h>

#include <cstdio>
#include <iostream>
#include <string>

#include "Commands.h"
#include "Output.h"
#include "common/DateText.h"
#include "common/PropertyList.h"
#include "files/KdFileManager.h"

namespace {

// A value as JSON; `plain` gives strings without quotes (the Key: value form).
std::string valueText(const kd::PlistValue& v, bool plain) {
  if (auto s = v.get<std::string>()) return plain ? *s : kd::tool::jsonString(*s);
  if (auto i = v.get<std::int64_t>()) return std::to_string(*i);
  if (auto d = v.get<double>()) {
    char text[64];
    std::snprintf(text, sizeof text, "%.17g", *d);
    return text;
  }
  if (auto b = v.get<bool>()) return *b ? "true" : "false";
  if (auto t = v.get<kd::PlistDate>()) {
    std::string date = kd::dateDescription(*t);
    return plain ? date : kd::tool::jsonString(date);
  }
  if (auto a = v.get<kd::PlistArray>()) {
    std::string out = "[";
    for (std::size_t i = 0; i < a->size(); ++i) out += (i ? ", " : "") + valueText((*a)[i], false);
    return out + "]";
  }
  if (auto m = v.get<kd::PlistDict>()) {
    std::string out = "{";
    bool first = true;
    for (const auto& [k, item] : *m) {
      out += (first ? "" : ", ") + kd::tool::jsonString(k) + ": " + valueText(item, false);
      first = false;
    }
    return out + "}";
  }
  return plain ? "" : "null";  // data: not shown
}

void setupInfo(CLI::App& app) {
  auto* cmd = app.add_subcommand("info", "Print the disk information of a mounted volume");
  static std::string mountPoint;
  static bool json = false, plist = false;
  cmd->add_option("MOUNTPOINT", mountPoint, "Folder where the volume is mounted")->required();
  auto* j = cmd->add_flag("--json", json, "Print a JSON object");
  cmd->add_flag("--plist", plist, "Print an XML property list")->excludes(j);
  cmd->footer(
      "Prints one \"Key: value\" line per fact (VolumeName, FilesystemType,\n"
      "FilesystemName, TotalSize, FreeSpace, DeviceNode, MountPoint, Removable,\n"
      "Ejectable, VolumeUUID, Internal, BlockSize, WritableVolume; sizes in bytes),\n"
      "or the same as JSON or as a property list. Exits 1 when nothing is mounted\n"
      "exactly at MOUNTPOINT.");
  cmd->callback([] {
    // "." or "../CARD" name a mount point too.
    char resolved[PATH_MAX];
    auto info = KdFileManager::infoForDiskAtMountpoint(
        ::realpath(mountPoint.c_str(), resolved) ? std::string(resolved) : mountPoint);
    if (!info) {
      std::cerr << "kd info: " << mountPoint << ": nothing is mounted there" << std::endl;
      kd::tool::exitWith(1);
    }
    if (plist) {
      std::cout << kd::plistDictionaryToXml(*info);
    } else if (json) {
      std::cout << valueText(kd::PlistValue(*info), false) << '\n';
    } else {
      for (const auto& [key, value] : *info)
        std::cout << key << ": " << valueText(value, true) << '\n';
    }
    std::cout.flush();
  });
}

}  // namespace
KD_COMMAND(setupInfo);
