#include "common/Path.h"

namespace kd::path {

namespace {
// Folds runs of "/" and drops one trailing "/" unless the whole path is "/".
std::string standardise(std::string s) {
  std::string out;
  out.reserve(s.size());
  for (char c : s) {
    if (c == '/' && !out.empty() && out.back() == '/') continue;
    out.push_back(c);
  }
  if (out.size() > 1 && out.back() == '/') out.pop_back();
  return out;
}
}  // namespace

std::string append(std::string_view base, std::string_view component) {
  if (base.empty()) return standardise(std::string(component));
  if (component.empty()) return standardise(std::string(base));
  std::string joined(base);
  joined.push_back('/');
  joined.append(component);
  return standardise(std::move(joined));
}

std::optional<std::string> append(const std::optional<std::string>& base,
                                  std::string_view component) {
  if (!base) return std::nullopt;
  return append(std::string_view(*base), component);
}

std::vector<std::string> components(std::string_view path) {
  std::vector<std::string> out;
  if (path.empty()) return out;
  std::size_t i = 0;
  if (path[0] == '/') {
    out.emplace_back("/");
    while (i < path.size() && path[i] == '/') ++i;
  }
  while (i < path.size()) {
    std::size_t j = path.find('/', i);
    if (j == std::string_view::npos) {
      out.emplace_back(path.substr(i));
      break;
    }
    out.emplace_back(path.substr(i, j - i));
    while (j < path.size() && path[j] == '/') ++j;
    if (j == path.size()) {
      out.emplace_back("/");
      break;
    }
    i = j;
  }
  return out;
}

std::string lastComponent(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  if (path == "/") return "/";
  std::size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::string extension(std::string_view path) {
  std::string name = lastComponent(path);
  std::size_t dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0 || name == "/") return "";
  return name.substr(dot + 1);
}

std::string deletingLastComponent(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return "";
  if (slash == 0) return "/";
  return standardise(std::string(path.substr(0, slash)));
}

}  // namespace kd::path
