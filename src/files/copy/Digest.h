// A running digest of any kind the library computes: MD5, SHA-1, SHA-256 and
// SHA-512 over OpenSSL's EVP interface, and XXH64, XXH3 (64 bits) and XXH128
// over libxxhash, all with seed 0. It starts initialised, is fed with
// update(), and tells its digest on a copy of its state, so that it stays
// usable. The xxHash digests are told as their canonical (big-endian) bytes.
//
// Ownership: a digest owns its state; copying duplicates it, moving hands it
// over. Not thread-safe: one thread at a time per digest. Never throws: a
// digest whose state could not be made, copied or fed is failed, and a failed
// digest tells nothing.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace kd {

class Digest {
 public:
  enum class Kind { MD5, SHA1, SHA256, SHA512, XXH64, XXH3, XXH128 };

  // The kind of a name: "md5", "sha1", "sha256", "sha512", "xxh64", "xxh3",
  // "xxh128"; nothing for any other.
  static std::optional<Kind> kindNamed(std::string_view name);
  static std::string_view name(Kind kind);
  // The digest's length in bytes.
  static constexpr std::size_t length(Kind kind) {
    switch (kind) {
      case Kind::MD5:
        return 16;
      case Kind::SHA1:
        return 20;
      case Kind::SHA256:
        return 32;
      case Kind::SHA512:
        return 64;
      case Kind::XXH64:
      case Kind::XXH3:
        return 8;
      case Kind::XXH128:
        return 16;
    }
    return 0;
  }
  static constexpr std::size_t kMaxLength = 64;

  explicit Digest(Kind kind);
  Digest(const Digest& other);
  Digest& operator=(const Digest& other);
  Digest(Digest&& other) noexcept;
  Digest& operator=(Digest&& other) noexcept;
  ~Digest();

  Kind kind() const { return kind_; }
  bool ok() const { return state_ != nullptr; }
  // Feeds `length` bytes; false (and the digest failed) when that fails.
  bool update(const void* data, std::size_t length);

  struct Bytes {
    std::array<unsigned char, kMaxLength> bytes{};
    std::size_t length = 0;
  };
  // The digest of everything fed so far; absent for a failed digest.
  std::optional<Bytes> bytes() const;
  // The same as lowercase hexadecimal, two digits a byte.
  std::optional<std::string> text() const;

 private:
  void release() noexcept;

  Kind kind_;
  void* state_ = nullptr;  // EVP_MD_CTX, XXH64_state_t or XXH3_state_t by kind
};

// Digest bytes as text: lowercase hexadecimal, two digits a byte.
std::string digestText(const unsigned char* bytes, std::size_t length);

}  // namespace kd
