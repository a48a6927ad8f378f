// Running digests over OpenSSL's EVP interface and libxxhash.
#include "files/copy/Digest.h"

#include <openssl/evp.h>
#include <xxhash.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace kd {
namespace {

// The algorithm, fetched once per process (an implicit fetch at every
// initialisation costs a provider look-up each time). Null when the provider
// refuses it (MD5 under a FIPS-only configuration).
const EVP_MD* algorithm(Digest::Kind kind) {
  static const EVP_MD* const md5 = EVP_MD_fetch(nullptr, "MD5", nullptr);
  static const EVP_MD* const sha1 = EVP_MD_fetch(nullptr, "SHA1", nullptr);
  static const EVP_MD* const sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  static const EVP_MD* const sha512 = EVP_MD_fetch(nullptr, "SHA512", nullptr);
  switch (kind) {
    case Digest::Kind::MD5:
      return md5;
    case Digest::Kind::SHA1:
      return sha1;
    case Digest::Kind::SHA256:
      return sha256;
    case Digest::Kind::SHA512:
      return sha512;
    default:
      return nullptr;
  }
}

// A fresh state of `kind`, or null.
void* freshState(Digest::Kind kind) {
  switch (kind) {
    case Digest::Kind::XXH64: {
      XXH64_state_t* state = XXH64_createState();
      if (state != nullptr && XXH64_reset(state, 0) != XXH_OK) {
        XXH64_freeState(state);
        state = nullptr;
      }
      return state;
    }
    case Digest::Kind::XXH3:
    case Digest::Kind::XXH128: {
      XXH3_state_t* state = XXH3_createState();
      const bool wide = kind == Digest::Kind::XXH128;
      if (state != nullptr &&
          (wide ? XXH3_128bits_reset(state) : XXH3_64bits_reset(state)) != XXH_OK) {
        XXH3_freeState(state);
        state = nullptr;
      }
      return state;
    }
    default: {
      const EVP_MD* md = algorithm(kind);
      EVP_MD_CTX* ctx = EVP_MD_CTX_new();
      if (ctx != nullptr && (md == nullptr || EVP_DigestInit_ex(ctx, md, nullptr) != 1)) {
        EVP_MD_CTX_free(ctx);
        ctx = nullptr;
      }
      return ctx;
    }
  }
}

void freeState(Digest::Kind kind, void* state) {
  if (state == nullptr) return;
  switch (kind) {
    case Digest::Kind::XXH64:
      XXH64_freeState(static_cast<XXH64_state_t*>(state));
      return;
    case Digest::Kind::XXH3:
    case Digest::Kind::XXH128:
      XXH3_freeState(static_cast<XXH3_state_t*>(state));
      return;
    default:
      EVP_MD_CTX_free(static_cast<EVP_MD_CTX*>(state));
  }
}

// A copy of `from`, or null.
void* copiedState(Digest::Kind kind, const void* from) {
  if (from == nullptr) return nullptr;
  switch (kind) {
    case Digest::Kind::XXH64: {
      XXH64_state_t* state = XXH64_createState();
      if (state != nullptr) XXH64_copyState(state, static_cast<const XXH64_state_t*>(from));
      return state;
    }
    case Digest::Kind::XXH3:
    case Digest::Kind::XXH128: {
      XXH3_state_t* state = XXH3_createState();
      if (state != nullptr) XXH3_copyState(state, static_cast<const XXH3_state_t*>(from));
      return state;
    }
    default: {
      EVP_MD_CTX* ctx = EVP_MD_CTX_new();
      if (ctx != nullptr && EVP_MD_CTX_copy_ex(ctx, static_cast<const EVP_MD_CTX*>(from)) != 1) {
        EVP_MD_CTX_free(ctx);
        ctx = nullptr;
      }
      return ctx;
    }
  }
}

}  // namespace

std::optional<Digest::Kind> Digest::kindNamed(std::string_view name) {
  for (Kind kind :
       {Kind::MD5, Kind::SHA1, Kind::SHA256, Kind::SHA512, Kind::XXH64, Kind::XXH3, Kind::XXH128})
    if (name == Digest::name(kind)) return kind;
  return std::nullopt;
}

