// The conversation between the library and its privileged co-process
// (tools/kd-privileged), over the co-process's standard input and output.
//
// Start: the co-process writes "KDPRIV1 <pid> <euid> <nonce>\n", the nonce
// being random and its own; the library answers with a line
// "KDSYNC <nonce> <secret>\n", the secret being random and the library's.
// Every line before the one that carries the co-process's own nonce (a
// password that sudo did not need to read, whatever its length or text) is
// thrown away unread. The co-process confirms with "KDREADY\n".
//
// Then frames: a 32-bit length (host order; both ends are the same machine)
// and a body. A request body is: the session secret (kSecretBytes raw bytes),
// u8 wait, u32 argc, argc strings (u32 length, bytes), argv[0] being the
// tool's absolute path or kRemove. A request without the session's secret
// ends the co-process. A reply body is: i32 status, i32 exitStatus, then the
// output and error strings.
//
// Header-only so that the co-process needs nothing else of the library.
// Stateless functions; callable from any thread.
#pragma once

#include <poll.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/UniqueFd.h"

namespace kd::wire {

inline constexpr char kHello[] = "KDPRIV1";
inline constexpr char kSync[] = "KDSYNC";
inline constexpr char kReady[] = "KDREADY";
inline constexpr std::uint32_t kMaxFrame = 64u << 20;  // replies carry bounded output
inline constexpr std::uint32_t kMaxArguments = 65536;
inline constexpr std::size_t kMaxOutput = 16u << 20;  // per stream of one run
inline constexpr std::size_t kMaxLine = 256;
inline constexpr std::size_t kNonceBytes = 16;
inline constexpr std::size_t kSecretBytes = 32;
// Not a path: the co-process's own removal, judged and done through
// descriptors where it runs (argv: kRemove, the path, then folders that the
// caller protects besides the system's).
inline constexpr char kRemove[] = "kd:remove";
// Likewise its own renaming without replacing (argv: kRename, the source, the
// destination, then the caller's protected folders).
inline constexpr char kRename[] = "kd:rename";

// `n` random bytes from the kernel; none when it cannot give them (never a
// weaker substitute: they guard a session of root's rights).
inline std::optional<std::string> randomBytes(std::size_t n) {
  std::string out(n, '\0');
  std::size_t got = 0;
  while (got < n) {
    ssize_t r = ::getrandom(out.data() + got, n - got, 0);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return std::nullopt;
    got += static_cast<std::size_t>(r);
  }
  return out;
}

inline std::string toHex(std::string_view bytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (unsigned char b : bytes) {
    out.push_back(kHex[b >> 4]);
    out.push_back(kHex[b & 15]);
  }
  return out;
}

// Lowercase hexadecimal of an exact length back to bytes; none otherwise.
inline std::optional<std::string> fromHex(std::string_view text, std::size_t bytes) {
  if (text.size() != 2 * bytes) return std::nullopt;
  auto digit = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
  };
  std::string out(bytes, '\0');
  for (std::size_t i = 0; i < bytes; ++i) {
    const int hi = digit(text[2 * i]), lo = digit(text[2 * i + 1]);
    if (hi < 0 || lo < 0) return std::nullopt;
    out[i] = static_cast<char>(hi << 4 | lo);
  }
  return out;
}

// Compares in a time that depends only on the lengths, so that a guess
// learns nothing from how long the answer took.
inline bool sameSecret(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  volatile unsigned char diff = 0;
  for (std::size_t i = 0; i < a.size(); ++i) diff = diff | static_cast<unsigned char>(a[i] ^ b[i]);
  return diff == 0;
}

