// The one XML reader of the project: a bounded pull reader for the files it
// reads from disks it does not trust (property lists, hash lists). It hands
// out one start or end tag at a time, with the element's name, namespace and
// attributes, and the text of an element on request.
//
// Hostile input can neither crash nor stall it: open elements and namespace
// declarations live on stacks of its own (never the call stack), bounded by
// Limits::maxDepth; every scan moves forward, so the work is linear in the
// input; texts and attribute counts are bounded. Only the five predefined
// entities and character references are known. A document type is refused, or
// skipped unread where Limits allows it, so no entity is ever defined or
// expanded and nothing is fetched. Bytes that are not UTF-8 and characters
// XML 1.0 does not allow (NUL included) refuse the whole document.
//
// Ownership: borrows the input for its lifetime. Not thread-safe; one owner.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kd::xml {

struct Limits {
  std::size_t maxBytes = std::size_t{512} << 20;  // the whole document
  std::size_t maxDepth = 64;                      // open elements
  std::size_t maxAttributes = 64;                 // on one element
  std::size_t maxText = std::size_t{64} << 10;    // one text or attribute value
  bool skipDocumentType = false;                  // else a document type is refused
};

class PullReader {
 public:
  enum class Event { Start, End, Done };
  struct Attribute {
    std::string_view name;  // as written, prefix included
    std::string value;      // references resolved, white space normalised
  };

  explicit PullReader(std::string_view in, Limits limits = {}) : in_(in), limits_(limits) {}

  // The first reason the document was refused ("... (at byte N)").
  const std::string& error() const { return error_; }
  // Records `why` (the first one wins) and answers false.
  bool fail(const std::string& why);

  // The next start or end tag, or Done after the document's element (only
  // comments, processing instructions and white space may follow it). Text
  // between tags is checked and dropped; textSkipped() tells whether there
  // was any besides white space.
  bool next(Event& event);
  bool textSkipped() const { return textSkipped_; }

  // The element just started: its name as written, its local name, its
  // namespace and its attributes.
  std::string_view qualifiedName() const { return qualified_; }
  std::string_view localName() const { return local_; }
  std::string_view ns() const { return ns_; }
  const Attribute* attribute(std::string_view name) const;

  // The text of the element just started, up to and including its end tag;
  // a child element is refused.
  bool readText(std::string& out);
  // Skips the rest of the element just started, children included.
  bool skipElement();

 private:
  struct Open {
    std::string_view name;
    std::size_t declarations;  // declarations_.size() before this element's
  };
  struct Declaration {
    std::string_view prefix;
    std::string uri;
  };

  bool startsWith(std::string_view s) const { return in_.substr(pos_).starts_with(s); }
  bool skipPast(std::string_view end);
  bool begin();
  bool skipMisc();
  bool skipDocumentType();
  bool skipContent(std::string* out);
  bool append(std::string& out, std::string_view text);
  bool reference(std::string& out);
  std::string_view name();
  void skipSpace();
  bool attributeValue(std::string& out);
  bool startTag();
  bool endTag();
  void pop();

  std::string_view in_;
  Limits limits_;
  std::size_t pos_ = 0;
  std::string error_;
  bool started_ = false;
  bool rootSeen_ = false;
  bool documentTypeSeen_ = false;
  bool pendingEnd_ = false;  // the element just started was empty (<name/>)
  bool textSkipped_ = false;
  std::vector<Open> open_;
  std::vector<Declaration> declarations_;
  std::vector<Attribute> attributes_;
  std::string_view qualified_, local_;
  std::string ns_;
};

// Text for messages: at most 80 bytes, control characters shown as '?'.
std::string shown(std::string_view s);

}  // namespace kd::xml
