// KdFileManager: the library's file utilities.
//
// A class of static operations that hold no state of their own; each call works
// only with its arguments and the file system, so every operation may be called
// from any thread. Operations never throw: failures come back as empty, false
// or absent results. The implementation is split by concern into
// KdFileManager_<Concern>.cpp files.
#pragma once

#include "../KdExport.h"

#include <any>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "../common/PropertyList.h"
#include "../common/UniqueFd.h"
#include "KdDelegates.h"
#include "KdDigestContext.h"

class KD_EXPORT KdFileManager {
 public:
  KdFileManager() = delete;

  // ===================================================================
  // Wildcard path matching (KdFileManager_Wildcard.cpp)
  //
  // A pattern is a path whose components may hold "*" (any run of characters,
  // including none and a leading ".") and "?" (exactly one character). It is
  // expanded level by level: a component with "*" lists each candidate folder
  // once (hidden entries included, in the file system's order); any other
  // component is joined to each candidate and kept when something exists
  // there. Existence follows symbolic links, so a dangling link does not
  // exist. Folders that cannot be listed contribute nothing.
  // ===================================================================

  // The existing paths that match `pattern`, parents in the order found and
  // entries in listing order; nothing is sorted and duplicates stay. A pattern
  // without "*" is returned joined to `basePath` (or as is when there is no
  // base) without touching the file system, even when it holds "?". An
  // absolute pattern is taken relative to `basePath` when one is given; with
  // no base, the search starts at "/". `searchSubdirs` is accepted and
  // ignored: matching never goes deeper than the pattern's own components.
  static std::vector<std::string> filesMatchingWildcardPath(
      const std::string& pattern, const std::optional<std::string>& basePath = std::nullopt,
      bool searchSubdirs = false);

  // The first match of `pattern` below `basePath`; when nothing matches, the
  // base joined with the pattern as a path component (absent without a base).
  static std::optional<std::string> decodeWildcardPath(const std::string& pattern,
                                                       const std::optional<std::string>& basePath);

  // Whether one file name matches one pattern component: "*" matches any run
  // of characters (none, or a leading "."), "?" exactly one character (one
  // UTF-8 sequence), everything else itself, case-sensitively. Takes time
  // proportional to the product of the lengths at worst, never exponential.
  static bool nameMatchesWildcard(std::string_view name, std::string_view pattern);

  // ===================================================================
  // File operations with privilege fallback (KdFileManager_Operations*.cpp,
  // KdFileManager_Trash.cpp, KdFileManager_Archive.cpp)
  //
  // Each operation first tries the ordinary way, as the process's own user.
  // Where that fails for lack of rights (a permission error or a locked item)
  // and `shouldAuth` allows it, the matching privileged command of the shared
  // KdAuthorization runs instead (which may ask for a password); any other
  // failure (a destination that exists, a full disk, a missing source) is
  // final and asks for nothing. Nothing is ever replaced: a copy or move onto
  // an existing destination fails. Messages go to the application log (see
  // docs/files.md). The timeout forms poll every 0.3 s until what they waited
  // for is visible; a timeout of 0 looks once.
  // ===================================================================

  // Moves the item to the desktop trash: the home trash, or the trash of the
  // item's own volume; never copied across volumes. A missing path counts as
  // trashed.
  static bool trashFile(const std::string& path, bool shouldAuth = true);
  // Trashes each entry of the folder (not recursive), going on after
  // failures; true when none failed. A missing folder counts as empty; one
  // that cannot be listed fails.
  static bool trashDirectoryContents(const std::string& folder, bool shouldAuth = true);
  // Trashes every file below `folder` whose extension is `type` (any case),
  // never following links below the folder; the paths it trashed.
  static std::vector<std::string> trashFilesOfType(const std::string& type,
                                                   const std::string& folder);
  // As above for entries named exactly `name`.
  static std::vector<std::string> trashFilesNamed(const std::string& name,
                                                  const std::string& folder);

