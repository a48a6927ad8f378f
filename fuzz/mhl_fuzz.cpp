// ASC MHL readers: any bytes are read as a manifest and as a chain; each either
// parses or is refused with a reason, and whatever parses is written and read
// back to the same entries (a manifest's hashes compared as a set of files and
// formats, since the writer groups one file's formats into one <hash>; its
// directory and root hashes as they are).
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "files/mhl/MhlManifest.h"

namespace {

void sortHashes(std::vector<kd::MhlHash>& hashes) {
  std::sort(hashes.begin(), hashes.end(), [](const kd::MhlHash& a, const kd::MhlHash& b) {
    return std::tie(a.path, a.format) < std::tie(b.path, b.format);
  });
}

void manifest(std::string_view bytes) {
  kd::MhlManifest read;
  std::string error;
  if (!kd::parseMhlManifest(bytes, read, error)) {
    if (error.empty()) std::abort();
    return;
  }
  auto written = kd::writeMhlManifest(read, error);
  if (!written) std::abort();  // what reads can be written
  kd::MhlManifest again;
  if (!kd::parseMhlManifest(*written, again, error)) std::abort();
  sortHashes(read.hashes);
  sortHashes(again.hashes);
  if (!(again.creator == read.creator) || again.process != read.process ||
      again.ignorePatterns != read.ignorePatterns || again.hashes != read.hashes ||
      again.directoryHashes != read.directoryHashes)
    std::abort();
}

void chain(std::string_view bytes) {
  std::vector<kd::MhlChainEntry> read;
  std::string error;
  if (!kd::parseMhlChain(bytes, read, error)) {
    if (error.empty()) std::abort();
    return;
  }
  auto written = kd::writeMhlChain(read, error);
  if (!written) std::abort();
  std::vector<kd::MhlChainEntry> again;
  if (!kd::parseMhlChain(*written, again, error) || again != read) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  manifest(bytes);
  chain(bytes);
  return 0;
}
