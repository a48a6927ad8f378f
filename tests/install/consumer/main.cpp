// An application of its own that uses the installed Kd library.
#include <kd/auth/KdAuthorization.h>
#include <kd/files/KdFileManager.h>
#include <kd/paths/KdLocalPaths.h>

#include <iostream>

int main(int argc, char** argv) {
  const std::string folder = argc > 1 ? argv[1] : "/";
  std::cout << "guard /usr: " << KdLocalPaths::isPathSystemDirectory("/usr", true) << '\n';
  for (const std::string& path : KdFileManager::filesMatchingWildcardPath("*.txt", folder))
    std::cout << "match: " << path << '\n';
  // Found through the installed library's own folder: this program lies
  // elsewhere.
  std::cout << "privileged helper: " << KdAuthorization::privilegedHelperPath().value_or("none")
            << '\n';
  return 0;
}