  // Removes the item and everything below it (links removed, never followed).
  // A missing path counts as removed.
  static bool removeFile(const std::string& path, bool shouldAuth = true);
  // Creates the folder and its missing parents; refused for a path under an
  // unmounted volume (see isDriveMountedForPath).
  static bool createDirectory(const std::string& path, bool shouldAuth = true);
  // Copies a file or a folder (links kept as links, permissions and
  // modification times kept) to a destination that must not exist. A partly
  // made copy never carries the destination's name.
  static bool copyFile(const std::optional<std::string>& source,
                       const std::optional<std::string>& toPath, bool shouldAuth = true);
  // Renames, or across file systems copies and then removes the source.
  // A change of letter case only goes through a free intermediate name.
  static bool moveFile(const std::string& source, const std::string& toPath,
                       bool shouldAuth = true);

  // Timeout forms: the operation, then a wait of up to `timeout` seconds for
  // its result to be visible; true only when both hold.
  static bool trashFile(const std::string& path, int timeout);
  static bool removeFile(const std::string& path, int timeout);
  static bool createDirectory(const std::string& path, int timeout);
  static bool copyFile(const std::optional<std::string>& source,
                       const std::optional<std::string>& toPath, int timeout);
  static bool moveFile(const std::string& source, const std::string& toPath, int timeout);
  // Copies each entry of the folder (not recursive) with the timeout form;
  // stops at the first failure.
  static bool copyContentsOfDirectory(const std::string& folder, const std::string& toPath,
                                      int timeout);

  // True for a missing folder and for one that holds nothing but ".DS_Store",
  // "Icon\r" and folders empty by the same rule; false for anything else,
  // including a folder that cannot be read and a link below it.
  static bool isFolderEmpty(const std::string& path);
  // Removes the folder when isFolderEmpty says so.
  static bool removeFolderIfEmpty(const std::string& path);
  // The folder below `destination` that mirrors `path` (its folder, or the
  // path itself for a folder that is no package); created when missing.
  static std::string createDirectoryStructure(const std::string& path,
                                              const std::string& destination);
  // Creates an empty file at the path, which must be free.
  static bool createEmptyFile(const std::string& path);

  // Writes a zip archive of a file or folder (UTF-8 names, permissions,
  // modification times, links as links); with `includeParent` the folder
  // itself is the top entry. An existing archive is trashed first. True only
  // when the whole archive was written.
  static bool compressFile(const std::string& source, const std::string& toDestinationFile,
                           bool includeParent = true);
  // Extracts a zip or tar archive into `toDestinationFolder`, through a
  // temporary folder beside it that takes the name only when everything was
  // extracted. Entries that would land outside (absolute paths, "..", links
  // leading out, writing through a link) make it fail with nothing written.
  // An existing folder of that name is trashed first.
  static bool decompressFile(const std::string& archive, const std::string& toDestinationFolder);

  // Why the last of the operations above failed on this thread (the system's
  // error text, or a short description), and whether it was for lack of
  // rights: what a caller needs to decide about asking for a password.
  static std::string lastFailureReason();
  static bool lastFailureNeedsRights();
  // The extended attributes that the last copy or move on this thread could
  // not keep because the destination's file system holds none, each as
  // "<item>: <name>, <name>"; the operation itself still succeeded.
  static std::vector<std::string> lastAttributesNotKept();

  // ===================================================================
  // Hashing (KdFileManager_Hash.cpp)
  //
  // Digest text is lowercase hexadecimal, two digits a byte, no separators.
  // The whole-file hashes read the file in 64 KiB chunks on the caller's
  // thread and block it until the end. With a delegate that responds to
  // checksumShouldContinue, each time the bytes read so far reach an exact
  // multiple of 50 MiB the delegate is asked, on a kd::WorkQueue thread and
  // without waiting for the answer, whether to go on; a false answer stops the
  // hash within a chunk or so. A read shorter than 64 KiB (a pipe) moves the
  // count off those multiples, usually for good. Failures return nothing:
  //   can't open    system log "Error: Unable to open destination file <path>.
  //                 Aborting hash verification..."
  //   no memory     application log and stdout "Error reading file <path> - out of memory"
  //   read error    application log and stdout "Error reading file <path> - aborting..."
  //   stopped       no message
  // No partial digest is ever returned and the file is closed on every path.
  // ===================================================================

  // The digest of what `context` was fed, finalised on a copy so that the
  // caller's context stays usable. Absent only for a failed context.
  static std::optional<std::string> md5HashWithContext(KdMD5Context context);
  static std::optional<std::string> sha1HashWithContext(KdSHA1Context context);
  static std::optional<std::string> sha256HashWithContext(KdSHA256Context context);
  static std::optional<std::string> sha512HashWithContext(KdSHA512Context context);

