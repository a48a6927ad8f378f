// The binary form ("bplist00"): objects, a table of their offsets and a
// 32-byte trailer. The reader checks every size, count, offset and reference
// against the file before using it, follows references with a stack of its
// own (no recursion), refuses cycles, deep nesting and shared objects that
// would expand without bound. The writer numbers objects breadth first, so a
// container's children are consecutive and no recursion is needed either.
#include <bit>
#include <cstring>
#include <vector>

#include "common/PlistCodec.h"
#include "common/Utf8.h"

namespace kd::plist {

namespace {

constexpr std::uint64_t kTrailerSize = 32;
// What shared objects may add to the values read, beyond eight times the file.
constexpr std::uint64_t kExpansionAllowance = std::uint64_t{256} << 20;

class BinaryReader {
 public:
  explicit BinaryReader(std::string_view in) : in_(in) {}

  bool read(PlistValue& root, std::string& reason) {
    if (!document(root)) {
      reason = error_;
      return false;
    }
    return true;
  }

 private:
  struct Frame {
    std::uint64_t object;
    PlistValue container;  // a PlistArray or a PlistDict
    std::uint64_t refs;    // where its references start
    std::uint64_t count;
    std::uint64_t next = 0;
    std::string key;  // the key of the value being read, in a dictionary
  };

  bool fail(const std::string& why) {
    error_ = why;
    return false;
  }
  unsigned byte(std::uint64_t at) const { return static_cast<unsigned char>(in_[at]); }
  std::uint64_t bigEndian(std::uint64_t at, unsigned size) const {
    std::uint64_t v = 0;
    for (unsigned i = 0; i < size; ++i) v = (v << 8) | byte(at + i);
    return v;
  }
  // Whether `n` items of `size` bytes lie between `at` and the end of the objects.
  bool fits(std::uint64_t at, std::uint64_t n, std::uint64_t size) {
    if (at > end_ || n > (end_ - at) / size) return fail("an object that runs past its end");
    return true;
  }
  // Counts every object read and the bytes it holds; a file whose shared
  // objects would expand without bound is refused.
  bool spend(std::uint64_t bytes) {
    ++visits_;
    bytes_ += bytes;
    if (visits_ > in_.size() || bytes_ > kExpansionAllowance + 8 * in_.size())
      return fail("shared objects that expand without bound");
    return true;
  }

  bool trailer() {
    if (in_.size() < 8 + 1 + kTrailerSize) return fail("too short for a binary property list");
    if (!in_.starts_with("bplist00")) return fail("an unknown binary version");
    const std::uint64_t trailerAt = in_.size() - kTrailerSize;
    offsetSize_ = byte(trailerAt + 6);
    refSize_ = byte(trailerAt + 7);
    count_ = bigEndian(trailerAt + 8, 8);
    top_ = bigEndian(trailerAt + 16, 8);
    table_ = bigEndian(trailerAt + 24, 8);
    if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8)
      return fail("a trailer with impossible sizes");
    if (table_ < 9 || table_ > trailerAt || (trailerAt - table_) / offsetSize_ < count_)
      return fail("an offset table outside the file");
    if (count_ == 0 || count_ > table_ - 8 || top_ >= count_)
      return fail("a trailer with an impossible object count");
    end_ = table_;  // the objects lie between the header and the table
    return true;
  }

  // Where object `index` starts.
  bool locate(std::uint64_t index, std::uint64_t& at) {
    if (index >= count_) return fail("a reference to no object");
    at = bigEndian(table_ + index * offsetSize_, offsetSize_);
    if (at < 8 || at >= end_) return fail("an object offset outside the file");
    return true;
  }

  // The item count of the object whose marker is at `at`; `at` moves past the
  // marker and the count.
  bool length(std::uint64_t& at, std::uint64_t& n) {
    n = byte(at) & 0x0F;
    ++at;
    if (n != 0x0F) return true;
    if (at >= end_ || (byte(at) & 0xF0) != 0x10 || (byte(at) & 0x0F) > 3)
      return fail("a malformed length");
    const unsigned size = 1u << (byte(at) & 0x0F);
    if (!fits(at + 1, 1, size)) return false;
    n = bigEndian(at + 1, size);
    at += 1 + size;
    return true;
  }

