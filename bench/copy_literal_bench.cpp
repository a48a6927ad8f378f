// The verified copy as a plain single-threaded loop, for comparison with
// `kd copy`: 64 KiB chunks read with stdio, written to each destination
// through an unbuffered stream, the position moved back, the chunk read back
// and digested (SHA-256, the library's digest contexts), one destination after
// the other. Prints the digests like sha256sum.
//
// Usage: kd_copy_literal_bench SOURCE DEST...
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "files/KdFileManager.h"

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s SOURCE DEST...\n", argv[0]);
    return 2;
  }
  constexpr std::size_t kChunk = 65536;
  FILE* source = std::fopen(argv[1], "rb");
  if (source == nullptr) return 1;
  std::vector<FILE*> dests;
  std::vector<KdSHA256Context> digests(static_cast<std::size_t>(argc - 2));
  for (int i = 2; i < argc; ++i) {
    FILE* f = std::fopen(argv[i], "w+");
    if (f == nullptr) return 1;
    std::setvbuf(f, nullptr, _IONBF, 0);
    dests.push_back(f);
  }
  KdSHA256Context sourceDigest;
  auto buffer = std::make_unique<unsigned char[]>(kChunk);
  auto readBack = std::make_unique<unsigned char[]>(kChunk);
  unsigned long long total = 0;
  for (;;) {
    const std::size_t n = std::fread(buffer.get(), 1, kChunk, source);
    if (n == 0) {
      if (std::ferror(source)) return 1;
      break;
    }
    sourceDigest.update(buffer.get(), n);
    for (std::size_t d = 0; d < dests.size(); ++d) {
      if (std::fwrite(buffer.get(), 1, n, dests[d]) < n) std::fprintf(stderr, "short write\n");
      if (std::fseek(dests[d], static_cast<long>(total), SEEK_SET) != 0) return 1;
      const std::size_t got = std::fread(readBack.get(), 1, n, dests[d]);
      digests[d].update(readBack.get(), got);
    }
    total += n;
    if (std::feof(source)) break;
  }
  std::fclose(source);
  int status = 0;
  for (FILE* f : dests)
    if (std::fclose(f) != 0) status = 1;
  std::printf("%s  %s\n", KdFileManager::sha256HashWithContext(sourceDigest)->c_str(), argv[1]);
  for (std::size_t d = 0; d < dests.size(); ++d)
    std::printf("%s  %s\n", KdFileManager::sha256HashWithContext(digests[d])->c_str(), argv[d + 2]);
  return status;
}