  // The digest text of the file at `path`, or nothing on failure or when the
  // delegate stopped it.
  static std::optional<std::string> md5HashForFile(
      const std::string& path, std::shared_ptr<const KdChecksumDelegate> delegate = nullptr);
  static std::optional<std::string> sha1HashForFile(
      const std::string& path, std::shared_ptr<const KdChecksumDelegate> delegate = nullptr);
  static std::optional<std::string> sha512HashForFile(
      const std::string& path, std::shared_ptr<const KdChecksumDelegate> delegate = nullptr);

  // ===================================================================
  // Verified copy to several destinations (KdFileManager_Copy*.cpp)
  //
  // One pass over the source writes every destination; with verification on,
  // what was written is read back from each destination and compared byte for
  // byte with the source's bytes as read, and the source is digested once.
  // The source is read, the destinations written, read back and compared,
  // and the digests fed on separate threads through a ring of a few MiB, so
  // memory stays bounded whatever the file's size; the caller's thread blocks
  // until the end. Progress is counted in 64 KiB chunks: a step each time the bytes
  // copied grow by the larger of a thousandth of the source's size and
  // 20 MiB, and a final report. See docs/copy.md for the messages.
  //
  // A destination that is the source itself, or that is named twice, is
  // refused before anything is opened; a destination that is a symbolic link
  // or not a regular file is refused too (nothing is written through it). A
  // named destination that exists is truncated and written in place. Each
  // destination is flushed to its device and closed, and counts as written
  // only when every write, the flush and the close succeeded. A destination
  // counts as verified only when it was written and every byte read back
  // equals the source's, with nothing past the end.
  // ===================================================================

  // A running digest that the copy feeds, one per source and destination.
  // Not thread-safe: each is fed by one thread at a time.
  class CopyDigester {
   public:
    virtual ~CopyDigester() = default;
    virtual void update(const void* data, std::size_t length) = 0;
    // The digest text of what was fed; absent when the digest failed.
    virtual std::optional<std::string> text() const = 0;
  };
  // A kind of digest for the copy: a name ("sha256") and a maker of running
  // digests. An empty maker means no verification.
  struct CopyDigest {
    std::string name;
    std::function<std::unique_ptr<CopyDigester>()> make;
  };
  // The digests of verification types 1 to 4 (MD5, SHA-1, SHA-256, SHA-512),
  // type 0 (none); absent for any other type.
  static std::optional<CopyDigest> copyDigestForVerificationType(int verificationType);
  // A digest kind by name: "none", "md5", "sha1", "sha256", "sha512", and the
  // xxHash kinds "xxh64", "xxh3" (XXH3, 64 bits) and "xxh128", whose text is
  // the canonical big-endian value in lowercase hexadecimal (16, 16 and 32
  // digits). Absent for any other name.
  static std::optional<CopyDigest> copyDigestNamed(std::string_view name);

  // What became of one destination.
  struct CopyOutcome {
    std::string path;
    // Every write, the flush to the device and the close succeeded, and the
    // path still led to the file written when it was closed.
    bool written = false;
    // The copy's digest: the source's when every byte read back equals it;
    // otherwise the digest of what the copy holds, read once more (absent
    // when it cannot be read). Absent without verification.
    std::optional<std::string> digest;
    // Written, and with verification its digest equals the source's.
    bool verified = false;
    // Why it failed, in words; empty when it did not.
    std::string failure;
    // The system's error number of a failed write or flush; 0 otherwise.
    int error = 0;
    // The source's extended attributes that the destination could not take
    // (its file system holds none, or not that many); the copy still counts.
    std::vector<std::string> attributesNotKept;
  };
  // The whole copy: `completed` is the result of the boolean operations.
  struct CopyResult {
    bool completed = false;
    std::uint64_t bytesCopied = 0;
    std::optional<std::string> sourceDigest;
    // The source's digests in the further kinds asked for, in their order;
    // absent where a digest failed.
    std::vector<std::optional<std::string>> moreSourceDigests;
    std::vector<CopyOutcome> destinations;  // in the order given
    KdCopySettings settings;                // as the delegate last saw them
    // Completed, and every destination written (and verified, with a digest).
    bool allGood() const;
  };

