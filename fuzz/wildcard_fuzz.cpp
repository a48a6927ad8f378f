// The wildcard name matcher against a plain reference: "*" any run of
// characters, "?" one UTF-8 character, everything else itself. For valid UTF-8
// the matcher's answer must equal the reference's; for any bytes it must
// answer without fault (what a "character" is in broken UTF-8 is a matter of
// convention, and the matcher's greedy scan and the reference may differ).
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "common/Utf8.h"
#include "files/KdFileManager.h"

namespace {

// One character: a UTF-8 lead byte with its continuation bytes (at most three).
std::size_t next(std::string_view s, std::size_t i) {
  const auto lead = static_cast<unsigned char>(s[i++]);
  if (lead < 0xC0) return i;
  for (int k = 0; k < 3 && i < s.size() && (static_cast<unsigned char>(s[i]) & 0xC0) == 0x80; ++k)
    ++i;
  return i;
}

// Dynamic programming over (name position, pattern position). "*" may stop
// only at character boundaries, as the matcher's does.
bool reference(std::string_view name, std::string_view pattern) {
  const std::size_t n = name.size(), p = pattern.size();
  std::vector<std::vector<char>> memo(n + 1, std::vector<char>(p + 1, -1));
  auto match = [&](auto& self, std::size_t i, std::size_t j) -> bool {
    char& m = memo[i][j];
    if (m >= 0) return m;
    bool r;
    if (j == p) {
      r = i == n;
    } else if (pattern[j] == '*') {
      r = self(self, i, j + 1) || (i < n && self(self, next(name, i), j));
    } else if (i == n) {
      r = false;
    } else if (pattern[j] == '?') {
      r = self(self, next(name, i), j + 1);
    } else {
      r = pattern[j] == name[i] && self(self, i + 1, j + 1);
    }
    return m = r;
  };
  return match(match, 0, 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::size_t split = input.find('\n');
  if (split == std::string_view::npos || input.size() > 512) return 0;
  const std::string_view pattern = input.substr(0, split), name = input.substr(split + 1);
  const bool match = KdFileManager::nameMatchesWildcard(name, pattern);
  if (!kd::utf8::isValid(name) || !kd::utf8::isValid(pattern)) return 0;
  if (match != reference(name, pattern)) std::abort();
  return 0;
}
