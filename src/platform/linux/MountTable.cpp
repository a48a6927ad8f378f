#include "platform/linux/MountTable.h"

#include <libmount/libmount.h>
#include <stdio.h>

#include <memory>

namespace kd {

namespace {

using Table = std::unique_ptr<libmnt_table, void (*)(libmnt_table*)>;

std::vector<MountEntry> entriesOf(libmnt_table* table) {
  std::vector<MountEntry> out;
  std::unique_ptr<libmnt_iter, void (*)(libmnt_iter*)> iter(mnt_new_iter(MNT_ITER_FORWARD),
                                                            mnt_free_iter);
  libmnt_fs* fs = nullptr;
  while (iter && mnt_table_next_fs(table, iter.get(), &fs) == 0) {
    const char* target = mnt_fs_get_target(fs);
    const char* type = mnt_fs_get_fstype(fs);
    const char* source = mnt_fs_get_source(fs);
    out.push_back({mnt_fs_get_id(fs), target ? target : "", type ? type : "", mnt_fs_get_devno(fs),
                   source ? source : ""});
  }
  return out;
}

}  // namespace

std::vector<MountEntry> readMountTable() {
  Table table(mnt_new_table(), mnt_unref_table);
  if (!table || mnt_table_parse_file(table.get(), "/proc/self/mountinfo") != 0) return {};
  return entriesOf(table.get());
}

std::vector<MountEntry> parseMountTable(std::string_view mountinfo) {
  if (mountinfo.empty()) return {};
  // libmount reads streams: a memory stream over a copy of the text.
  std::string text(mountinfo);
  std::unique_ptr<FILE, int (*)(FILE*)> stream(::fmemopen(text.data(), text.size(), "r"), ::fclose);
  Table table(mnt_new_table(), mnt_unref_table);
  if (!stream || !table || mnt_table_parse_stream(table.get(), stream.get(), "mountinfo") != 0)
    return {};
  return entriesOf(table.get());
}

}  // namespace kd
