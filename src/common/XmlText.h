// Text rules shared by the project's small XML readers (property lists, hash
// lists). Pure functions; callable from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kd::xml {

// Appends what the reference `ref` (the text between '&' and ';') stands
// for: one of the five predefined entities or a character reference to a
// character XML allows. Otherwise appends nothing and answers why.
std::optional<std::string> appendReference(std::string_view ref, std::string& out);

}  // namespace kd::xml
