#include "DesktopServices.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusInterface>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusReply>
#include <QDBusVariant>
#include <QVariantMap>

#include "log/KdLog.h"

namespace ferrimo {

namespace {

constexpr const char* kUDisks = "org.freedesktop.UDisks2";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";

QVariant property(const QString& object, const char* interface, const char* name) {
  QDBusInterface props(kUDisks, object, kProperties, QDBusConnection::systemBus());
  QDBusReply<QDBusVariant> reply = props.call("Get", interface, name);
  return reply.isValid() ? reply.value().variant() : QVariant();
}

// udisks2's answer in the words of a camera assistant.
QString reasonOf(const QDBusError& error) {
  const QString name = error.name();
  if (name.endsWith(".DeviceBusy"))
    return QStringLiteral(
        "the card is in use (a program still has a file of it open): close it "
        "and try again");
  if (name.endsWith(".NotAuthorized") || name.endsWith(".NotAuthorizedCanObtain"))
    return QStringLiteral("the system does not allow this user to eject it");
  return error.message().isEmpty() ? name : error.message();
}

}  // namespace

bool UDisksEjector::eject(const QString& mountPoint, QString* why) {
  QDBusConnection bus = QDBusConnection::systemBus();
  if (!bus.isConnected()) {
    *why = QStringLiteral("no system bus: eject the card from the file manager");
    return false;
  }
  QDBusInterface manager(kUDisks, "/org/freedesktop/UDisks2/Manager",
                         "org.freedesktop.UDisks2.Manager", bus);
  QDBusReply<QList<QDBusObjectPath>> devices = manager.call("GetBlockDevices", QVariantMap());
  if (!devices.isValid()) {
    *why = QStringLiteral("udisks2 does not answer (%1): eject the card from the file manager")
               .arg(devices.error().message());
    return false;
  }
  const QByteArray wanted = mountPoint.toLocal8Bit();
  for (const QDBusObjectPath& device : devices.value()) {
    const QVariant points =
        property(device.path(), "org.freedesktop.UDisks2.Filesystem", "MountPoints");
    if (!points.isValid()) continue;
    const auto list = qdbus_cast<QList<QByteArray>>(points.value<QDBusArgument>());
    bool match = false;
    for (QByteArray p : list) {
      if (p.endsWith('\0')) p.chop(1);
      match = match || p == wanted;
    }
    if (!match) continue;
    QDBusInterface fs(kUDisks, device.path(), "org.freedesktop.UDisks2.Filesystem", bus);
    QDBusMessage unmounted = fs.call("Unmount", QVariantMap());
    if (unmounted.type() == QDBusMessage::ErrorMessage) {
      *why = reasonOf(QDBusError(unmounted));
      return false;
    }
    const QVariant drive = property(device.path(), "org.freedesktop.UDisks2.Block", "Drive");
    const QString drivePath = qvariant_cast<QDBusObjectPath>(drive).path();
    if (!drivePath.isEmpty() && drivePath != "/") {
      QDBusInterface d(kUDisks, drivePath, "org.freedesktop.UDisks2.Drive", bus);
      QDBusMessage off = d.call("PowerOff", QVariantMap());
      // Unmounted is what matters: a reader that cannot be powered down
      // (a built-in one) is still safe to pull.
      if (off.type() == QDBusMessage::ErrorMessage)
        KdLog::appendLog("%@",
                         ("Card unmounted; its drive was not powered down: " + off.errorMessage())
                             .toStdString());
    }
    return true;
  }
  *why = QStringLiteral(
             "udisks2 does not know the card at %1 (mounted by hand?): unmount it "
             "yourself")
             .arg(mountPoint);
  return false;
}

void DesktopNotifier::notify(const QString& summary, const QString& body) {
  QDBusConnection bus = QDBusConnection::sessionBus();
  if (!bus.isConnected()) {
    KdLog::appendLog(
        "%@", ("No session bus; notification not shown: " + summary + ": " + body).toStdString());
    return;
  }
  QDBusInterface n("org.freedesktop.Notifications", "/org/freedesktop/Notifications",
                   "org.freedesktop.Notifications", bus);
  QDBusMessage reply = n.call("Notify", QStringLiteral("Ferrimo"), 0u, QStringLiteral("ferrimo"),
                              summary, body, QStringList(), QVariantMap(), -1);
  if (reply.type() == QDBusMessage::ErrorMessage)
    KdLog::appendLog(
        "%@", ("Notification not shown (" + reply.errorMessage() + "): " + summary).toStdString());
}

}  // namespace ferrimo
