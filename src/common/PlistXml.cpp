// The XML form: a reader over the shared pull reader that keeps its open
// containers on a stack of its own (no recursion, so no depth of input can
// exhaust the thread's stack) and a writer whose text strict XML 1.0 readers
// accept.
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <optional>
#include <vector>

#include "common/DateText.h"
#include "common/PlistCodec.h"
#include "common/Utf8.h"
#include "common/XmlReader.h"
#include "common/XmlText.h"

namespace kd::plist {

namespace {

using xml::trimmed;

constexpr char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int base64Digit(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

bool decodeBase64(std::string_view text, std::vector<std::uint8_t>& out) {
  out.reserve(text.size() / 4 * 3);
  std::uint32_t acc = 0;
  int bits = 0, padding = 0;
  for (char c : text) {
    if (xml::isSpace(c)) continue;
    if (c == '=') {
      ++padding;
      continue;
    }
    const int digit = base64Digit(c);
    if (digit < 0 || padding > 0) return false;
    acc = (acc << 6) | static_cast<std::uint32_t>(digit);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<std::uint8_t>(acc >> bits));
      acc &= (1u << bits) - 1;
    }
  }
  return bits < 6 && padding <= 2;  // one digit alone carries no whole byte
}

bool parseInteger(std::string_view text, PlistValue& out) {
  text = trimmed(text);
  bool negative = false;
  if (!text.empty() && (text[0] == '-' || text[0] == '+')) {
    negative = text[0] == '-';
    text.remove_prefix(1);
  }
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    text.remove_prefix(2);
  }
  std::uint64_t magnitude = 0;
  const char* end = text.data() + text.size();
  auto [stop, ec] = std::from_chars(text.data(), end, magnitude, base);
  if (text.empty() || ec != std::errc() || stop != end) return false;  // overflow included
  if (!negative) {
    out = PlistValue(magnitude);
    return true;
  }
  if (magnitude > static_cast<std::uint64_t>(INT64_MAX) + 1) return false;
  out = PlistValue(static_cast<std::int64_t>(~magnitude + 1));
  return true;
}

bool parseReal(std::string_view text, double& out) {
  text = trimmed(text);
  std::string word(text);
  for (char& c : word) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  bool negative = false;
  std::string_view rest = word;
  if (!rest.empty() && (rest[0] == '-' || rest[0] == '+')) {
    negative = rest[0] == '-';
    rest.remove_prefix(1);
  }
  if (rest == "nan") {
    out = std::nan("");
  } else if (rest == "inf" || rest == "infinity") {
    out = HUGE_VAL;
  } else {
    const char* end = rest.data() + rest.size();
    auto [stop, ec] = std::from_chars(rest.data(), end, out, std::chars_format::general);
    if (rest.empty() || rest[0] == '-' || rest[0] == '+' || ec != std::errc() || stop != end)
      return false;
  }
  if (negative) out = -out;
  return true;
}

// "YYYY-MM-DDTHH:MM:SSZ", a real date and time of the years 0-9999.
bool parseDate(std::string_view text, PlistValue& out) {
  text = trimmed(text);
  const std::optional<long long> since1970 = xml::dateTimeSeconds(text);
  if (text.size() != 20 || text[19] != 'Z' || !since1970) return false;
  out = dateValue(static_cast<double>(*since1970 - kReferenceSince1970));
  return true;
}

// Reads a document through the shared pull reader. Open containers live on
// `stack_`, never on the call stack.
class PlistReader {
 public:
  explicit PlistReader(std::string_view in) : x_(in, limits()) {}

  bool read(PlistValue& root, std::string& reason) {
    if (!document()) {
      reason = x_.error();
      return false;
    }
    root = std::move(*result_);
    return true;
  }

 private:
  using Event = xml::PullReader::Event;
  struct Frame {
    PlistValue container;
    std::string key;
    bool haveKey = false;
  };

  static xml::Limits limits() {
    xml::Limits limits;
    limits.maxBytes = std::numeric_limits<std::size_t>::max();  // the file's own bound holds
    limits.maxDepth = kPlistMaxDepth + 2;  // <plist> and a value's element around the containers
    limits.maxText = std::numeric_limits<std::size_t>::max();  // <data> may be large
    limits.skipDocumentType = true;
    return limits;
  }

  bool fail(const std::string& why) { return x_.fail(why); }

  // The next start or end tag; text between them is not part of a property list.
  bool next(Event& event) {
    if (!x_.next(event)) return false;
    return !x_.textSkipped() || fail("text outside an element");
  }

