// Decoding captured output as text. Tool output is never refused for a bad
// byte: what cannot be decoded shows as U+FFFD, so the rest stays readable.
#include "common/Utf8.h"
#include "tasks/KdTaskEx.h"

using kd::utf8::kReplacement;

std::optional<std::string> KdTaskEx::stringFromData(std::string_view data,
                                                    StringEncoding encoding) {
  std::string out;
  out.reserve(data.size());
  switch (encoding) {
    case ASCIIStringEncoding:
      for (char c : data) {
        if (static_cast<unsigned char>(c) < 0x80) {
          out.push_back(c);
        } else {
          out.append(kReplacement);
        }
      }
      return out;
    case UTF8StringEncoding:
      return kd::utf8::withBytesReplaced(data);
    case ISOLatin1StringEncoding:
      for (char c : data) kd::utf8::appendCodePoint(out, static_cast<unsigned char>(c));
      return out;
    default:
      return std::nullopt;
  }
}
