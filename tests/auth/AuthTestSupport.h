// Test access to KdAuthorization (fresh instances beside the shared one) and
// platform fakes for its privilege service.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "auth/KdAuthorization.h"
#include "platform/Privilege.h"
#include "support/FakeMacPlatform.h"
#include "support/Process.h"
#include "support/TempDir.h"

struct KdAuthorizationTestAccess {
  struct Deleter {
    void operator()(KdAuthorization* auth) const { delete auth; }
  };
  using Owned = std::unique_ptr<KdAuthorization, Deleter>;
  // A fresh instance, created as the shared one would be.
  static Owned make(bool withGUI) { return Owned(new KdAuthorization(withGUI)); }
  // The co-process of the session; 0 when there is none.
  static int coProcessId(KdAuthorization& auth) {
    auto channel = auth.liveChannel();
    return channel ? channel->coProcessId() : 0;
  }
};

namespace kd::test {

// Counts the co-processes started, and otherwise does what the real service does.
class CountingPrivilege : public ForwardingPrivilegeService {
 public:
  CountingPrivilege() : ForwardingPrivilegeService(nativePlatform().privilege()) {}
  PrivilegeOpening openWithPassword(const std::string& helper, const std::string& pw) override {
    return counted(ForwardingPrivilegeService::openWithPassword(helper, pw));
  }
  PrivilegeOpening openInteractively(const std::string& helper) override {
    return counted(ForwardingPrivilegeService::openInteractively(helper));
  }
  PrivilegeOpening openInherited(const std::string& helper) override {
    return counted(ForwardingPrivilegeService::openInherited(helper));
  }
  std::atomic<int> started{0};

 private:
  PrivilegeOpening counted(PrivilegeOpening opening) {
    if (opening.channel) ++started;
    return opening;
  }
};

// The macOS-answering fake with a privilege service of the test's choosing.
class PrivilegeFakePlatform : public FakeMacPlatform {
 public:
  explicit PrivilegeFakePlatform(PrivilegeService& service) : service_(service) {}
  PrivilegeService& privilege() override { return service_; }

 private:
  PrivilegeService& service_;
};

}  // namespace kd::test
