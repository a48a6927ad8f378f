// The digest kinds of the verified copy, over the library's one digest type.
#include <memory>

#include "files/KdFileManager.h"
#include "files/copy/Digest.h"

namespace {

// A running digest of one kind, as the copy feeds it.
class KindDigester final : public KdFileManager::CopyDigester {
 public:
  explicit KindDigester(kd::Digest::Kind kind) : digest_(kind) {}
  void update(const void* data, std::size_t length) override { digest_.update(data, length); }
  std::optional<std::string> text() const override { return digest_.text(); }

 private:
  kd::Digest digest_;
};

}  // namespace

std::optional<KdFileManager::CopyDigest> KdFileManager::copyDigestNamed(std::string_view name) {
  if (name == "none") return CopyDigest{"none", nullptr};
  const std::optional<kd::Digest::Kind> kind = kd::Digest::kindNamed(name);
  if (!kind) return std::nullopt;
  return CopyDigest{std::string(name),
                    [kind = *kind] { return std::make_unique<KindDigester>(kind); }};
}

std::optional<KdFileManager::CopyDigest> KdFileManager::copyDigestForVerificationType(
    int verificationType) {
  static constexpr const char* kTypes[] = {"none", "md5", "sha1", "sha256", "sha512"};
  if (verificationType < 0 || verificationType > 4) return std::nullopt;
  return copyDigestNamed(kTypes[verificationType]);
}

bool KdFileManager::CopyResult::allGood() const {
  if (!completed) return false;
  for (const CopyOutcome& d : destinations)
    if (!d.written || !d.verified) return false;
  return true;
}
