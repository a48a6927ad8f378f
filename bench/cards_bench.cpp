// Card detection and wildcard expansion on large folder trees. The trees are
// built once per process in a temporary folder and removed at exit.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include <benchmark/benchmark.h>

#include "files/KdFileManager.h"
#include "files/WildcardSearch.h"
#include "helper/FerrimoVolumeChecker.h"

namespace {

constexpr int kRootEntries = 10000;
constexpr int kDcimFolders = 2000;
constexpr int kFanOut = 8;  // per level of the deep tree
constexpr int kDepth = 4;

void makeFile(const std::string& path) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd >= 0) ::close(fd);
}

// A temporary folder holding every tree, removed when the program ends.
class Trees {
 public:
  Trees() {
    char templ[] = "/tmp/kdbench-XXXXXX";
    if (::mkdtemp(templ)) root_ = templ;
  }
  ~Trees() {
    std::error_code ec;
    std::filesystem::remove_all(root_, ec);
  }
  const std::string& root() const { return root_; }

 private:
  std::string root_;
};

Trees& trees() {
  static Trees t;
  return t;
}

// A card with kRootEntries root entries (DCIM among them) and kDcimFolders
// folders in DCIM, none of which is a known layout: every test runs.
std::string largeCard(const std::string& name) {
  const std::string card = trees().root() + "/" + name;
  if (::mkdir(card.c_str(), 0755) != 0) return card;  // already built
  ::mkdir((card + "/DCIM").c_str(), 0755);
  for (int i = 0; i < kDcimFolders; ++i)
    ::mkdir((card + "/DCIM/" + std::to_string(100 + i) + "MEDIA").c_str(), 0755);
  for (int i = 1; i < kRootEntries; ++i) {
    char entry[32];
    std::snprintf(entry, sizeof entry, "/C%05d.DAT", i);
    if (i % 10 == 0)
      ::mkdir((card + entry).c_str(), 0755);
    else
      makeFile(card + entry);
  }
  return card;
}

void fillTree(const std::string& folder, int depth) {
  if (depth == 0) {
    makeFile(folder + "/clip.MXF");
    makeFile(folder + "/clip.xml");
    return;
  }
  for (int i = 0; i < kFanOut; ++i) {
    const std::string sub = folder + "/D" + std::to_string(i);
    ::mkdir(sub.c_str(), 0755);
    fillTree(sub, depth - 1);
  }
}

std::string deepTree() {
  const std::string top = trees().root() + "/deep";
  if (::mkdir(top.c_str(), 0755) == 0) fillTree(top, kDepth);
  return top;
}

void BM_VerifyVolumeType_LargeCard(benchmark::State& state, const char* name) {
  const std::string card = largeCard(name);
  for (auto _ : state) benchmark::DoNotOptimize(FerrimoVolumeChecker::verifyVolumeType(card));
  state.counters["root_entries"] = kRootEntries;
  state.counters["dcim_folders"] = kDcimFolders;
}
// Tests 0 to 8; and with a "DJI_" name test 9's expansion as well.
BENCHMARK_CAPTURE(BM_VerifyVolumeType_LargeCard, unknown, "CARD")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_VerifyVolumeType_LargeCard, unknown_dji_name, "DJI_CARD")
    ->Unit(benchmark::kMillisecond);

// A card whose CONTENTS holds 400 links back to itself ("CLIPSn -> .") and
// no clips: test 7's pattern must not cost the cube of the link count.
std::string loopCard() {
  const std::string card = trees().root() + "/LOOPS";
  if (::mkdir(card.c_str(), 0755) != 0) return card;
  ::mkdir((card + "/CONTENTS").c_str(), 0755);
  for (int i = 0; i < 400; ++i)
    (void)::symlink(".", (card + "/CONTENTS/CLIPS" + std::to_string(1000 + i)).c_str());
  return card;
}

void BM_VerifyVolumeType_LinkLoops(benchmark::State& state) {
  const std::string card = loopCard();
  for (auto _ : state) benchmark::DoNotOptimize(FerrimoVolumeChecker::verifyVolumeType(card));
  state.counters["links"] = 400;
}
BENCHMARK(BM_VerifyVolumeType_LinkLoops)->Unit(benchmark::kMillisecond);

// The yardstick for the large card: one plain listing of its root (names and
// types, as the detector reads them).
void BM_PlainRootListing(benchmark::State& state) {
  const std::string card = largeCard("CARD");
  for (auto _ : state) {
    kd::WildcardSearch listing;
    benchmark::DoNotOptimize(listing.list(card).size());
  }
  state.counters["root_entries"] = kRootEntries;
}
BENCHMARK(BM_PlainRootListing)->Unit(benchmark::kMillisecond);

// A literal level in the middle costs one lookup per candidate.
void BM_WildcardDeepPattern(benchmark::State& state) {
  const std::string pattern = deepTree() + "/*/*/D3/*/*.MXF";
  std::size_t matches = 0;
  for (auto _ : state) {
    matches = KdFileManager::filesMatchingWildcardPath(pattern).size();
    benchmark::DoNotOptimize(matches);
  }
  state.counters["matches"] = static_cast<double>(matches);
}
BENCHMARK(BM_WildcardDeepPattern)->Unit(benchmark::kMillisecond);

void BM_WildcardDeepAllLevels(benchmark::State& state) {
  const std::string pattern = deepTree() + "/*/*/*/*/*.MXF";
  std::size_t matches = 0;
  for (auto _ : state) {
    matches = KdFileManager::filesMatchingWildcardPath(pattern).size();
    benchmark::DoNotOptimize(matches);
  }
  state.counters["matches"] = static_cast<double>(matches);
}
BENCHMARK(BM_WildcardDeepAllLevels)->Unit(benchmark::kMillisecond);

// Many stars against a long name that almost matches: no blow-up.
void BM_NameMatchManyStars(benchmark::State& state) {
  const std::string name(static_cast<std::size_t>(state.range(0)), 'a');
  const std::string pattern = "*a*a*a*a*a*a*a*a*a*a*b";
  for (auto _ : state) benchmark::DoNotOptimize(KdFileManager::nameMatchesWildcard(name, pattern));
  state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_NameMatchManyStars)->RangeMultiplier(4)->Range(16, 1024)->Complexity();

}  // namespace

BENCHMARK_MAIN();