  bool string(std::uint64_t at, std::string& out) {
    const unsigned type = byte(at) >> 4;
    std::uint64_t n = 0;
    if (!length(at, n)) return false;
    if (type == 0x5) {
      if (!fits(at, n, 1) || !spend(n)) return false;
      out.assign(in_.data() + at, n);
      for (char c : out)
        if (static_cast<unsigned char>(c) >= 0x80)
          return fail("a non-ASCII byte in an ASCII string");
      return true;
    }
    if (!fits(at, n, 2) || !spend(2 * n)) return false;
    out.clear();
    out.reserve(n);
    for (std::uint64_t i = 0; i < n; ++i) {
      char32_t unit = static_cast<char32_t>(bigEndian(at + 2 * i, 2));
      if (unit >= 0xD800 && unit <= 0xDBFF && i + 1 < n) {
        const auto low = static_cast<char32_t>(bigEndian(at + 2 * i + 2, 2));
        if (low >= 0xDC00 && low <= 0xDFFF) {
          unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
          ++i;
        }
      }
      if (unit >= 0xD800 && unit <= 0xDFFF) return fail("a string that is not valid UTF-16");
      utf8::appendCodePoint(out, unit);
    }
    return true;
  }

  bool key(std::uint64_t index, std::string& out) {
    std::uint64_t at = 0;
    if (!locate(index, at)) return false;
    const unsigned type = byte(at) >> 4;
    if (type != 0x5 && type != 0x6) return fail("a dictionary key that is not a string");
    return string(at, out);
  }

  // Reads object `index` into `value`, or for a container pushes its frame.
  bool object(std::uint64_t index, PlistValue& value) {
    std::uint64_t at = 0;
    if (!locate(index, at)) return false;
    const unsigned marker = byte(at), type = marker >> 4, info = marker & 0x0F;
    if (type == 0xA || type == 0xD) {
      std::uint64_t n = 0;
      if (onPath_[index]) return fail("a reference cycle");
      if (stack_.size() >= kPlistMaxDepth)
        return fail("containers nested deeper than " + std::to_string(kPlistMaxDepth));
      if (!length(at, n) || !fits(at, n, refSize_ * (type == 0xD ? 2 : 1)) || !spend(0))
        return false;
      onPath_[index] = true;
      stack_.push_back(Frame{
          index, type == 0xA ? PlistValue(PlistArray{}) : PlistValue(PlistDict{}), at, n, 0, {}});
      return true;
    }
    if (type == 0x5 || type == 0x6) {
      std::string s;
      if (!string(at, s)) return false;
      value = std::move(s);
      return true;
    }
    if (!spend(0)) return false;
    if (marker == 0x08 || marker == 0x09) {
      value = marker == 0x09;
      return true;
    }
    if (type == 0x4) {
      std::uint64_t n = 0;
      if (!length(at, n) || !fits(at, n, 1) || !spend(n)) return false;
      const auto* p = reinterpret_cast<const std::uint8_t*>(in_.data() + at);
      value = PlistData{std::vector<std::uint8_t>(p, p + n)};
      return true;
    }
    // What is left are numbers of 2^info bytes: integers, reals and dates.
    // (Null, fill, UIDs and sets never appear in settings.)
    if (!(type == 0x1 && info <= 4) && marker != 0x22 && marker != 0x23 && marker != 0x33)
      return fail("an object of a type settings never hold (marker " + std::to_string(marker) +
                  ")");
    const unsigned size = 1u << info;
    if (!fits(at + 1, 1, size)) return false;
    if (marker == 0x22) {
      const auto bits = static_cast<std::uint32_t>(bigEndian(at + 1, 4));
      value = static_cast<double>(std::bit_cast<float>(bits));
    } else if (marker == 0x23 || marker == 0x33) {
      const double d = std::bit_cast<double>(bigEndian(at + 1, 8));
      value = marker == 0x23 ? PlistValue(d) : dateValue(d);
    } else if (size < 8) {
      value = PlistValue(bigEndian(at + 1, size));
    } else if (size == 8) {
      value = PlistValue(static_cast<std::int64_t>(bigEndian(at + 1, 8)));
    } else {  // 128 bits: an unsigned 64-bit value or a negative one
      const std::uint64_t high = bigEndian(at + 1, 8), low = bigEndian(at + 9, 8);
      if (high == 0)
        value = PlistValue(low);
      else if (high == ~std::uint64_t{0} && (low >> 63) != 0)
        value = PlistValue(static_cast<std::int64_t>(low));
      else
        return fail("an integer beyond 64 bits");
    }
    return true;
  }

