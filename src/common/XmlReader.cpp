#include "common/XmlReader.h"

#include "common/Utf8.h"
#include "common/XmlText.h"

namespace kd::xml {

// Text for messages: at most 80 bytes, control characters shown as '?'.
std::string shown(std::string_view s) {
  std::string out(s.substr(0, 80));
  for (char& c : out)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
  if (s.size() > 80) out += "...";
  return out;
}

namespace {}  // namespace

bool PullReader::fail(const std::string& why) {
  if (error_.empty()) error_ = why + " (at byte " + std::to_string(pos_) + ")";
  return false;
}

const PullReader::Attribute* PullReader::attribute(std::string_view name) const {
  for (const Attribute& a : attributes_)
    if (a.name == name) return &a;
  return nullptr;
}

bool PullReader::next(Event& event) {
  if (!started_ && !begin()) return false;
  textSkipped_ = false;
  if (pendingEnd_) {
    pendingEnd_ = false;
    pop();
    event = Event::End;
    return true;
  }
  if (open_.empty() && rootSeen_) {
    if (!skipMisc()) return false;
    if (pos_ != in_.size()) return fail("content after the document's element");
    event = Event::Done;
    return true;
  }
  if (open_.empty()) {
    if (!skipMisc()) return false;
    if (pos_ >= in_.size()) return fail("no document element");
  } else if (!skipContent(nullptr)) {
    return false;
  }
  if (startsWith("</")) {
    if (!endTag()) return false;
    event = Event::End;
    return true;
  }
  if (!startTag()) return false;
  event = Event::Start;
  return true;
}

bool PullReader::readText(std::string& out) {
  out.clear();
  if (pendingEnd_) {
    pendingEnd_ = false;
    pop();
    return true;
  }
  if (!skipContent(&out)) return false;
  if (!startsWith("</")) return fail("an element inside <" + shown(qualified_) + ">");
  return endTag();
}

bool PullReader::skipElement() {
  const std::size_t depth = open_.size();
  Event event;
  while (open_.size() >= depth)
    if (!next(event)) return false;
  return true;
}

bool PullReader::skipPast(std::string_view end) {
  const std::size_t at = in_.find(end, pos_);
  if (at == std::string_view::npos) return fail("unterminated markup");
  pos_ = at + end.size();
  return true;
}

bool PullReader::begin() {
  started_ = true;
  if (in_.size() > limits_.maxBytes)
    return fail("a document larger than " + std::to_string(limits_.maxBytes) + " bytes");
  if (const std::size_t nul = in_.find('\0'); nul != std::string_view::npos) {
    pos_ = nul;
    return fail("a NUL byte");
  }
  if (!utf8::isValid(in_)) return fail("text that is not UTF-8");
  if (const std::size_t unfit = unfitCharacterAt(in_); unfit != std::string_view::npos) {
    pos_ = unfit;
    return fail("a character XML 1.0 does not allow");
  }
  if (startsWith("\xEF\xBB\xBF")) pos_ += 3;
  return true;
}

// White space, comments, processing instructions and (where allowed, before
// the document's element) one document type.
bool PullReader::skipMisc() {
  for (;;) {
    skipSpace();
    if (startsWith("<!--")) {
      if (!skipPast("-->")) return false;
    } else if (startsWith("<?")) {
      if (!skipPast("?>")) return false;
    } else if (startsWith("<!DOCTYPE") && limits_.skipDocumentType && !rootSeen_ &&
               !documentTypeSeen_) {
      if (!skipDocumentType()) return false;
    } else if (startsWith("<!")) {
      return fail("a document type or declaration (not allowed here)");
    } else if (pos_ < in_.size() && in_[pos_] != '<') {
      return fail("text outside the document's element");
    } else {
      return true;
    }
  }
}

// Skipped unread, its internal subset included: nothing it declares is used.
bool PullReader::skipDocumentType() {
  documentTypeSeen_ = true;
  std::size_t brackets = 0;
  for (; pos_ < in_.size(); ++pos_) {
    const char c = in_[pos_];
    if (c == '"' || c == '\'') {
      const std::size_t close = in_.find(c, pos_ + 1);
      if (close == std::string_view::npos) break;
      pos_ = close;
    } else if (c == '[') {
      ++brackets;
    } else if (c == ']' && brackets > 0) {
      --brackets;
    } else if (c == '>' && brackets == 0) {
      ++pos_;
      return true;
    }
  }
  return fail("unterminated document type");
}

// Character data, references, CDATA sections, comments and processing
// instructions up to the next tag, appended to `out` when given.
bool PullReader::skipContent(std::string* out) {
  for (;;) {
    const std::size_t stop = in_.find_first_of("<&\r", pos_);
    if (stop == std::string_view::npos) {
      pos_ = in_.size();
      return fail("unterminated <" + shown(open_.back().name) + ">");
    }
    const std::string_view run = in_.substr(pos_, stop - pos_);
    if (out ? !append(*out, run) : !trimmed(run).empty()) {
      if (out) return false;
      textSkipped_ = true;
    }
    pos_ = stop;
    if (in_[pos_] == '\r') {  // line ends: "\r\n" and "\r" read as "\n"
      if (out && !append(*out, "\n")) return false;
      pos_ += startsWith("\r\n") ? 2 : 1;
    } else if (in_[pos_] == '&') {
      std::string ref;
      if (!reference(ref) || (out && !append(*out, ref))) return false;
      textSkipped_ = textSkipped_ || !out;
    } else if (startsWith("<![CDATA[")) {
      const std::size_t end = in_.find("]]>", pos_ + 9);
      if (end == std::string_view::npos) return fail("unterminated CDATA section");
      if (out && !append(*out, in_.substr(pos_ + 9, end - pos_ - 9))) return false;
      textSkipped_ = textSkipped_ || !out;
      pos_ = end + 3;
    } else if (startsWith("<!--")) {
      if (!skipPast("-->")) return false;
    } else if (startsWith("<?")) {
      if (!skipPast("?>")) return false;
    } else if (startsWith("<!")) {
      return fail("a declaration inside an element");
    } else {
      return true;
    }
  }
}

bool PullReader::append(std::string& out, std::string_view text) {
  if (out.size() + text.size() > limits_.maxText)
    return fail("a text longer than " + std::to_string(limits_.maxText) + " bytes");
  out.append(text);
  return true;
}

// One reference at pos_ ('&'), appended to `out`.
bool PullReader::reference(std::string& out) {
  const std::size_t semicolon = in_.substr(pos_, 12).find(';');
  if (semicolon == std::string_view::npos) return fail("malformed reference");
  const std::string_view ref = in_.substr(pos_ + 1, semicolon - 1);
  if (std::optional<std::string> why = appendReference(ref, out)) return fail(*why);
  pos_ += semicolon + 1;
  return true;
}

std::string_view PullReader::name() {
  const std::size_t start = pos_;
  while (pos_ < in_.size() && !isSpace(in_[pos_]) &&
         std::string_view("/>=<\"'").find(in_[pos_]) == std::string_view::npos)
    ++pos_;
  return in_.substr(start, pos_ - start);
}

void PullReader::skipSpace() {
  while (pos_ < in_.size() && isSpace(in_[pos_])) ++pos_;
}

// An attribute value at pos_ (a quote), references resolved and white space
// characters written as themselves read as spaces.
bool PullReader::attributeValue(std::string& out) {
  const char quote = in_[pos_++];
  for (;;) {
    const std::size_t stop =
        in_.find_first_of(std::string_view(quote == '"' ? "\"<&\t\n\r" : "'<&\t\n\r"), pos_);
    if (stop == std::string_view::npos) return fail("unterminated attribute value");
    if (!append(out, in_.substr(pos_, stop - pos_))) return false;
    pos_ = stop;
    const char c = in_[pos_];
    if (c == quote) {
      ++pos_;
      return true;
    }
    if (c == '<') return fail("'<' in an attribute value");
    if (c == '&') {
      std::string ref;
      if (!reference(ref) || !append(out, ref)) return false;
    } else {
      if (!append(out, " ")) return false;
      pos_ += startsWith("\r\n") ? 2 : 1;
    }
  }
}

bool PullReader::startTag() {
  ++pos_;  // '<'
  const std::string_view tagName = name();
  if (tagName.empty()) return fail("a malformed tag");
  if (open_.size() >= limits_.maxDepth)
    return fail("elements nested deeper than " + std::to_string(limits_.maxDepth));
  attributes_.clear();
  const std::size_t declarations = declarations_.size();
  bool empty = false;
  for (;;) {
    const std::size_t before = pos_;
    skipSpace();
    if (pos_ >= in_.size()) return fail("an unterminated tag");
    if (in_[pos_] == '>') {
      ++pos_;
      break;
    }
    if (startsWith("/>")) {
      pos_ += 2;
      empty = true;
      break;
    }
    if (pos_ == before) return fail("a malformed tag");
    Attribute attr;
    attr.name = name();
    skipSpace();
    if (attr.name.empty() || pos_ >= in_.size() || in_[pos_] != '=')
      return fail("a malformed attribute");
    ++pos_;
    skipSpace();
    if (pos_ >= in_.size() || (in_[pos_] != '"' && in_[pos_] != '\''))
      return fail("an attribute value without quotes");
    if (!attributeValue(attr.value)) return false;
    if (attributes_.size() >= limits_.maxAttributes) return fail("too many attributes");
    for (const Attribute& a : attributes_)
      if (a.name == attr.name) return fail("an attribute given twice");
    if (attr.name == "xmlns")
      declarations_.push_back({"", attr.value});
    else if (attr.name.starts_with("xmlns:"))
      declarations_.push_back({attr.name.substr(6), attr.value});
    attributes_.push_back(std::move(attr));
  }
  open_.push_back({tagName, declarations});
  rootSeen_ = true;
  qualified_ = tagName;
  const std::size_t colon = tagName.find(':');
  const std::string_view prefix =
      colon == std::string_view::npos ? std::string_view() : tagName.substr(0, colon);
  local_ = colon == std::string_view::npos ? tagName : tagName.substr(colon + 1);
  ns_.clear();
  bool bound = prefix.empty();
  for (std::size_t i = declarations_.size(); i-- > 0;) {
    if (declarations_[i].prefix == prefix) {
      ns_ = declarations_[i].uri;
      bound = true;
      break;
    }
  }
  if (!bound) return fail("an unbound namespace prefix");
  pendingEnd_ = empty;
  return true;
}

bool PullReader::endTag() {
  pos_ += 2;  // "</"
  const std::string_view tagName = name();
  skipSpace();
  if (pos_ >= in_.size() || in_[pos_] != '>') return fail("a malformed end tag");
  ++pos_;
  if (open_.empty() || open_.back().name != tagName)
    return fail("an unexpected </" + shown(tagName) + ">");
  pop();
  return true;
}

void PullReader::pop() {
  declarations_.resize(open_.back().declarations);
  open_.pop_back();
}

}  // namespace kd::xml
