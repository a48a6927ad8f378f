// The desktop's side of the system: applications (running, bundled, opening
// files with them, making them known), packages, and notices of changed
// folders.
//
// One of the small service interfaces that `Platform::desktop()` hands out.
// `ForwardingDesktop` forwards every call so that a fake overrides only what
// it needs. Implementations are stateless and callable from any thread.
#pragma once

#include "../KdExport.h"

#include <optional>
#include <string>
#include <string_view>

namespace kd {

class KD_EXPORT Desktop {
 public:
  virtual ~Desktop() = default;

  // --- Applications -----------------------------------------------------
  // Whether an application with this bundle identifier runs for this user.
  virtual bool isApplicationRunning(std::string_view bundleIdentifier) = 0;
  // The path of an application shipped among the program's own resources
  // ("Bug Reporter" -> Resources/Bug Reporter.app on macOS, an executable
  // Resources/Bug Reporter on Linux); none when it is not there.
  virtual std::optional<std::string> bundledApplication(const std::string& name) = 0;
  // Opens a file with the application at `applicationPath` without waiting.
  virtual bool openFileWithApplication(const std::string& file,
                                       const std::string& applicationPath) = 0;
  // Opens a file with the application of a bundle identifier without waiting.
  virtual bool openFileWithBundleIdentifier(const std::string& file,
                                            std::string_view bundleIdentifier) = 0;
  // Makes an application known to the desktop so that files can be opened
  // with it; true when it was registered.
  virtual bool registerApplication(const std::string& path) = 0;

  // --- Files and folders ------------------------------------------------
  // Whether the path is a bundle or package directory.
  virtual bool isFilePackage(const std::string& path) = 0;
  // Tells file browsers that the contents at `path` changed (noteFileSystemChanged).
  virtual void noteFileSystemChanged(const std::string& path) = 0;
};

class KD_EXPORT ForwardingDesktop : public Desktop {
 public:
  explicit ForwardingDesktop(Desktop& target) : target_(target) {}
  bool isApplicationRunning(std::string_view bundleIdentifier) override {
    return target_.isApplicationRunning(bundleIdentifier);
  }
  std::optional<std::string> bundledApplication(const std::string& name) override {
    return target_.bundledApplication(name);
  }
  bool openFileWithApplication(const std::string& file,
                               const std::string& applicationPath) override {
    return target_.openFileWithApplication(file, applicationPath);
  }
  bool openFileWithBundleIdentifier(const std::string& file,
                                    std::string_view bundleIdentifier) override {
    return target_.openFileWithBundleIdentifier(file, bundleIdentifier);
  }
  bool registerApplication(const std::string& path) override {
    return target_.registerApplication(path);
  }
  bool isFilePackage(const std::string& path) override { return target_.isFilePackage(path); }
  void noteFileSystemChanged(const std::string& path) override {
    target_.noteFileSystemChanged(path);
  }

 protected:
  Desktop& target() { return target_; }

 private:
  Desktop& target_;
};

}  // namespace kd
