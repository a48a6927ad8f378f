// The digest kinds of the verified copy: verification types 0 to 4 over the
// library's digest contexts and their digest-to-text operations, and the
// xxHash kinds over libxxhash.
#include <xxhash.h>

#include <array>
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

// XXH64 with seed 0, told as its canonical (big-endian) bytes.
class Xxh64Digester final : public KdFileManager::CopyDigester {
 public:
  Xxh64Digester() : state_(XXH64_createState(), &XXH64_freeState) {
    if (state_) XXH64_reset(state_.get(), 0);
  }
  void update(const void* data, std::size_t length) override {
    if (state_) XXH64_update(state_.get(), data, length);
  }
  std::optional<std::string> text() const override {
    if (!state_) return std::nullopt;
    XXH64_canonical_t canonical;
    XXH64_canonicalFromHash(&canonical, XXH64_digest(state_.get()));
    return kdDigestText(canonical.digest, sizeof canonical.digest);
  }

 private:
  std::unique_ptr<XXH64_state_t, XXH_errorcode (*)(XXH64_state_t*)> state_;
};

// XXH3 with seed 0, 64 or 128 bits, told as its canonical bytes.
template <bool Wide>
class Xxh3Digester final : public KdFileManager::CopyDigester {
 public:
  Xxh3Digester() : state_(XXH3_createState(), &XXH3_freeState) {
    if (!state_) return;
    if (Wide)
      XXH3_128bits_reset(state_.get());
    else
      XXH3_64bits_reset(state_.get());
  }
  void update(const void* data, std::size_t length) override {
    if (!state_) return;
    if (Wide)
      XXH3_128bits_update(state_.get(), data, length);
    else
      XXH3_64bits_update(state_.get(), data, length);
  }
  std::optional<std::string> text() const override {
    if (!state_) return std::nullopt;
    if (Wide) {
      XXH128_canonical_t canonical;
      XXH128_canonicalFromHash(&canonical, XXH3_128bits_digest(state_.get()));
      return kdDigestText(canonical.digest, sizeof canonical.digest);
    }
    XXH64_canonical_t canonical;
    XXH64_canonicalFromHash(&canonical, XXH3_64bits_digest(state_.get()));
    return kdDigestText(canonical.digest, sizeof canonical.digest);
  }

 private:
  std::unique_ptr<XXH3_state_t, XXH_errorcode (*)(XXH3_state_t*)> state_;
};

template <class Digester>
KdFileManager::CopyDigest xxhKind(const char* name) {
  return {name, [] { return std::make_unique<Digester>(); }};
}

}  // namespace

std::optional<KdFileManager::CopyDigest> KdFileManager::copyDigestNamed(std::string_view name) {
  static constexpr std::array<std::string_view, 5> kTypes = {"none", "md5", "sha1", "sha256",
                                                             "sha512"};
  for (std::size_t type = 0; type < kTypes.size(); ++type)
    if (name == kTypes[type]) return copyDigestForVerificationType(static_cast<int>(type));
  if (name == "xxh64") return xxhKind<Xxh64Digester>("xxh64");
  if (name == "xxh3") return xxhKind<Xxh3Digester<false>>("xxh3");
  if (name == "xxh128") return xxhKind<Xxh3Digester<true>>("xxh128");
  return std::nullopt;
}

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