std::string_view Digest::name(Kind kind) {
  switch (kind) {
    case Kind::MD5:
      return "md5";
    case Kind::SHA1:
      return "sha1";
    case Kind::SHA256:
      return "sha256";
    case Kind::SHA512:
      return "sha512";
    case Kind::XXH64:
      return "xxh64";
    case Kind::XXH3:
      return "xxh3";
    case Kind::XXH128:
      return "xxh128";
  }
  return {};
}

Digest::Digest(Kind kind) : kind_(kind), state_(freshState(kind)) {}

Digest::Digest(const Digest& other)
    : kind_(other.kind_), state_(copiedState(other.kind_, other.state_)) {}

Digest& Digest::operator=(const Digest& other) {
  if (this != &other) *this = Digest(other);
  return *this;
}

Digest::Digest(Digest&& other) noexcept
    : kind_(other.kind_), state_(std::exchange(other.state_, nullptr)) {}

Digest& Digest::operator=(Digest&& other) noexcept {
  if (this != &other) {
    release();
    kind_ = other.kind_;
    state_ = std::exchange(other.state_, nullptr);
  }
  return *this;
}

Digest::~Digest() {
  release();
}

void Digest::release() noexcept {
  freeState(kind_, state_);
  state_ = nullptr;
}

bool Digest::update(const void* data, std::size_t length) {
  if (state_ == nullptr || length == 0) return state_ != nullptr;
  bool fed = false;
  switch (kind_) {
    case Kind::XXH64:
      fed = XXH64_update(static_cast<XXH64_state_t*>(state_), data, length) == XXH_OK;
      break;
    case Kind::XXH3:
      fed = XXH3_64bits_update(static_cast<XXH3_state_t*>(state_), data, length) == XXH_OK;
      break;
    case Kind::XXH128:
      fed = XXH3_128bits_update(static_cast<XXH3_state_t*>(state_), data, length) == XXH_OK;
      break;
    default:
      fed = EVP_DigestUpdate(static_cast<EVP_MD_CTX*>(state_), data, length) == 1;
  }
  if (!fed) release();
  return fed;
}

std::optional<Digest::Bytes> Digest::bytes() const {
  if (state_ == nullptr) return std::nullopt;
  Bytes out;
  switch (kind_) {
    case Kind::XXH64: {
      XXH64_canonical_t canonical;
      XXH64_canonicalFromHash(&canonical, XXH64_digest(static_cast<XXH64_state_t*>(state_)));
      std::copy(std::begin(canonical.digest), std::end(canonical.digest), out.bytes.begin());
      out.length = sizeof canonical.digest;
      return out;
    }
    case Kind::XXH3: {
      XXH64_canonical_t canonical;
      XXH64_canonicalFromHash(&canonical, XXH3_64bits_digest(static_cast<XXH3_state_t*>(state_)));
      std::copy(std::begin(canonical.digest), std::end(canonical.digest), out.bytes.begin());
      out.length = sizeof canonical.digest;
      return out;
    }
    case Kind::XXH128: {
      XXH128_canonical_t canonical;
      XXH128_canonicalFromHash(&canonical, XXH3_128bits_digest(static_cast<XXH3_state_t*>(state_)));
      std::copy(std::begin(canonical.digest), std::end(canonical.digest), out.bytes.begin());
      out.length = sizeof canonical.digest;
      return out;
    }
    default: {
      // Finalised on a copy, so that this digest can be fed on.
      EVP_MD_CTX* copy = static_cast<EVP_MD_CTX*>(copiedState(kind_, state_));
      unsigned int length = 0;
      const bool done = copy != nullptr && EVP_DigestFinal_ex(copy, out.bytes.data(), &length) == 1;
      EVP_MD_CTX_free(copy);
      if (!done || length != Digest::length(kind_)) return std::nullopt;
      out.length = length;
      return out;
    }
  }
}

std::optional<std::string> Digest::text() const {
  const std::optional<Bytes> digest = bytes();
  if (!digest) return std::nullopt;
  return digestText(digest->bytes.data(), digest->length);
}

std::string digestText(const unsigned char* bytes, std::size_t length) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string text(2 * length, '\0');
  for (std::size_t i = 0; i < length; ++i) {
    text[2 * i] = kHex[bytes[i] >> 4];
    text[2 * i + 1] = kHex[bytes[i] & 0x0f];
  }
  return text;
}

}  // namespace kd