  bool attach(PlistValue value) {
    if (stack_.empty()) {
      if (result_) return fail("more than one value at the root");
      result_ = std::move(value);
      return true;
    }
    Frame& top = stack_.back();
    if (auto* array = top.container.get<PlistArray>()) {
      array->push_back(std::move(value));
      return true;
    }
    if (!top.haveKey) return fail("a dictionary value without a key");
    top.container.get<PlistDict>()->insert_or_assign(std::move(top.key), std::move(value));
    top.key.clear();
    top.haveKey = false;
    return true;
  }

  bool scalar(std::string_view name, PlistValue& value) {
    if (name != "string" && name != "integer" && name != "real" && name != "date" &&
        name != "data" && name != "true" && name != "false")
      return fail("unknown element <" + std::string(name) + ">");
    std::string text;
    if (!x_.readText(text)) return false;
    bool ok = true;
    if (name == "string") {
      value = std::move(text);
    } else if (name == "integer") {
      ok = parseInteger(text, value);
    } else if (name == "real") {
      double d = 0;
      ok = parseReal(text, d);
      value = d;
    } else if (name == "date") {
      ok = parseDate(text, value);
    } else if (name == "data") {
      PlistData data;
      ok = decodeBase64(text, data.bytes);
      value = std::move(data);
    } else {
      ok = trimmed(text).empty();
      value = name == "true";
    }
    return ok || fail("malformed <" + std::string(name) + ">");
  }

  bool document() {
    Event event;
    if (!next(event)) return false;
    const bool wrapped = x_.qualifiedName() == "plist";
    if (wrapped && (!next(event) || event != Event::Start)) return fail("an empty <plist>");
    for (;;) {
      if (event == Event::End) {
        // The reader matched the end tag with its start: a container's.
        if (stack_.empty() || stack_.back().haveKey) return fail("an unexpected end tag");
        PlistValue done = std::move(stack_.back().container);
        stack_.pop_back();
        if (!attach(std::move(done))) return false;
      } else if (const std::string_view name = x_.qualifiedName(); name == "key") {
        if (stack_.empty() || !stack_.back().container.is<PlistDict>() || stack_.back().haveKey)
          return fail("a misplaced <key>");
        Frame& top = stack_.back();
        if (!x_.readText(top.key)) return false;
        top.haveKey = true;
      } else if (name == "dict" || name == "array") {
        if (!stack_.empty() && stack_.back().container.is<PlistDict>() && !stack_.back().haveKey)
          return fail("a dictionary value without a key");
        if (stack_.size() >= kPlistMaxDepth)
          return fail("containers nested deeper than " + std::to_string(kPlistMaxDepth));
        stack_.push_back(
            Frame{name == "dict" ? PlistValue(PlistDict{}) : PlistValue(PlistArray{}), {}, false});
      } else {
        PlistValue value;
        if (!scalar(name, value) || !attach(std::move(value))) return false;
      }
      if (stack_.empty() && result_) break;
      if (!next(event)) return false;
      if (event == Event::Done) return fail("unexpected end of the document");
    }
    if (wrapped && (!next(event) || event != Event::End))
      return fail("more than one value in <plist>");
    return next(event) && (event == Event::Done || fail("content after the property list"));
  }

  xml::PullReader x_;
  std::vector<Frame> stack_;
  std::optional<PlistValue> result_;
};

// A key for messages: control characters shown as '?'.
std::string printable(std::string_view key) {
  std::string out(key.substr(0, 80));
  for (char& c : out)
    if (static_cast<unsigned char>(c) < 0x20) c = '?';
  return out;
}

// Writes a document. Recursion is bounded: containers deeper than
// kPlistMaxDepth are refused.
class XmlWriter {
 public:
  XmlWriter(std::string& out, std::string& error) : out_(out), error_(error) {}

  bool document(const PlistDict& root) {
    out_ +=
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
        "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
        "<plist version=\"1.0\">\n";
    if (!dict(root, 0)) return false;
    out_ += "</plist>\n";
    return true;
  }

 private:
  bool fail(const std::string& why) {
    error_ = where_.empty() ? why : "the value of \"" + printable(where_) + "\": " + why;
    return false;
  }
  void indent(std::size_t level) { out_.append(level, '\t'); }

  // NUL, the other control characters and U+FFFE/U+FFFF cannot be carried by
  // XML 1.0 at all, not even as references: such text is refused rather than
  // altered (the binary form holds it).
  bool text(std::string_view s) {
    if (!utf8::isValid(s)) return fail("text that is not UTF-8");
    return xml::appendEscaped(out_, s) ||
           fail("a character XML 1.0 cannot carry (the binary form can)");
  }

