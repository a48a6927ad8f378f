// Per-file metadata that differs between systems: extended attributes,
// creation dates, the locked state, label numbers and open-file queries.
//
// One of the small service interfaces that `Platform::fileMetadata()` hands
// out. `ForwardingFileMetadata` forwards every call so that a fake overrides
// only what it needs. Implementations are stateless and callable from any
// thread; errno-style results leave errno as the system set it.
#pragma once

#include "../KdExport.h"
#include "../common/Error.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kd {

using FileDate = std::chrono::system_clock::time_point;

// Names of the label numbers 1 to 7 (index 0, no label, has none).
inline constexpr std::array<std::string_view, 8> kLabelColourNames = {
    "", "grey", "green", "purple", "blue", "yellow", "red", "orange"};

class KD_EXPORT FileMetadata {
 public:
  virtual ~FileMetadata() = default;

  // --- Extended attributes (symbolic links followed) ------------------------
  // Names are those used on macOS ("com.apple.progress.fractionCompleted");
  // the platform maps them to its own name space.
  // As getxattr(2): the bytes copied, or the value's size when `buffer` is
  // null; -1 with errno set on failure.
  virtual std::int64_t getExtendedAttribute(const std::string& path, const std::string& name,
                                            void* buffer, std::size_t size) = 0;
  // 0 on success; -1 with errno set on failure.
  virtual int setExtendedAttribute(const std::string& path, const std::string& name,
                                   std::string_view value) = 0;
  virtual int removeExtendedAttribute(const std::string& path, const std::string& name) = 0;
  // The attribute names, mapped back to the names callers use; none when they
  // cannot be read.
  virtual std::optional<std::vector<std::string>> listExtendedAttributes(
      const std::string& path) = 0;

  // Copies every extended attribute of the open item `from` that a copy
  // carries (on Linux the "user." ones: labels, tags, the creation date set
  // by the library) to the open item `to`, replacing same-named ones there.
  // The names that could not be kept (the destination's file system holds no
  // attributes, or none that large), as callers name them; empty when all
  // were kept or the source has none. Both descriptors stay the caller's.
  virtual std::vector<std::string> copyExtendedAttributes(int from, int to) = 0;

  // --- Creation date (of the item itself; links not followed) ---------------
  virtual std::optional<FileDate> creationDate(const std::string& path) = 0;
  // Sets the creation date. None takes back a date set earlier where the
  // platform keeps set dates apart from the file system's own; elsewhere it
  // fails.
  virtual Result<void> setCreationDate(const std::string& path, std::optional<FileDate> date) = 0;
  // The same for an open item.
  virtual Result<void> setCreationDateOf(int fd, FileDate date) = 0;

  // --- Locked (immutable) state of the item itself --------------------------
  virtual bool isLocked(const std::string& path) = 0;
  // Locks or unlocks; true when the item is in the asked state afterwards or
  // when the platform cannot lock items on that file system at all (nothing
  // to undo).
  virtual Result<void> setLocked(const std::string& path, bool locked) = 0;

  // --- Label numbers 0 (none) to 7 -----------------------------------------
  virtual int labelNumber(const std::string& path) = 0;
  virtual bool setLabelNumber(const std::string& path, int number) = 0;

  // --- Open files ------------------------------------------------------------
  // Whether any process holds the file (links followed) open for writing or
  // for reading and writing.
  virtual bool isOpenForWriting(const std::string& path) = 0;
};

class KD_EXPORT ForwardingFileMetadata : public FileMetadata {
 public:
  explicit ForwardingFileMetadata(FileMetadata& target) : target_(target) {}
  std::int64_t getExtendedAttribute(const std::string& path, const std::string& name, void* buffer,
                                    std::size_t size) override {
    return target_.getExtendedAttribute(path, name, buffer, size);
  }
  int setExtendedAttribute(const std::string& path, const std::string& name,
                           std::string_view value) override {
    return target_.setExtendedAttribute(path, name, value);
  }
  int removeExtendedAttribute(const std::string& path, const std::string& name) override {
    return target_.removeExtendedAttribute(path, name);
  }
  std::optional<std::vector<std::string>> listExtendedAttributes(const std::string& path) override {
    return target_.listExtendedAttributes(path);
  }
  std::vector<std::string> copyExtendedAttributes(int from, int to) override {
    return target_.copyExtendedAttributes(from, to);
  }
  std::optional<FileDate> creationDate(const std::string& path) override {
    return target_.creationDate(path);
  }
  using FileMetadata::setCreationDate;  // the adaptors too, beside the overrides
  using FileMetadata::setCreationDateOf;
  Result<void> setCreationDate(const std::string& path, std::optional<FileDate> date) override {
    return target_.setCreationDate(path, date);
  }
  Result<void> setCreationDateOf(int fd, FileDate date) override {
    return target_.setCreationDateOf(fd, date);
  }
  bool isLocked(const std::string& path) override { return target_.isLocked(path); }
  Result<void> setLocked(const std::string& path, bool locked) override {
    return target_.setLocked(path, locked);
  }
  int labelNumber(const std::string& path) override { return target_.labelNumber(path); }
  bool setLabelNumber(const std::string& path, int number) override {
    return target_.setLabelNumber(path, number);
  }
  bool isOpenForWriting(const std::string& path) override { return target_.isOpenForWriting(path); }

 protected:
  FileMetadata& target() { return target_; }

 private:
  FileMetadata& target_;
};

}  // namespace kd
