#include "Output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <streambuf>

#include "common/UniqueFd.h"
#include "common/Utf8.h"

namespace kd::tool {

namespace {

// A stream buffer over a descriptor that remembers the first failed write and
// drops everything after it.
class DataBuffer : public std::streambuf {
 public:
  explicit DataBuffer(UniqueFd fd) : fd_(std::move(fd)) { setp(buffer_, buffer_ + sizeof buffer_); }
  bool failed() const { return failed_; }

 protected:
  int_type overflow(int_type ch) override {
    if (!drain()) return traits_type::eof();
    if (!traits_type::eq_int_type(ch, traits_type::eof())) {
      *pptr() = traits_type::to_char_type(ch);
      pbump(1);
    }
    return traits_type::not_eof(ch);
  }
  int sync() override { return drain() ? 0 : -1; }

 private:
  bool drain() {
    const char* p = pbase();
    std::size_t left = static_cast<std::size_t>(pptr() - pbase());
    while (left > 0 && !failed_) {
      ssize_t n = retryOnEintr([&] { return ::write(fd_.get(), p, left); });
      if (n <= 0) {
        failed_ = true;
        break;
      }
      p += n;
      left -= static_cast<std::size_t>(n);
    }
    setp(buffer_, buffer_ + sizeof buffer_);
    return !failed_;
  }

  UniqueFd fd_;
  bool failed_ = false;
  char buffer_[64 * 1024];
};

DataBuffer* data = nullptr;
char recordEnd = '\n';

}  // namespace

void separateDataFromMessages() {
  std::fflush(stdout);
  UniqueFd out(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
  // Without a standard output the data has nowhere to go: writes fail and the
  // command ends with a write error.
  // Never destroyed: std::cout is flushed once more when the process ends.
  data = new DataBuffer(std::move(out));
  std::cout.rdbuf(data);
  ::dup2(STDERR_FILENO, STDOUT_FILENO);
}

bool finishData() {
  std::cout.flush();
  if (data && data->failed()) {
    std::cerr << "kd: write error" << std::endl;
    return false;
  }
  return true;
}

void addNullOption(CLI::App* command) {
  command->add_flag_callback(
      "-z,--null", [] { recordEnd = '\0'; },
      "End each record with a NUL instead of a line end (for names that hold line ends)");
}

void record(std::string_view text) {
  std::cout.write(text.data(), static_cast<std::streamsize>(text.size()));
  std::cout.put(recordEnd);
}

std::string jsonString(std::string_view text) {
  std::string out = "\"";
  for (std::size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    const std::size_t length = kd::utf8::validSequenceAt(text, i);
    if (length == 0) {
      out += "\\ufffd";
      ++i;
      continue;
    }
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", c);
      out += escape;
    } else {
      out.append(text, i, length);
    }
    i += length;
  }
  return out + "\"";
}

}  // namespace kd::tool
