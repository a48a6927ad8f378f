#include "files/mhl/MhlDirectoryHash.h"

#include <algorithm>
#include <array>
#include <map>

#include "files/KdFileManager.h"

namespace kd {
namespace {

constexpr std::string_view kBase58 = "123456789ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz";

// The bytes a digest text stands for: hex digits two to a byte, or a C4 ID's
// 88 base-58 digits as a 512-bit big-endian number. Nullopt when the text is
// not a digest of `format`.
std::optional<std::string> digestBytes(std::string_view format, std::string_view text) {
  if (format == "c4") {
    if (text.size() != 90 || !text.starts_with("c4")) return std::nullopt;
    std::array<unsigned char, 64> number{};
    for (char c : text.substr(2)) {
      const std::size_t digit = kBase58.find(c);
      if (digit == std::string_view::npos) return std::nullopt;
      unsigned carry = static_cast<unsigned>(digit);
      for (std::size_t i = number.size(); i-- > 0;) {
        const unsigned value = number[i] * 58u + carry;
        number[i] = static_cast<unsigned char>(value & 0xFF);
        carry = value >> 8;
      }
      if (carry != 0) return std::nullopt;  // more than 512 bits
    }
    return std::string(number.begin(), number.end());
  }
  if (text.empty() || text.size() % 2 != 0) return std::nullopt;
  auto nibble = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); i += 2) {
    const int high = nibble(text[i]), low = nibble(text[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes.push_back(static_cast<char>(high * 16 + low));
  }
  return bytes;
}

// The digest text of `bytes` in `format`.
std::optional<std::string> digestOf(std::string_view format, std::string_view bytes) {
  if (format == "c4") return mhlC4Id(bytes);
  const std::optional<KdFileManager::CopyDigest> kind = KdFileManager::copyDigestNamed(format);
  if (!kind || !kind->make) return std::nullopt;
  const std::unique_ptr<KdFileManager::CopyDigester> digester = kind->make();
  if (!digester) return std::nullopt;
  digester->update(bytes.data(), bytes.size());
  return digester->text();
}

// The digest of the concatenated bytes of `digests`, sorted by their text.
std::optional<std::string> digestOfList(std::string_view format, std::vector<std::string> digests) {
  std::sort(digests.begin(), digests.end());
  std::string bytes;
  for (const std::string& d : digests) {
    const std::optional<std::string> b = digestBytes(format, d);
    if (!b) return std::nullopt;
    bytes += *b;
  }
  return digestOf(format, bytes);
}

// Hex digits in lowercase (a C4 ID's letters are digits of their own).
std::string lowered(std::string s) {
  for (char& c : s)
    if (c >= 'A' && c <= 'F') c = static_cast<char>(c - 'A' + 'a');
  return s;
}

std::string_view parentOf(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

std::string_view nameOf(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// Children before their folder, otherwise by path, one name at a time.
bool postOrder(std::string_view a, std::string_view b) {
  for (;;) {
    const std::size_t sa = a.find('/'), sb = b.find('/');
    const std::string_view na = a.substr(0, sa), nb = b.substr(0, sb);
    if (na != nb) return na < nb;
    if (sa == std::string_view::npos || sb == std::string_view::npos)
      return sb == std::string_view::npos && sa != std::string_view::npos;
    a.remove_prefix(sa + 1);
    b.remove_prefix(sb + 1);
  }
}

struct Node {
  std::optional<std::chrono::system_clock::time_point> modified;
  const MhlFolder* folder = nullptr;            // as given, if it was
  std::vector<std::string> content, structure;  // one digest per child
  bool known = true;
};

}  // namespace

MhlDirectoryHashes mhlDirectoryHashes(const std::vector<MhlHash>& files,
                                      const std::vector<MhlFolder>& folders,
                                      std::string_view format) {
  MhlDirectoryHashes out;
  if (!isMhlHashFormat(format)) return out;
  std::map<std::string, Node, std::less<>> nodes;  // by path; "" the tracked folder
  auto node = [&](std::string_view path) -> Node& {
    auto it = nodes.find(path);
    if (it != nodes.end()) return it->second;
    // Every folder above it too.
    for (std::string_view above = path; !above.empty();) {
      above = parentOf(above);
      if (nodes.count(above)) break;
      nodes.emplace(std::string(above), Node{});
    }
    return nodes.emplace(std::string(path), Node{}).first->second;
  };
  node("");
  for (const MhlFolder& f : folders) {
    Node& n = node(f.path);
    n.modified = f.modified;
    n.folder = &f;
  }

  // Each file's digest in `format`; none when it has none.
  std::map<std::string_view, std::optional<std::string>> digests;
  for (const MhlHash& h : files) {
    std::optional<std::string>& d = digests[h.path];
    if (h.format == format && !h.digest.empty()) d = format == "c4" ? h.digest : lowered(h.digest);
  }
  // A child's structure entry: the digest of its name and its digest's bytes.
  auto structureOf = [&](std::string_view path,
                         const std::string& digest) -> std::optional<std::string> {
    const std::optional<std::string> bytes = digestBytes(format, digest);
    if (!bytes) return std::nullopt;
    return digestOf(format, std::string(nameOf(path)) + *bytes);
  };
  for (const auto& [path, digest] : digests) {
    Node& parent = node(parentOf(path));
    const std::optional<std::string> structure = digest ? structureOf(path, *digest) : std::nullopt;
    if (!structure) {
      parent.known = false;
      continue;
    }
    parent.content.push_back(*digest);
    parent.structure.push_back(*structure);
  }

  // A folder's path sorts after its parent's: from the last, each folder is
  // done before the one above it.
  for (auto it = nodes.rbegin(); it != nodes.rend(); ++it) {
    const std::string& path = it->first;
    Node& n = it->second;
    std::optional<std::string> content, structure;
    if (n.folder && n.folder->given && !path.empty()) {
      // A history inside: its own root hash stands for it.
      const MhlDirectoryDigest& g = *n.folder->given;
      if (g.format == format && !g.content.empty() && !g.structure.empty()) {
        content = format == "c4" ? g.content : lowered(g.content);
        structure = format == "c4" ? g.structure : lowered(g.structure);
      }
    } else if (n.known) {
      content = digestOfList(format, n.content);
      structure = digestOfList(format, n.structure);
    }
    if (!content || !structure) {
      if (!path.empty()) nodes.find(parentOf(path))->second.known = false;
      continue;
    }
    MhlDirectoryDigest digest{std::string(format), *content, *structure};
    if (path.empty()) {
      out.root.push_back(std::move(digest));
      continue;
    }
    Node& parent = nodes.find(parentOf(path))->second;
    const std::optional<std::string> entry = structureOf(path, *structure);
    if (!entry) {
      parent.known = false;
      continue;
    }
    parent.content.push_back(*content);
    parent.structure.push_back(*entry);
    out.directories.push_back({path, n.modified, {std::move(digest)}});
  }
  std::sort(out.directories.begin(), out.directories.end(),
            [](const MhlDirectoryHash& a, const MhlDirectoryHash& b) {
              return postOrder(a.path, b.path);
            });
  return out;
}

MhlDirectoryHashes mhlGenerationDirectoryHashes(const std::vector<std::string>& paths,
                                                const std::vector<MhlHash>& entries,
                                                const MhlHistory& history,
                                                const std::vector<MhlFolder>& folders,
                                                std::string_view format) {
  std::map<std::string_view, const MhlHash*> found;
  for (const MhlHash& e : entries)
    if (e.format == format) found[e.path] = &e;
  std::vector<MhlHash> files;
  files.reserve(paths.size());
  for (const std::string& path : paths) {
    MhlHash file;
    file.path = path;
    file.format = std::string(format);
    if (const auto it = found.find(path); it != found.end()) {
      file.digest = it->second->digest;
    } else if (std::optional<MhlHash> recorded = history.latest(path, format);
               recorded && recorded->action != MhlAction::Failed) {
      file.digest = recorded->digest;
    }
    files.push_back(std::move(file));
  }
  return mhlDirectoryHashes(files, folders, format);
}

namespace {

// The hashes of several formats as one: a folder's digests in every format
// that gives it one, children first.
template <class OneFormat>
MhlDirectoryHashes inEachFormat(const std::vector<std::string>& formats, const OneFormat& one) {
  MhlDirectoryHashes out;
  std::map<std::string, std::size_t> at;  // a folder's place in out.directories
  for (const std::string& format : formats) {
    MhlDirectoryHashes hashes = one(format);
    out.root.insert(out.root.end(), hashes.root.begin(), hashes.root.end());
    for (MhlDirectoryHash& folder : hashes.directories) {
      const auto [it, fresh] = at.try_emplace(folder.path, out.directories.size());
      if (fresh) {
        out.directories.push_back(std::move(folder));
        continue;
      }
      std::vector<MhlDirectoryDigest>& digests = out.directories[it->second].digests;
      digests.insert(digests.end(), folder.digests.begin(), folder.digests.end());
    }
  }
  std::stable_sort(out.directories.begin(), out.directories.end(),
                   [](const MhlDirectoryHash& a, const MhlDirectoryHash& b) {
                     return postOrder(a.path, b.path);
                   });
  return out;
}

}  // namespace

MhlDirectoryHashes mhlDirectoryHashes(const std::vector<MhlHash>& files,
                                      const std::vector<MhlFolder>& folders,
                                      const std::vector<std::string>& formats) {
  return inEachFormat(formats, [&](const std::string& format) {
    return mhlDirectoryHashes(files, folders, format);
  });
}

MhlDirectoryHashes mhlGenerationDirectoryHashes(const std::vector<std::string>& paths,
                                                const std::vector<MhlHash>& entries,
                                                const MhlHistory& history,
                                                const std::vector<MhlFolder>& folders,
                                                const std::vector<std::string>& formats) {
  return inEachFormat(formats, [&](const std::string& format) {
    return mhlGenerationDirectoryHashes(paths, entries, history, folders, format);
  });
}

}  // namespace kd
