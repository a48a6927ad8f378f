// The digest kinds of the verified copy: verification types 0 to 4 over the
// library's digest contexts and their digest-to-text operations.
#include <memory>

#include "files/KdFileManager.h"

namespace {

// A running digest over a typed context, turned into text by the matching
// digest-to-text operation.
template <class Context, std::optional<std::string> (*Text)(Context)>
class ContextDigester final : public KdFileManager::CopyDigester {
 public:
  void update(const void* data, std::size_t length) override { context_.update(data, length); }
  std::optional<std::string> text() const override { return Text(context_); }

 private:
  Context context_;
};

template <class Context, std::optional<std::string> (*Text)(Context)>
KdFileManager::CopyDigest kind(const char* name) {
  return {name, [] { return std::make_unique<ContextDigester<Context, Text>>(); }};
}

}  // namespace

std::optional<KdFileManager::CopyDigest> KdFileManager::copyDigestForVerificationType(
    int verificationType) {
  switch (verificationType) {
    case 0:
      return CopyDigest{"none", nullptr};
    case 1:
      return kind<KdMD5Context, &KdFileManager::md5HashWithContext>("md5");
    case 2:
      return kind<KdSHA1Context, &KdFileManager::sha1HashWithContext>("sha1");
    case 3:
      return kind<KdSHA256Context, &KdFileManager::sha256HashWithContext>("sha256");
    case 4:
      return kind<KdSHA512Context, &KdFileManager::sha512HashWithContext>("sha512");
    default:
      return std::nullopt;
  }
}

bool KdFileManager::CopyResult::allGood() const {
  if (!completed) return false;
  for (const CopyOutcome& d : destinations)
    if (!d.written || !d.verified) return false;
  return true;
}
