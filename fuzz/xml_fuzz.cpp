// The shared XML reader: any bytes are read to the end, with and without a
// skipped document type, the first bytes choosing which elements have their
// text read and which are skipped whole. Every input ends in Done or a
// reason, never a crash, a hang or unbounded memory; and the reader never
// answers past the end of the document.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "common/XmlReader.h"

namespace {

void read(std::string_view bytes, std::uint8_t choices, bool skipDocumentType) {
  kd::xml::Limits limits;
  limits.maxDepth = 32;
  limits.maxText = 4096;
  limits.skipDocumentType = skipDocumentType;
  kd::xml::PullReader x(bytes, limits);
  kd::xml::PullReader::Event event;
  for (unsigned step = 0;; ++step) {
    if (!x.next(event)) {
      if (x.error().empty()) std::abort();
      return;
    }
    if (event == kd::xml::PullReader::Event::Done) {
      if (x.next(event) && event != kd::xml::PullReader::Event::Done) std::abort();
      return;
    }
    if (event != kd::xml::PullReader::Event::Start) continue;
    const unsigned choice = (choices >> (step % 4 * 2)) & 3;
    std::string text;
    bool ok = true;
    if (choice == 1)
      ok = x.readText(text) && text.size() <= limits.maxText;
    else if (choice == 2)
      ok = x.skipElement();
    if (!ok) {
      if (x.error().empty()) std::abort();
      return;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view bytes(reinterpret_cast<const char*>(data + 1), size - 1);
  read(bytes, data[0], false);
  read(bytes, data[0], true);
  return 0;
}