  // Copies `source` to `destination` without verification.
  static bool copyFileWithProgress(const std::string& source, const std::string& destination,
                                   std::shared_ptr<const KdFileCopyDelegate> delegate,
                                   std::any object, std::any object2 = {});
  // Copies `source` to every destination with verification type 0 to 4 (a
  // table in docs/copy.md); any other type is refused. True when the whole
  // source was read and written to every destination without a read error or
  // cancellation: a failed write or verification does not by itself make it
  // false. Those are told to the delegate and listed in the settings'
  // "failedDestinations".
  static bool copyFileWithProgress(const std::string& source,
                                   const std::vector<std::string>& destinations,
                                   int verificationType,
                                   std::shared_ptr<const KdFileCopyDelegate> delegate,
                                   std::any object = {}, std::any object2 = {});
  // A destination that the caller has opened itself: `fd`, a regular file
  // opened for reading and writing, is handed over (the copy closes it) and
  // written from its start; `name` is its name in the open folder `folder`
  // (the caller's), by which the copy checks at the end that the file still
  // has its name there. `path` stands for it in messages and the outcome.
  struct OpenDestination {
    std::string path;
    int folder = -1;
    std::string name;
    kd::UniqueFd fd;
  };
  // The same copy into destinations opened by the caller, so that a caller
  // working below an open folder never has a destination looked up by path:
  // no folders are made and nothing is opened by name. The source must be a
  // regular file. With `keepPermissions` the source's permission bits (read,
  // write, run; never set-id or sticky) go on every destination, as far as
  // its file system holds them. The source is also digested in every kind of
  // `moreDigests`, from the same read and each on a thread of its own (they
  // verify nothing; see `moreSourceDigests`).
  static CopyResult copyFileToOpenDestinations(
      const std::string& source, std::vector<OpenDestination> destinations,
      const CopyDigest& digest, std::shared_ptr<const KdFileCopyDelegate> delegate = nullptr,
      bool keepPermissions = false, const std::vector<CopyDigest>& moreDigests = {});
  // The same copy with any digest kind, telling each destination's outcome.
  static CopyResult copyFileWithOutcome(
      const std::string& source, const std::vector<std::string>& destinations,
      const CopyDigest& digest, std::shared_ptr<const KdFileCopyDelegate> delegate = nullptr,
      std::any object = {}, std::any object2 = {});

  // ===================================================================
  // File state, volumes and waiting (KdFileManager_State*.cpp)
  //
  // Questions about files and volumes, sizes and names as text, dates stamped
  // on files, and waits for files to appear or settle. Every query answers
  // false, 0 or nothing for a missing or unreadable item. The waits block the
  // calling thread.
  // ===================================================================

  using Date = std::chrono::system_clock::time_point;

  // Whether something exists at the path (symbolic links followed).
  static bool fileExistsAtPath(const std::string& path);
  // Whether the path is a folder (links followed); false when missing.
  static bool isDirectoryAtPath(const std::string& path);
  // Whether the path is a package folder (an application or other bundle).
  static bool isPackageAtPath(const std::string& path);
  // Whether the path is a symbolic link whose destination can be read.
  static bool isSymbolicLinkAtPath(const std::string& path);
  // The item's modification date (a link's own, not its target's).
  static std::optional<Date> modificationDateForFile(const std::string& path);
  // The item's creation date.
  static std::optional<Date> creationDateForFile(const std::string& path);
  // The bytes of a file, or of every file below a folder (links followed for
  // the path given only; below it a link counts as itself); 0 when missing.
  static std::uint64_t fileSize(const std::string& path);

  // Volume rules by path text (see docs/files.md). A path outside "/Volumes"
  // counts as mounted; one inside counts when its volume folder exists.
  static bool isVolumeMountedForPath(const std::string& path);
  // As above with the prefix "/Volumes/", so "/VolumesX/a" counts as outside;
  // and every drive folder of the platform on the way must be a mount point
  // (Volumes::isDriveFolderMounted).
  static bool isDriveMountedForPath(const std::string& path);
  // The innermost mounted local volume that holds the path (the longest mount
  // point); "/" for a path outside any volume, none for a path under
  // "/Volumes" whose volume is not mounted.
  static std::optional<std::string> volumeMountPointForPath(const std::string& path);
  // The disk information of the volume mounted at `mountPoint`; none when
  // nothing is mounted exactly there.
  static std::optional<kd::PlistDict> infoForDiskAtMountpoint(const std::string& mountPoint);
  // Whether some process has the file open for writing.
  static bool fileIsOpenForWriting(const std::string& path);

