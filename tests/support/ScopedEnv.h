// Sets environment variables (or unsets them, for no value) for a scope and
// restores what was there. Single-threaded use from a test.
#pragma once

#include <stdlib.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kd::test {

class ScopedEnv {
 public:
  using Value = std::optional<std::string>;
  ScopedEnv(std::vector<std::string> names, const std::vector<Value>& values)
      : names_(std::move(names)) {
    for (const auto& n : names_)
      saved_.push_back(getenv(n.c_str()) ? Value(getenv(n.c_str())) : std::nullopt);
    apply(values);
  }
  ~ScopedEnv() { apply(saved_); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  void apply(const std::vector<Value>& values) const {
    for (std::size_t i = 0; i < names_.size() && i < values.size(); ++i)
      values[i] ? setenv(names_[i].c_str(), values[i]->c_str(), 1) : unsetenv(names_[i].c_str());
  }
  std::vector<std::string> names_;
  std::vector<Value> saved_;
};

}  // namespace kd::test
