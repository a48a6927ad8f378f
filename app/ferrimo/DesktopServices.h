// The desktop's services behind the controller's small interfaces, over the
// D-Bus: udisks2 ejects a card (unmount, then power the drive down), the
// freedesktop notification service shows a notification. Without a bus (no
// desktop session) the notifier writes a log line and the ejector says why
// it cannot eject.
//
// Both are used from the GUI thread only; each call opens its own D-Bus
// calls and keeps nothing between calls.
#pragma once

#include "FerrimoController.h"

namespace ferrimo {

class UDisksEjector : public Ejector {
 public:
  bool eject(const QString& mountPoint, QString* why) override;
};

class DesktopNotifier : public Notifier {
 public:
  void notify(const QString& summary, const QString& body) override;
};

}  // namespace ferrimo
