#include "platform/linux/MountTable.h"

#include <libmount/libmount.h>

#include <memory>

namespace kd {

std::vector<MountEntry> readMountTable() {
  std::vector<MountEntry> out;
  std::unique_ptr<libmnt_table, void (*)(libmnt_table*)> table(mnt_new_table(), mnt_unref_table);
  if (!table || mnt_table_parse_file(table.get(), "/proc/self/mountinfo") != 0) return out;
  std::unique_ptr<libmnt_iter, void (*)(libmnt_iter*)> iter(mnt_new_iter(MNT_ITER_FORWARD),
                                                            mnt_free_iter);
  libmnt_fs* fs = nullptr;
  while (iter && mnt_table_next_fs(table.get(), iter.get(), &fs) == 0) {
    const char* target = mnt_fs_get_target(fs);
    const char* type = mnt_fs_get_fstype(fs);
    out.push_back(
        {mnt_fs_get_id(fs), target ? target : "", type ? type : "", mnt_fs_get_devno(fs)});
  }
  return out;
}

}  // namespace kd
