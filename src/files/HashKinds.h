// The digest kinds an offload computes, as a user lists them: "xxh64" or
// "xxh64,md5". Every card file is read once and digested in every kind of
// the list; the first kind verifies the copies (the read-back, --reverify,
// --source-verify, a resumed run), and every kind is recorded.
//
// A plain value: copy it freely; callable from any thread.
#pragma once

#include "../KdExport.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kd {

class KD_EXPORT HashKinds {
 public:
  HashKinds() = default;
  // The list as written: names separated by commas, blanks around them
  // ignored. Nothing is refused here; problem() says what is wrong.
  HashKinds(std::string_view list);  // NOLINT(google-explicit-constructor): "xxh64" reads as one
  HashKinds(const char* list) : HashKinds(std::string_view(list)) {}
  HashKinds(const std::string& list) : HashKinds(std::string_view(list)) {}

  // The kinds in the order listed (an empty name where the list had one).
  const std::vector<std::string>& all() const { return kinds_; }
  std::size_t size() const { return kinds_.size(); }
  // The kind that verifies the copies: the first listed.
  const std::string& verifying() const;
  // The kinds after the first.
  std::vector<std::string> others() const;
  // The kinds joined with `separator`: "xxh64,md5", "xxh64, md5".
  std::string text(std::string_view separator = ",") const;

  // Why the list cannot be used (empty, an empty or unknown name, a kind
  // listed twice); nothing when every kind is one the copy computes.
  std::optional<std::string> problem() const;

  bool operator==(const HashKinds&) const = default;

 private:
  std::vector<std::string> kinds_;
};

}  // namespace kd