  static void attach(Frame& frame, PlistValue value) {
    if (auto* array = frame.container.get<PlistArray>())
      array->push_back(std::move(value));
    else
      frame.container.get<PlistDict>()->insert_or_assign(std::move(frame.key), std::move(value));
  }

  bool document(PlistValue& root) {
    if (!trailer()) return false;
    onPath_.assign(count_, false);
    if (!object(top_, root)) return false;
    while (!stack_.empty()) {
      Frame& frame = stack_.back();
      if (frame.next == frame.count) {
        onPath_[frame.object] = false;
        PlistValue done = std::move(frame.container);
        stack_.pop_back();
        if (stack_.empty())
          root = std::move(done);
        else
          attach(stack_.back(), std::move(done));
        continue;
      }
      const bool isDict = frame.container.is<PlistDict>();
      const std::uint64_t slot = isDict ? frame.count + frame.next : frame.next;
      const std::uint64_t child = bigEndian(frame.refs + slot * refSize_, refSize_);
      if (isDict && !key(bigEndian(frame.refs + frame.next * refSize_, refSize_), frame.key))
        return false;
      ++frame.next;
      const std::size_t depth = stack_.size();
      PlistValue value;
      if (!object(child, value)) return false;  // (may push: `frame` is not used again)
      if (stack_.size() == depth) attach(stack_.back(), std::move(value));
    }
    return true;
  }

  std::string_view in_;
  std::string error_;
  std::uint64_t end_ = 0;  // where the objects end
  unsigned offsetSize_ = 0, refSize_ = 0;
  std::uint64_t count_ = 0, top_ = 0, table_ = 0;
  std::uint64_t visits_ = 0, bytes_ = 0;
  std::vector<bool> onPath_;  // containers being read, by object number
  std::vector<Frame> stack_;
};

unsigned bytesFor(std::uint64_t v) {
  return v <= 0xFF ? 1 : v <= 0xFFFF ? 2 : v <= 0xFFFFFFFF ? 4 : 8;
}

class BinaryWriter {
 public:
  BinaryWriter(std::string& out, std::string& error) : out_(out), error_(error) {}

  bool document(const PlistDict& root) {
    nodes_.push_back(Node{nullptr, &root, nullptr, 1, 0});
    // Breadth first: each container's children get consecutive numbers.
    for (std::size_t i = 0; i < nodes_.size(); ++i) {
      const Node node = nodes_[i];
      const PlistArray* array = node.value ? node.value->get<PlistArray>() : nullptr;
      if (!node.dict && !array) continue;
      if (node.depth > kPlistMaxDepth)
        return fail("containers nested deeper than " + std::to_string(kPlistMaxDepth));
      nodes_[i].first = nodes_.size();
      if (node.dict) {
        for (const auto& entry : *node.dict)
          nodes_.push_back(Node{nullptr, nullptr, &entry.first, 0, 0});
        for (const auto& entry : *node.dict) add(entry.second, node.depth + 1);
      } else {
        for (const PlistValue& item : *array) add(item, node.depth + 1);
      }
    }
    const std::size_t base = out_.size();
    out_ += "bplist00";
    refSize_ = bytesFor(nodes_.size() - 1);
    std::vector<std::uint64_t> offsets;
    offsets.reserve(nodes_.size());
    for (const Node& node : nodes_) {
      offsets.push_back(out_.size() - base);
      if (!write(node)) return false;
    }
    const std::uint64_t table = out_.size() - base;
    const unsigned offsetSize = bytesFor(offsets.back());
    for (std::uint64_t offset : offsets) bigEndian(offset, offsetSize);
    out_.append(6, '\0');
    out_ += static_cast<char>(offsetSize);
    out_ += static_cast<char>(refSize_);
    bigEndian(nodes_.size(), 8);
    bigEndian(0, 8);  // the root is object 0
    bigEndian(table, 8);
    return true;
  }

 private:
  // An object to write: a dictionary (the root or a value), a key, or a value.
  struct Node {
    const PlistValue* value = nullptr;
    const PlistDict* dict = nullptr;
    const std::string* key = nullptr;
    std::size_t depth = 0;
    std::uint64_t first = 0;  // number of the first child
  };