  // "1023 B", "1.00 KB", "1024.00 KB", "1.00 MB", ... (binary steps).
  static std::string formatFileSize(double size);
  // The name without a leading dot, surrounding blanks, "/" or ":"; never
  // "." or "..".
  static std::string validateFilename(const std::string& name);
  // The path when nothing exists there, else the first free "<name> N.<ext>"
  // counting from 2.
  static std::string uniqueFilename(const std::string& path);

  // Sets the item's modification date to now without creating it ("touch
  // -c"), and its creation date too when asked. Never creates a file.
  static bool touchFile(const std::optional<std::string>& path, bool setCreationDate = false);
  // Sets the item's modification date (a link's own); true on success.
  static bool setModificationDate(Date date, const std::string& forFile);

  // One look: returns when the file exists with a non-zero size; otherwise
  // logs that it waits and pauses 500 microseconds once. Callers loop.
  static void waitForFileCreation(const std::string& path, long timeout);
  // Waits until the file's modification date is more than 5 seconds old, or
  // the date has stayed the same for 5 seconds (a date in the future), or the
  // file has been missing for 5 seconds. Returns at once, silently, when the
  // date is already old and no existing lock file asks to wait.
  static void waitForFileWrites(const std::string& path,
                                const std::optional<std::string>& lockFile = std::nullopt);

  // ===================================================================
  // File metadata and desktop integration (KdFileManager_Metadata*.cpp)
  //
  // Extended attributes, the locked state, permissions, labels and their
  // colours, the progress shown on a file being written, and what the desktop
  // is told. No operation throws; failures are logged in fixed words.
  // ===================================================================

  // A reference to a file; here it carries the path.
  struct FSRef {
    std::string path;
  };
  // A label colour: hue, saturation, brightness and alpha, each 0 to 1.
  struct Color {
    double hue = 0, saturation = 0, brightness = 0, alpha = 1.0;
    bool operator==(const Color&) const = default;
  };

  // Tells file browsers that the contents at the path changed.
  static void notifyFileSystemChanged(const std::string& path);
  static FSRef stringToFSRef(const std::string& path);
  static std::string stringWithFSRef(const FSRef* ref);

  // Whether the item itself is locked; false when it cannot be read.
  static bool isFileLocked(const std::string& path);
  // Lock or unlock the item itself; a failure is logged.
  static void lockFile(const std::string& path);
  static void unlockFile(const std::string& path);
  // Lock or unlock every item below the folder (not the folder itself).
  // Links below the folder count as themselves and are never followed.
  static void lockFolder(const std::string& path);
  static void unlockFolder(const std::string& path);
  static void setPosixPermissions(unsigned permissions, const std::string& forFile);
  // States the intent; changes nothing.
  static void disableFileSystemCachingForFile(const std::string& path);

  // An extended attribute's value of at most 255 bytes of UTF-8; none when
  // missing, empty, longer or not text.
  static std::optional<std::string> metadataValueForKey(const std::string& key,
                                                        const std::string& file);
  static bool setMetadataValue(const std::string& value, const std::string& forKey,
                               const std::string& file);
  // Shows the progress (0 to 1) on a file being written, or clears it when
  // negative (see docs/files.md).
  static void setFinderProgress(float progress, const std::string& forFile);
  static void removeFinderProgressForFile(const std::string& path);
  static bool registerApplicationWithLaunchServices(const std::string& path);

  // Label numbers: 0 (none) to 7.
  static long finderColorIndexForPath(const std::string& path);
  static void setFinderColorIndex(long index, const std::optional<std::string>& forPath);
  // The colour of label 1 to 7; none for any other number.
  static std::optional<Color> finderColorForColorIndex(long index);
  static std::optional<Color> finderColorForPath(const std::string& path);
};
