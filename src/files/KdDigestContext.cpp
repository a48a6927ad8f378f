// Digest contexts over the library's one digest type.
#include "files/KdDigestContext.h"

#include <algorithm>
#include <new>
#include <utility>

#include "files/copy/Digest.h"

namespace {

kd::Digest::Kind kindOf(KdDigestKind kind) {
  switch (kind) {
    case KdDigestKind::MD5:
      return kd::Digest::Kind::MD5;
    case KdDigestKind::SHA1:
      return kd::Digest::Kind::SHA1;
    case KdDigestKind::SHA256:
      return kd::Digest::Kind::SHA256;
    case KdDigestKind::SHA512:
      break;
  }
  return kd::Digest::Kind::SHA512;
}

// A digest that works, or null (and nothing left over).
kd::Digest* usable(kd::Digest* digest) {
  if (digest != nullptr && !digest->ok()) {
    delete digest;
    return nullptr;
  }
  return digest;
}

}  // namespace

KdDigestContext::KdDigestContext(KdDigestKind kind)
    : kind_(kind), digest_(usable(new (std::nothrow) kd::Digest(kindOf(kind)))) {}

KdDigestContext::KdDigestContext(const KdDigestContext& other)
    : kind_(other.kind_),
      digest_(other.digest_ ? usable(new (std::nothrow) kd::Digest(*other.digest_)) : nullptr) {}

KdDigestContext& KdDigestContext::operator=(const KdDigestContext& other) {
  if (this != &other) *this = KdDigestContext(other);
  return *this;
}

KdDigestContext::KdDigestContext(KdDigestContext&& other) noexcept
    : kind_(other.kind_), digest_(std::exchange(other.digest_, nullptr)) {}

KdDigestContext& KdDigestContext::operator=(KdDigestContext&& other) noexcept {
  if (this != &other) {
    delete digest_;
    kind_ = other.kind_;
    digest_ = std::exchange(other.digest_, nullptr);
  }
  return *this;
}

KdDigestContext::~KdDigestContext() {
  delete digest_;
}

bool KdDigestContext::ok() const {
  return digest_ != nullptr && digest_->ok();
}

bool KdDigestContext::update(const void* data, std::size_t length) {
  return digest_ != nullptr && digest_->update(data, length);
}

std::optional<KdDigestContext::Digest> KdDigestContext::digest() const {
  if (digest_ == nullptr) return std::nullopt;
  const std::optional<kd::Digest::Bytes> bytes = digest_->bytes();
  if (!bytes || bytes->length != digestLength(kind_)) return std::nullopt;
  Digest out;
  std::copy(bytes->bytes.begin(), bytes->bytes.begin() + bytes->length, out.bytes.begin());
  out.length = bytes->length;
  return out;
}

std::string kdDigestText(const unsigned char* bytes, std::size_t length) {
  return kd::digestText(bytes, length);
}
