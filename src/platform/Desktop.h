// What the desktop learns from the library: changed folders and installed
// applications.
//
// One of the small service interfaces that `Platform::desktop()` hands out.
// `ForwardingDesktop` forwards every call so that a fake overrides only what
// it needs. Implementations are stateless and callable from any thread.
#pragma once

#include "../KdExport.h"

#include <string>

namespace kd {

class KD_EXPORT Desktop {
 public:
  virtual ~Desktop() = default;
  // Tells file browsers that the contents at `path` changed (noteFileSystemChanged).
  virtual void noteFileSystemChanged(const std::string& path) = 0;
  // Makes an application known to the desktop so that files can be opened
  // with it; true when it was registered.
  virtual bool registerApplication(const std::string& path) = 0;
};

class KD_EXPORT ForwardingDesktop : public Desktop {
 public:
  explicit ForwardingDesktop(Desktop& target) : target_(target) {}
  void noteFileSystemChanged(const std::string& path) override {
    target_.noteFileSystemChanged(path);
  }
  bool registerApplication(const std::string& path) override {
    return target_.registerApplication(path);
  }

 protected:
  Desktop& target() { return target_; }

 private:
  Desktop& target_;
};

}  // namespace kd
