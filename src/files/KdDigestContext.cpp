// Digest contexts over OpenSSL's EVP interface.
#include "files/KdDigestContext.h"

#include <openssl/evp.h>

#include <utility>

namespace {

// The algorithm, fetched once per process (an implicit fetch at every
// initialisation costs a provider look-up each time). Null when the provider
// refuses it (MD5 under a FIPS-only configuration).
const EVP_MD* algorithm(KdDigestKind kind) {
  static const EVP_MD* const md5 = EVP_MD_fetch(nullptr, "MD5", nullptr);
  static const EVP_MD* const sha1 = EVP_MD_fetch(nullptr, "SHA1", nullptr);
  static const EVP_MD* const sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  static const EVP_MD* const sha512 = EVP_MD_fetch(nullptr, "SHA512", nullptr);
  switch (kind) {
    case KdDigestKind::MD5:
      return md5;
    case KdDigestKind::SHA1:
      return sha1;
    case KdDigestKind::SHA256:
      return sha256;
    case KdDigestKind::SHA512:
      return sha512;
  }
  return nullptr;
}

// A fresh copy of `from`, or null.
EVP_MD_CTX* duplicate(const EVP_MD_CTX* from) {
  if (from == nullptr) return nullptr;
  EVP_MD_CTX* copy = EVP_MD_CTX_new();
  if (copy != nullptr && EVP_MD_CTX_copy_ex(copy, from) != 1) {
    EVP_MD_CTX_free(copy);
    copy = nullptr;
  }
  return copy;
}

}  // namespace

KdDigestContext::KdDigestContext(KdDigestKind kind) : kind_(kind), ctx_(EVP_MD_CTX_new()) {
  const EVP_MD* md = algorithm(kind);
  ok_ = ctx_ != nullptr && md != nullptr && EVP_DigestInit_ex(ctx_, md, nullptr) == 1;
}

KdDigestContext::KdDigestContext(const KdDigestContext& other)
    : kind_(other.kind_), ctx_(other.ok_ ? duplicate(other.ctx_) : nullptr) {
  ok_ = ctx_ != nullptr;
}

KdDigestContext& KdDigestContext::operator=(const KdDigestContext& other) {
  if (this != &other) *this = KdDigestContext(other);
  return *this;
}

KdDigestContext::KdDigestContext(KdDigestContext&& other) noexcept
    : kind_(other.kind_),
      ctx_(std::exchange(other.ctx_, nullptr)),
      ok_(std::exchange(other.ok_, false)) {}

KdDigestContext& KdDigestContext::operator=(KdDigestContext&& other) noexcept {
  if (this != &other) {
    EVP_MD_CTX_free(ctx_);
    kind_ = other.kind_;
    ctx_ = std::exchange(other.ctx_, nullptr);
    ok_ = std::exchange(other.ok_, false);
  }
  return *this;
}

KdDigestContext::~KdDigestContext() {
  EVP_MD_CTX_free(ctx_);
}

bool KdDigestContext::update(const void* data, std::size_t length) {
  if (ok_ && length > 0) ok_ = EVP_DigestUpdate(ctx_, data, length) == 1;
  return ok_;
}

std::optional<KdDigestContext::Digest> KdDigestContext::digest() const {
  if (!ok_) return std::nullopt;
  EVP_MD_CTX* copy = duplicate(ctx_);
  Digest out;
  unsigned int length = 0;
  const bool done = copy != nullptr && EVP_DigestFinal_ex(copy, out.bytes.data(), &length) == 1;
  EVP_MD_CTX_free(copy);
  if (!done || length != digestLength(kind_)) return std::nullopt;
  out.length = length;
  return out;
}

std::string kdDigestText(const unsigned char* bytes, std::size_t length) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string text(2 * length, '\0');
  for (std::size_t i = 0; i < length; ++i) {
    text[2 * i] = kHex[bytes[i] >> 4];
    text[2 * i + 1] = kHex[bytes[i] & 0x0f];
  }
  return text;
}