  bool date(double since1970) {
    const bool inRange = std::isfinite(since1970) && std::fabs(since1970) < 1e12;
    const CivilTime c = civilFromSeconds(inRange ? static_cast<long long>(since1970) : 0);
    if (!inRange || c.year < 0 || c.year > 9999)
      return fail("a date outside the years 0-9999 (the binary form can hold it)");
    char buf[96];
    std::snprintf(buf, sizeof buf, "<date>%04lld-%02u-%02uT%02u:%02u:%02uZ</date>\n", c.year,
                  c.month, c.day, c.hour, c.minute, c.second);
    out_ += buf;
    return true;
  }

  template <class Number>
  void number(const char* element, Number n) {
    char buf[64];
    auto [end, ec] = std::to_chars(buf, buf + sizeof buf, n);
    out_.append("<").append(element).append(">");
    out_.append(buf, ec == std::errc() ? end : buf);
    out_.append("</").append(element).append(">\n");
  }

  void data(const PlistData& d, std::size_t level) {
    out_ += "<data>\n";
    const std::vector<std::uint8_t>& b = d.bytes;
    std::string line;
    for (std::size_t i = 0; i < b.size(); i += 3) {
      const std::uint32_t n =
          (b[i] << 16) | (i + 1 < b.size() ? b[i + 1] << 8 : 0) | (i + 2 < b.size() ? b[i + 2] : 0);
      line += kBase64[n >> 18];
      line += kBase64[(n >> 12) & 63];
      line += i + 1 < b.size() ? kBase64[(n >> 6) & 63] : '=';
      line += i + 2 < b.size() ? kBase64[n & 63] : '=';
      if (line.size() == 68 || i + 3 >= b.size()) {
        indent(level);
        out_.append(line).append("\n");
        line.clear();
      }
    }
    indent(level);
    out_ += "</data>\n";
  }

  bool dict(const PlistDict& d, std::size_t level) {
    if (level >= kPlistMaxDepth)
      return fail("containers nested deeper than " + std::to_string(kPlistMaxDepth));
    indent(level);
    if (d.empty()) {
      out_ += "<dict/>\n";
      return true;
    }
    out_ += "<dict>\n";
    const std::string outer = where_;
    for (const auto& [key, value] : d) {
      where_ = key;
      indent(level + 1);
      out_ += "<key>";
      if (!text(key)) return false;
      out_ += "</key>\n";
      if (!this->value(value, level + 1)) return false;
    }
    where_ = outer;
    indent(level);
    out_ += "</dict>\n";
    return true;
  }

  bool value(const PlistValue& v, std::size_t level) {
    if (auto d = v.get<PlistDict>()) return dict(*d, level);
    if (auto a = v.get<PlistArray>()) {
      if (level >= kPlistMaxDepth)
        return fail("containers nested deeper than " + std::to_string(kPlistMaxDepth));
      indent(level);
      if (a->empty()) {
        out_ += "<array/>\n";
        return true;
      }
      out_ += "<array>\n";
      for (const PlistValue& item : *a)
        if (!value(item, level + 1)) return false;
      indent(level);
      out_ += "</array>\n";
      return true;
    }
    indent(level);
    if (auto s = v.get<std::string>()) {
      out_ += "<string>";
      if (!text(*s)) return false;
      out_ += "</string>\n";
    } else if (auto i = v.get<std::int64_t>()) {
      number("integer", *i);
    } else if (auto u = v.get<std::uint64_t>()) {
      number("integer", *u);
    } else if (auto r = v.get<double>()) {
      if (std::isnan(*r))
        out_ += "<real>nan</real>\n";
      else if (std::isinf(*r))
        out_ += *r > 0 ? "<real>+infinity</real>\n" : "<real>-infinity</real>\n";
      else
        number("real", *r);
    } else if (auto b = v.get<bool>()) {
      out_ += *b ? "<true/>\n" : "<false/>\n";
    } else if (auto t = v.get<PlistDate>()) {
      // Whole seconds: the form has no fraction.
      return date(static_cast<double>(
          std::chrono::floor<std::chrono::seconds>(*t).time_since_epoch().count()));
    } else if (auto st = v.get<PlistStoredDate>()) {
      return date(std::floor(st->sinceReference) + kReferenceSince1970);
    } else if (auto d = v.get<PlistData>()) {
      data(*d, level);
    }
    return true;
  }

  std::string& out_;
  std::string& error_;
  std::string where_;
};

}  // namespace

Result<PlistValue> readXml(std::string_view bytes) {
  PlistValue root;
  std::string reason;
  if (!PlistReader(bytes).read(root, reason)) return Error::described(std::move(reason));
  return root;
}

Result<std::string> writeXml(const PlistDict& root) {
  std::string out, error;
  if (!XmlWriter(out, error).document(root)) return Error::described(std::move(error));
  return out;
}

}  // namespace kd::plist
