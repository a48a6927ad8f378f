#include "platform/linux/DesktopEntry.h"

#include "common/Path.h"

namespace kd {

namespace {

// A value of the Exec key: the program quoted, field codes escaped.
std::string quotedExec(const std::string& program) {
  std::string out = "\"";
  for (char c : program) {
    if (c == '"' || c == '`' || c == '$' || c == '\\') out += '\\';
    if (c == '%') out += '%';
    out += c;
  }
  return out + "\"";
}

}  // namespace

std::string programDesktopEntry(const std::string& program) {
  if (program.find_first_of(std::string_view("\n\0", 2)) != std::string::npos) return "";
  return "[Desktop Entry]\nType=Application\nName=" + path::lastComponent(program) +
         "\nExec=" + quotedExec(program) + " %F\nTerminal=false\nNoDisplay=true\n";
}

std::optional<std::string> desktopEntryExec(std::istream& entry) {
  bool inMain = false;
  for (std::string line; std::getline(entry, line);) {
    if (!line.empty() && line[0] == '[') inMain = line == "[Desktop Entry]";
    if (inMain && line.compare(0, 5, "Exec=") == 0) return line.substr(5);
  }
  return std::nullopt;
}

std::vector<std::string> execArguments(const std::string& exec, const std::string& file) {
  std::vector<std::string> words;
  std::string cur;
  bool inWord = false, quoted = false, fileGiven = false;
  for (std::size_t i = 0; i < exec.size(); ++i) {
    char c = exec[i];
    if (quoted) {
      if (i + 1 < exec.size() && (c == '\\' || (c == '%' && exec[i + 1] == '%'))) {
        cur.push_back(exec[++i]);
      } else if (c == '"') {
        quoted = false;
      } else {
        cur.push_back(c);
      }
      continue;
    }
    if (c == '"') {
      quoted = inWord = true;
    } else if (c == ' ' || c == '\t') {
      if (inWord) words.push_back(std::move(cur));
      cur.clear();
      inWord = false;
    } else if (c == '%' && i + 1 < exec.size()) {
      // A dropped code (%i, %c, %k and the deprecated ones) leaves no empty
      // word behind.
      char code = exec[++i];
      if (code == '%') {
        cur.push_back('%');
        inWord = true;
      } else if (code == 'f' || code == 'F' || code == 'u' || code == 'U') {
        cur += file;
        fileGiven = inWord = true;
      }
    } else {
      cur.push_back(c);
      inWord = true;
    }
  }
  if (inWord && !cur.empty()) words.push_back(std::move(cur));
  // Without a program of its own the line would run the file itself.
  if (words.empty()) return words;
  if (!fileGiven) words.push_back(file);
  return words;
}

}  // namespace kd
