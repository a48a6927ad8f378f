// Ferrimo: the offload window. FerrimoHelper starts it with
// "-ferrimoVolume PATH" when a camera card is mounted; without a card it
// lists the removable volumes. The other options are for scripts and the
// demo: start the offload at once to the given destinations, quit when it
// ends, and save a picture of the finished window.
#include <QApplication>
#include <QCommandLineParser>
#include <QTimer>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string_view>

#include "DesktopServices.h"
#include "FerrimoController.h"
#include "FerrimoWindow.h"
#include "log/KdLog.h"

int main(int argc, char** argv) {
  QCoreApplication::setApplicationName(QStringLiteral("Ferrimo"));
  QCoreApplication::setApplicationVersion(QStringLiteral(KD_VERSION));
  QGuiApplication::setDesktopFileName(QStringLiteral("ferrimo"));

  QCommandLineParser parser;
  // "-ferrimoVolume" is one word after one dash, as the helper passes it.
  parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
  parser.setApplicationDescription(
      QStringLiteral("Offloads a camera card to several destinations, verified."));
  parser.addHelpOption();
  parser.addVersionOption();
  const QCommandLineOption volume(QStringLiteral("ferrimoVolume"),
                                  QStringLiteral("The card to offload (its mount point)."),
                                  QStringLiteral("PATH"));
  const QCommandLineOption autoOffload(
      QStringLiteral("auto-offload"),
      QStringLiteral("For scripts: offload at once to DEST (repeatable), instead of the saved "
                     "destinations; nothing is saved."),
      QStringLiteral("DEST"));
  const QCommandLineOption hash(QStringLiteral("hash"),
                                QStringLiteral("With --auto-offload: the hash kinds (xxh64)."),
                                QStringLiteral("KINDS"));
  const QCommandLineOption reverify(QStringLiteral("reverify"),
                                    QStringLiteral("With --auto-offload: read copies again."));
  const QCommandLineOption sourceVerify(
      QStringLiteral("source-verify"), QStringLiteral("With --auto-offload: read the card twice."));
  const QCommandLineOption quit(
      QStringLiteral("quit-when-done"),
      QStringLiteral("For scripts: quit when the offload ends (status 0 when every copy "
                     "verified, 1 otherwise)."));
  const QCommandLineOption screenshot(
      QStringLiteral("screenshot"),
      QStringLiteral("Save a picture of the window at the end to FILE."), QStringLiteral("FILE"));
  parser.addOptions({volume, autoOffload, hash, reverify, sourceVerify, quit, screenshot});
  // --help and --version answer without a display.
  for (int i = 1; i < argc; ++i) {
    const std::string_view a = argv[i];
    if (a == "--help" || a == "-h" || a == "--version" || a == "-v") {
      QCoreApplication core(argc, argv);
      parser.process(core);
      return 0;
    }
  }
  QApplication app(argc, argv);
  parser.process(app);

  KdLog::createNewLog("Ferrimo");
  ferrimo::UDisksEjector ejector;
  ferrimo::DesktopNotifier notifier;
  ferrimo::Controller controller(ferrimo::Controller::defaultSettingsPath(), ejector, notifier);
  const bool scripted = parser.isSet(autoOffload);
  if (scripted) {
    controller.setKeepSettings(false);
    for (int i = static_cast<int>(controller.destinations().size()) - 1; i >= 0; --i)
      controller.removeDestination(i);
    for (const QString& d : parser.values(autoOffload)) controller.addDestination(d);
    if (parser.isSet(hash)) controller.setHashKinds(parser.value(hash));
    controller.setReverify(parser.isSet(reverify));
    controller.setSourceVerify(parser.isSet(sourceVerify));
  }
  if (parser.isSet(volume)) controller.offerCard(parser.value(volume));
  // The helper starts no second Ferrimo while this one is open: cards that
  // come in meanwhile are found here and queued.
  controller.watchMounts(std::chrono::seconds(2));

  ferrimo::Window window(controller);
  window.show();

  int status = 0;
  QObject::connect(&controller, &ferrimo::Controller::finished, &app, [&] {
    const auto& result = controller.result();
    status = result && result->allVerified ? 0 : 1;
    if (parser.isSet(screenshot)) {
      // Let the window lay out its result before the picture is taken.
      QTimer::singleShot(300, &window, [&] {
        window.resize(window.width(), std::max(window.height(), window.sizeHint().height()));
        if (!window.grab().save(parser.value(screenshot)))
          std::fprintf(stderr, "Ferrimo: cannot save the picture to %s\n",
                       qPrintable(parser.value(screenshot)));
        if (parser.isSet(quit)) app.exit(status);
      });
    } else if (parser.isSet(quit)) {
      app.exit(status);
    }
  });
  if (scripted) {
    QTimer::singleShot(0, &controller, [&] {
      if (!controller.start()) {
        std::fprintf(stderr, "Ferrimo: %s\n", qPrintable(controller.problem()));
        if (parser.isSet(quit)) app.exit(1);
      }
    });
  }
  const int code = app.exec();
  KdLog::finishWriting();
  return parser.isSet(quit) ? code : 0;
}