// Writes everything, retrying partial writes and EINTR. False on failure.
inline bool writeAll(int fd, std::string_view data) {
  while (!data.empty()) {
    ssize_t n = retryOnEintr([&] { return ::write(fd, data.data(), data.size()); });
    if (n <= 0) return false;
    data.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

// Reads exactly `size` bytes; false at end of file or on failure.
inline bool readExact(int fd, char* out, std::size_t size) {
  while (size > 0) {
    ssize_t n = retryOnEintr([&] { return ::read(fd, out, size); });
    if (n <= 0) return false;
    out += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

// Reads one line of at most kMaxLine bytes, one byte at a time so that
// nothing after the line is taken. The line end is not kept.
inline std::optional<std::string> readLine(int fd) {
  std::string line;
  char c = 0;
  while (line.size() < kMaxLine) {
    if (!readExact(fd, &c, 1)) return std::nullopt;
    if (c == '\n') return line;
    line.push_back(c);
  }
  return std::nullopt;
}

// Waits until `fd` can be read or has hung up; false after `timeoutMs`
// (negative: no limit).
inline bool waitReadable(int fd, int timeoutMs) {
  pollfd p{fd, POLLIN, 0};
  return retryOnEintr([&] { return ::poll(&p, 1, timeoutMs); }) > 0;
}

inline void putU32(std::string& out, std::uint32_t v) {
  out.append(reinterpret_cast<const char*>(&v), 4);
}
inline void putI32(std::string& out, std::int32_t v) {
  out.append(reinterpret_cast<const char*>(&v), 4);
}
inline void putString(std::string& out, std::string_view s) {
  putU32(out, static_cast<std::uint32_t>(s.size()));
  out.append(s);
}

// Reads fields off a frame body; every getter fails past the end.
class Cursor {
 public:
  explicit Cursor(std::string_view body) : body_(body) {}
  bool u8(std::uint8_t& v) {
    if (body_.size() < 1) return false;
    v = static_cast<std::uint8_t>(body_[0]);
    body_.remove_prefix(1);
    return true;
  }
  bool u32(std::uint32_t& v) {
    if (body_.size() < 4) return false;
    std::memcpy(&v, body_.data(), 4);
    body_.remove_prefix(4);
    return true;
  }
  bool i32(std::int32_t& v) {
    std::uint32_t u = 0;
    if (!u32(u)) return false;
    std::memcpy(&v, &u, 4);
    return true;
  }
  bool string(std::string& s) {
    std::uint32_t n = 0;
    if (!u32(n) || body_.size() < n) return false;
    s.assign(body_.substr(0, n));
    body_.remove_prefix(n);
    return true;
  }
  bool atEnd() const { return body_.empty(); }

 private:
  std::string_view body_;
};

// Sends one frame.
inline bool writeFrame(int fd, const std::string& body) {
  std::string frame;
  putU32(frame, static_cast<std::uint32_t>(body.size()));
  frame += body;
  return writeAll(fd, frame);
}

// Receives one frame; none at end of file, on failure or when oversized.
inline std::optional<std::string> readFrame(int fd) {
  std::uint32_t size = 0;
  if (!readExact(fd, reinterpret_cast<char*>(&size), 4) || size > kMaxFrame) return std::nullopt;
  std::string body(size, '\0');
  if (!readExact(fd, body.data(), size)) return std::nullopt;
  return body;
}

struct Request {
  std::string secret;  // kSecretBytes
  bool wait = false;
  std::vector<std::string> argv;  // argv[0]: the tool
};

inline std::string encodeRequest(const Request& request) {
  std::string body = request.secret;
  body.push_back(request.wait ? 1 : 0);
  putU32(body, static_cast<std::uint32_t>(request.argv.size()));
  for (const std::string& a : request.argv) putString(body, a);
  return body;
}

inline std::optional<Request> decodeRequest(std::string_view body) {
  if (body.size() < kSecretBytes) return std::nullopt;
  Request request;
  request.secret.assign(body.substr(0, kSecretBytes));
  Cursor c(body.substr(kSecretBytes));
  std::uint8_t wait = 0;
  std::uint32_t argc = 0;
  if (!c.u8(wait) || wait > 1 || !c.u32(argc) || argc == 0 || argc > kMaxArguments)
    return std::nullopt;
  request.wait = wait == 1;
  request.argv.resize(argc);
  for (std::string& a : request.argv) {
    if (!c.string(a) || a.find('\0') != std::string::npos) return std::nullopt;
  }
  if (!c.atEnd()) return std::nullopt;
  return request;
}

struct Reply {
  std::int32_t status = -1;
  std::int32_t exitStatus = -1;
  std::string output;
  std::string error;
};

inline std::string encodeReply(const Reply& reply) {
  std::string body;
  putI32(body, reply.status);
  putI32(body, reply.exitStatus);
  putString(body, reply.output);
  putString(body, reply.error);
  return body;
}

inline std::optional<Reply> decodeReply(std::string_view body) {
  Cursor c(body);
  Reply reply;
  if (!c.i32(reply.status) || !c.i32(reply.exitStatus) || !c.string(reply.output) ||
      !c.string(reply.error) || !c.atEnd())
    return std::nullopt;
  return reply;
}

}  // namespace kd::wire