  bool fail(const std::string& why) {
    error_ = why;
    return false;
  }
  void add(const PlistValue& value, std::size_t depth) {
    nodes_.push_back(Node{&value, value.get<PlistDict>(), nullptr, depth, 0});
  }
  void bigEndian(std::uint64_t v, unsigned size) {
    for (unsigned i = size; i-- > 0;) out_ += static_cast<char>(v >> (8 * i));
  }
  void marker(unsigned type, std::uint64_t count) {
    if (count < 15) {
      out_ += static_cast<char>(type << 4 | count);
      return;
    }
    out_ += static_cast<char>(type << 4 | 0x0F);
    const unsigned size = bytesFor(count);
    out_ += static_cast<char>(0x10 | std::countr_zero(size));
    bigEndian(count, size);
  }
  void refs(std::uint64_t first, std::uint64_t n) {
    for (std::uint64_t i = 0; i < n; ++i) bigEndian(first + i, refSize_);
  }

  // ASCII when it can be, else UTF-16 big-endian.
  bool string(std::string_view s) {
    bool ascii = true;
    for (char c : s) ascii = ascii && static_cast<unsigned char>(c) < 0x80;
    if (ascii) {
      marker(0x5, s.size());
      out_ += s;
      return true;
    }
    std::vector<char16_t> units;
    units.reserve(s.size());
    for (std::size_t i = 0; i < s.size();) {
      char32_t cp = 0;
      const std::size_t len = utf8::decodeAt(s, i, cp);
      if (len == 0) return fail("text that is not UTF-8");
      if (cp >= 0x10000) {
        cp -= 0x10000;
        units.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
        cp = 0xDC00 + (cp & 0x3FF);
      }
      units.push_back(static_cast<char16_t>(cp));
      i += len;
    }
    marker(0x6, units.size());
    for (char16_t u : units) bigEndian(u, 2);
    return true;
  }

  bool write(const Node& node) {
    if (node.key) return string(*node.key);
    if (node.dict) {
      const std::uint64_t n = node.dict->size();
      marker(0xD, n);
      refs(node.first, 2 * n);  // the keys, then the values
      return true;
    }
    const PlistValue& v = *node.value;
    if (auto a = v.get<PlistArray>()) {
      marker(0xA, a->size());
      refs(node.first, a->size());
    } else if (auto s = v.get<std::string>()) {
      return string(*s);
    } else if (auto i = v.get<std::int64_t>()) {
      const unsigned size = *i < 0 ? 8 : bytesFor(static_cast<std::uint64_t>(*i));
      out_ += static_cast<char>(0x10 | std::countr_zero(size));
      bigEndian(static_cast<std::uint64_t>(*i), size);
    } else if (auto u = v.get<std::uint64_t>()) {
      out_ += '\x14';  // 128 bits, the upper half zero
      bigEndian(0, 8);
      bigEndian(*u, 8);
    } else if (auto r = v.get<double>()) {
      out_ += '\x23';
      bigEndian(std::bit_cast<std::uint64_t>(*r), 8);
    } else if (auto b = v.get<bool>()) {
      out_ += *b ? '\x09' : '\x08';
    } else if (auto t = v.get<PlistDate>()) {
      out_ += '\x33';
      bigEndian(std::bit_cast<std::uint64_t>(sinceReference(*t)), 8);
    } else if (auto st = v.get<PlistStoredDate>()) {
      out_ += '\x33';
      bigEndian(std::bit_cast<std::uint64_t>(st->sinceReference), 8);
    } else if (auto d = v.get<PlistData>()) {
      marker(0x4, d->bytes.size());
      out_.append(reinterpret_cast<const char*>(d->bytes.data()), d->bytes.size());
    }
    return true;
  }

  std::string& out_;
  std::string& error_;
  std::vector<Node> nodes_;
  unsigned refSize_ = 1;
};

}  // namespace

Result<PlistValue> readBinary(std::string_view bytes) {
  PlistValue root;
  std::string reason;
  if (!BinaryReader(bytes).read(root, reason)) return Error::described(std::move(reason));
  return root;
}

Result<std::string> writeBinary(const PlistDict& root) {
  std::string out, error;
  if (!BinaryWriter(out, error).document(root)) return Error::described(std::move(error));
  return out;
}

}  // namespace kd::plist
