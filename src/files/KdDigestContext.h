// Running message digests (MD5, SHA-1, SHA-256, SHA-512) for the hashes: a
// thin face of the library's one digest type. A context starts initialised, is fed with update(),
// and is turned into digest text by KdFileManager's md5HashWithContext and its kin, which finalise
// a copy so that the context stays usable.
//
// Ownership: a context owns its digest state; copying duplicates that state,
// moving hands it over. Not thread-safe: one thread at a time per context.
// Never throws: a context whose state could not be made or fed is marked
// failed, and a failed context yields no digest.
#pragma once

#include "../KdExport.h"

#include <array>
#include <cstddef>
#include <optional>
#include <string>

namespace kd {
class Digest;
}

enum class KdDigestKind { MD5, SHA1, SHA256, SHA512 };

// Digest bytes as text: lowercase hexadecimal, two digits a byte.
KD_EXPORT std::string kdDigestText(const unsigned char* bytes, std::size_t length);

class KD_EXPORT KdDigestContext {
 public:
  // The largest digest, in bytes (SHA-512).
  static constexpr std::size_t kMaxDigestLength = 64;
  // The digest's length in bytes: 16, 20, 32 or 64.
  static constexpr std::size_t digestLength(KdDigestKind kind) {
    switch (kind) {
      case KdDigestKind::MD5:
        return 16;
      case KdDigestKind::SHA1:
        return 20;
      case KdDigestKind::SHA256:
        return 32;
      case KdDigestKind::SHA512:
        return 64;
    }
    return 0;
  }

  explicit KdDigestContext(KdDigestKind kind);
  KdDigestContext(const KdDigestContext& other);
  KdDigestContext& operator=(const KdDigestContext& other);
  KdDigestContext(KdDigestContext&& other) noexcept;
  KdDigestContext& operator=(KdDigestContext&& other) noexcept;
  ~KdDigestContext();

  KdDigestKind kind() const { return kind_; }
  // False once the state could not be made, copied or fed (or was moved away).
  bool ok() const;
  // Feeds `length` bytes; false (and the context failed) when that fails.
  bool update(const void* data, std::size_t length);

  // The digest of everything fed so far, computed on a copy of the state; the
  // context itself is unchanged. Absent for a failed context.
  struct Digest {
    std::array<unsigned char, kMaxDigestLength> bytes{};
    std::size_t length = 0;
  };
  std::optional<Digest> digest() const;

 private:
  KdDigestKind kind_;
  kd::Digest* digest_ = nullptr;  // owned; null once failed or moved away
};

// A context of one kind, so that a context of the wrong kind cannot be handed
// to a digest-to-text operation.
template <KdDigestKind Kind>
class KD_EXPORT KdTypedDigestContext : public KdDigestContext {
 public:
  KdTypedDigestContext() : KdDigestContext(Kind) {}
};

using KdMD5Context = KdTypedDigestContext<KdDigestKind::MD5>;
using KdSHA1Context = KdTypedDigestContext<KdDigestKind::SHA1>;
using KdSHA256Context = KdTypedDigestContext<KdDigestKind::SHA256>;
using KdSHA512Context = KdTypedDigestContext<KdDigestKind::SHA512>;
