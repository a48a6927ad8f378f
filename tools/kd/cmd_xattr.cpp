// kd xattr: list, read or write a file's extended attributes.
#include <cerrno>
#include <cstring>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "Commands.h"
#include "files/KdFileManager.h"
#include "platform/Platform.h"

namespace {

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
  std::cerr << "kd xattr: " << path << ": " << reason << std::endl;
  kd::tool::exitWith(1);
}

void setupXattr(CLI::App& app) {
  auto* cmd = app.add_subcommand("xattr", "List, read or write extended attributes of a file");
  static std::string path;
  static std::optional<std::string> key, value;
  cmd->add_option("PATH", path, "File or folder")->required();
  cmd->add_option("KEY", key, "Attribute name (without a name space: \"user.\")");
  cmd->add_option("VALUE", value, "Text to store under KEY");
  cmd->footer(
      "With PATH only: the attribute names, one per line. With KEY: its value.\n"
      "With KEY and VALUE: stores the value. Exits 1 when the path does not\n"
      "exist, the attribute is missing, or the value cannot be stored.");
  cmd->callback([] {
    if (!KdFileManager::fileExistsAtPath(path)) fail(path, "No such file or directory");
    auto& metadata = kd::platform().fileMetadata();
    if (!key) {
      auto names = metadata.listExtendedAttributes(path);
      if (!names)
        fail(path, std::string("cannot list the attributes (") + std::strerror(errno) + ")");
      for (const auto& n : *names) std::cout << n << '\n';
    } else if (!value) {
      std::int64_t size = metadata.getExtendedAttribute(path, *key, nullptr, 0);
      std::string bytes(size > 0 ? static_cast<std::size_t>(size) : 0, '\0');
      if (size > 0) size = metadata.getExtendedAttribute(path, *key, bytes.data(), bytes.size());
      if (size < 0) fail(path, "no attribute " + *key + " (" + std::strerror(errno) + ")");
      bytes.resize(static_cast<std::size_t>(size));
      std::cout << bytes << '\n';
    } else if (metadata.setExtendedAttribute(path, *key, *value) != 0) {
      fail(path, "cannot store " + *key + " (" + std::strerror(errno) + ")");
    }
    std::cout.flush();
  });
}

}  // namespace
KD_COMMAND(setupXattr);
