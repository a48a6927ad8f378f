// The Ferrimo window's logic on real files: a card folder (a tmpfs card when
// root), two destination folders, the settings file in a temporary folder;
// the eject and the notifications faked. One smoke test shows the window on
// the offscreen platform; the ignore list is checked against the real helper.
#include <pwd.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QPushButton>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <chrono>
#include <filesystem>

#include "FerrimoController.h"
#include "FerrimoWindow.h"
#include "common/PropertyList.h"
#include "log/KdLog.h"

using ferrimo::Controller;

namespace {

class FakeEjector : public ferrimo::Ejector {
 public:
  bool busy = false;
  QStringList ejected;
  bool eject(const QString& mountPoint, QString* why) override {
    if (busy) {
      *why = QStringLiteral("the card is in use");
      return false;
    }
    ejected << mountPoint;
    return true;
  }
};

class FakeNotifier : public ferrimo::Notifier {
 public:
  QStringList shown;
  void notify(const QString& summary, const QString& body) override {
    shown << summary + ": " + body;
  }
};

void writeFile(const QString& path, qint64 size, char fill) {
  QDir().mkpath(QFileInfo(path).path());
  QFile f(path);
  QVERIFY(f.open(QIODevice::WriteOnly));
  const QByteArray chunk(1 << 20, fill);
  for (qint64 left = size; left > 0; left -= chunk.size())
    f.write(chunk.constData(), std::min<qint64>(left, chunk.size()));
}

void put(const QString& path, const std::string& bytes) {
  QFile f(path);
  QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
  f.write(bytes.data(), static_cast<qint64>(bytes.size()));
}

QByteArray bytesOf(const QString& path) {
  QFile f(path);
  return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray("(none)");
}

}  // namespace

class FerrimoTest : public QObject {
  Q_OBJECT

 private:
  QTemporaryDir tmp_;
  QString card_, settings_;
  bool mounted_ = false;
  FakeEjector ejector_;
  FakeNotifier notifier_;

  // A camera card (layout 5): on a tmpfs when root can mount one, else a
  // folder. `big` adds a file large enough for a stop to land mid-run.
  void makeCard(bool big = false) {
    card_ = tmp_.filePath("media/PHOTO_CARD");
    QDir().mkpath(card_);
    if (::geteuid() == 0 && !mounted_)
      mounted_ = ::mount("tmpfs", card_.toLocal8Bit(), "tmpfs", 0, "size=96m") == 0;
    writeFile(card_ + "/DCIM/100EOS5D/IMG_0001.CR2", 300000, 'a');
    writeFile(card_ + "/DCIM/100EOS5D/MVI_0002.MOV", big ? 64 << 20 : 700000, 'b');
    writeFile(card_ + "/.Trashes/501/OLD.CR2", 1000, 'c');
  }

  std::unique_ptr<Controller> controller() {
    return std::make_unique<Controller>(settings_, ejector_, notifier_);
  }

  ferrimo::RunResult runTo(Controller& c, const QStringList& destinations) {
    for (const QString& d : destinations) {
      QDir().mkpath(d);
      c.addDestination(d);
    }
    QSignalSpy done(&c, &Controller::finished);
    if (!c.start()) qWarning() << c.problem();
    done.wait(60000);
    return c.result().value_or(ferrimo::RunResult{});
  }

 private slots:
  // The window's log goes to a temporary state folder.
  void initTestCase() {
    static QTemporaryDir state;
    qputenv("XDG_STATE_HOME", state.path().toLocal8Bit());
    KdLog::createNewLog("Ferrimo");
  }
  void init() {
    QVERIFY(tmp_.isValid());
    settings_ = tmp_.filePath("config/com.quillfen.Ferrimo.plist");
    QDir().mkpath(tmp_.filePath("config"));
    notifier_.shown.clear();
    ejector_ = FakeEjector{};
  }
  void cleanup() {
    if (mounted_) ::umount2(card_.toLocal8Bit(), MNT_DETACH);
    mounted_ = false;
    QDir(tmp_.path()).removeRecursively();
    QDir().mkpath(tmp_.path());
  }

  void cardIsShownWithLayoutAndCount() {
    makeCard();
    auto c = controller();
    c->offerCard(card_ + "/");
    QCOMPARE(c->card().path, card_);
    QCOMPARE(c->card().name, QStringLiteral("PHOTO_CARD"));
    QCOMPARE(c->card().layoutCode, 5);
    QVERIFY(c->card().layout.contains("100EOS"));
    // The system's .Trashes is left out, as the offload leaves it out.
    QCOMPARE(c->card().files, 2u);
    QCOMPARE(c->card().bytes, 1000000u);
  }

  // Destinations, hash and options come back in the next window, and the
  // helper's keys in the shared file stay.
  void settingsAreKeptWithTheHelpersKeys() {
    kd::PlistDict helper{{"ignoredVolumes", kd::PlistArray{kd::PlistValue("SPARE")}},
                         {"lastStartup", kd::PlistValue(std::int64_t{42})}};
    QVERIFY(kd::writePlistDictionaryAtomically(helper, settings_.toStdString()));
    {
      auto c = controller();
      QVERIFY(c->addDestination(tmp_.filePath("RAID/")));
      QVERIFY(c->addDestination(tmp_.filePath("SHUTTLE")));
      QVERIFY(!c->addDestination(tmp_.filePath("RAID")));
      c->removeDestination(1);
      c->addDestination(tmp_.filePath("SHUTTLE2"));
      c->setHashKinds("xxh64,md5");
      c->setSourceVerify(true);
    }
    auto c = controller();
    QCOMPARE(c->destinations(), QStringList({tmp_.filePath("RAID"), tmp_.filePath("SHUTTLE2")}));
    QCOMPARE(c->hashKinds(), QStringLiteral("xxh64,md5"));
    QVERIFY(c->sourceVerify());
    const kd::PlistDict now = kd::readPlistDictionaryOrEmpty(settings_.toStdString());
    QVERIFY(now.at("ignoredVolumes") == helper.at("ignoredVolumes"));
    QVERIFY(now.at("lastStartup") == helper.at("lastStartup"));
  }

  void offloadVerifiesBothDestinations() {
    makeCard();
    auto c = controller();
    c->offerCard(card_);
    const QStringList dests{tmp_.filePath("RAID"), tmp_.filePath("SHUTTLE")};
    const ferrimo::RunResult r = runTo(*c, dests);
    QVERIFY2(r.allVerified, qPrintable(r.error));
    QCOMPARE(r.destinations.size(), 2);
    for (const ferrimo::DestinationResult& d : r.destinations) {
      QVERIFY(d.verified);
      QVERIFY(QFile::exists(d.folder + "/DCIM/100EOS5D/MVI_0002.MOV"));
      QVERIFY(QFile::exists(d.report));
      QVERIFY(QFile::exists(d.manifest));
    }
    QVERIFY(c->canEject());
    QCOMPARE(notifier_.shown.size(), 1);
    QVERIFY(notifier_.shown[0].contains("safe to erase"));
    // A busy card stays; a free one is ejected and the window moves on.
    QString why;
    ejector_.busy = true;
    QVERIFY(!c->eject(&why));
    QVERIFY(why.contains("in use"));
    QCOMPARE(c->card().path, card_);
    ejector_.busy = false;
    QVERIFY(c->eject(&why));
    QCOMPARE(ejector_.ejected, QStringList{card_});
    QVERIFY(c->card().path.isEmpty());
  }

  // A file of another size at one destination is left there and fails that
  // destination only; nothing can be ejected.
  void failingDestinationIsShownAsFailed() {
    makeCard();
    writeFile(tmp_.filePath("SHUTTLE/PHOTO_CARD/DCIM/100EOS5D/IMG_0001.CR2"), 10, 'x');
    auto c = controller();
    c->offerCard(card_);
    const ferrimo::RunResult r = runTo(*c, {tmp_.filePath("RAID"), tmp_.filePath("SHUTTLE")});
    QVERIFY(!r.allVerified);
    QVERIFY(r.destinations.value(0).verified);
    QVERIFY(!r.destinations.value(1).verified);
    QCOMPARE(r.destinations.value(1).failedFiles.size(), 1);
    QVERIFY(r.destinations.value(1).failedFiles[0].contains("IMG_0001.CR2"));
    QVERIFY(!c->canEject());
    QString why;
    QVERIFY(!c->eject(&why));
    QVERIFY(ejector_.ejected.isEmpty());
  }

  // Cancel ends the run as stopped, never as verified; a card that comes in
  // during the run waits and is shown after.
  void cancelStopsAndSecondCardIsQueued() {
    makeCard(/*big=*/true);
    const QString second = tmp_.filePath("media/SECOND");
    QDir().mkpath(second + "/DCIM/100EOS5D");
    auto c = controller();
    c->setReverify(true);
    c->offerCard(card_);
    c->addDestination(tmp_.filePath("RAID"));
    QDir().mkpath(tmp_.filePath("RAID"));
    QSignalSpy done(c.get(), &Controller::finished);
    QVERIFY(c->start());
    QVERIFY(!c->canIgnoreCard());
    QVERIFY(!c->ignoreCard());
    c->offerCard(second);
    c->offerCard(second);
    QCOMPARE(c->queue(), QStringList{second});
    c->cancel();
    QCOMPARE(c->state(), Controller::State::Stopping);
    QVERIFY(done.wait(60000));
    QVERIFY(c->result()->stopped);
    QVERIFY(!c->result()->allVerified);
    QVERIFY(!c->result()->destinations.value(0).verified);
    QVERIFY(!c->canEject());
    c->next();
    QCOMPARE(c->card().path, second);
    QVERIFY(c->queue().isEmpty());
  }

  // Ignoring a card changes the ignore list and nothing else, once, and only
  // in a file it could read whole: the helper reads the same file.
  void ignoreChangesOnlyTheIgnoreList() {
    using kd::PlistArray;
    using kd::PlistValue;
    const kd::PlistDict others{{"lastStartup", PlistValue(std::int64_t{42})},
                               {"offloadDestinations", PlistArray{PlistValue("/raid")}}};
    const auto file = [&](PlistValue ignored) {
      kd::PlistDict d = others;
      d["ignoredVolumes"] = std::move(ignored);
      return *kd::serializePlist(d, kd::PlistFormat::Xml);
    };
    const PlistValue card("PHOTO_CARD"), spare("SPARE"), number(std::int64_t{7});
    struct Row {
      const char* what;
      std::string before;  // the file's bytes; empty: there is none
      bool accepted;
      PlistArray after;  // the list once the card is ignored
    };
    const Row rows[] = {
        {"no settings file yet", "", true, {card}},
        {"already listed", file(PlistArray{card}), true, {card}},
        {"other entries kept", file(PlistArray{spare, number}), true, {spare, number, card}},
        {"damaged file", "<plist><dict><key>lastStartup</key>", false, {}},
        {"list that is not a list", file(card), false, {}},
    };
    makeCard();
    for (const Row& row : rows) {
      QDir(tmp_.filePath("config")).removeRecursively();
      QDir().mkpath(tmp_.filePath("config"));
      if (!row.before.empty()) put(settings_, row.before);
      const QByteArray before = bytesOf(settings_);
      auto c = controller();
      c->offerCard(card_);
      const bool once = c->ignoreCard(), twice = c->ignoreCard();
      QVERIFY2(once == row.accepted && twice == row.accepted, row.what);
      if (!row.accepted) {
        QVERIFY2(c->problem().contains("left as it is"), qPrintable(c->problem()));
        QVERIFY2(bytesOf(settings_) == before, row.what);
        // Nothing was kept aside or written beside it either.
        QVERIFY2(QDir(tmp_.filePath("config"))
                         .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot)
                         .size() == 1,
                 row.what);
        continue;
      }
      kd::PlistDict expected = row.before.empty() ? kd::PlistDict{} : others;
      expected["ignoredVolumes"] = row.after;
      QVERIFY2(kd::readPlistDictionaryOrEmpty(settings_.toStdString()) == expected, row.what);
      QVERIFY2(c->ignoredCards().contains("PHOTO_CARD"), row.what);
      // Taken off again: the other entries stay.
      QVERIFY(c->forgetIgnoredCard("PHOTO_CARD"));
      PlistArray left = row.after;
      std::erase(left, card);
      expected["ignoredVolumes"] = left;
      QVERIFY2(kd::readPlistDictionaryOrEmpty(settings_.toStdString()) == expected, row.what);
      QVERIFY2(!c->ignoredCards().contains("PHOTO_CARD"), row.what);
    }
  }

  // The real helper, run as an ordinary user against the file the window
  // wrote, opens nothing for the ignored card; taken off the list again, the
  // same card is opened for.
  void helperOpensNothingForAnIgnoredCard() {
#ifndef KD_HELPER_PATH
    QSKIP("FerrimoHelper is not built");
#else
    if (::geteuid() != 0) QSKIP("needs root to mount a card under /media and to run the helper");
    const struct passwd* nobody = ::getpwnam("nobody");
    if (!nobody || ::access("/usr/bin/setpriv", X_OK) != 0) QSKIP("no user nobody or no setpriv");
    const uid_t uid = nobody->pw_uid;
    const gid_t gid = nobody->pw_gid;
    QVERIFY(::chmod(tmp_.path().toLocal8Bit(), 0755) == 0);
    // The helper takes the newest removable volume: a card under /media.
    const QString media = QStringLiteral("/media/kdferrimo%1").arg(::getpid());
    const QString card = media + "/PHOTO_CARD";
    QVERIFY(QDir().mkpath(card));
    struct Unmount {
      QString media, card;
      ~Unmount() {
        ::umount2(card.toLocal8Bit(), MNT_DETACH);
        QDir(media).removeRecursively();
      }
    } unmount{media, card};
    QVERIFY(::mount("tmpfs", card.toLocal8Bit(), "tmpfs", 0, "size=1m,mode=0755") == 0);
    writeFile(card + "/DCIM/100EOS5D/IMG_0001.CR2", 1000, 'a');
    // Newer than a card another test may mount meanwhile.
    std::filesystem::last_write_time(
        card.toStdString(),
        std::filesystem::file_time_type::clock::now() + std::chrono::seconds(30));

    const QString home = tmp_.filePath("home"), app = tmp_.filePath("Ferrimo.app");
    for (const char* d : {"", "/.config", "/.local", "/.local/state"}) {
      QVERIFY(QDir().mkpath(home + d));
      QVERIFY(::chown((home + d).toLocal8Bit(), uid, gid) == 0);
    }
    // A stand-in Ferrimo that records how it was started; a helper copy the
    // user may run.
    const QString macos = app + "/Contents/MacOS", launches = macos + "/launches.log";
    QVERIFY(QDir().mkpath(macos));
    QVERIFY(::chmod(macos.toLocal8Bit(), 0777) == 0);
    put(macos + "/Ferrimo", "#!/bin/sh\necho \"$@\" >> \"${0%/*}/launches.log\"\n");
    const QString bin = tmp_.filePath("bin"), helper = bin + "/FerrimoHelper";
    const QString library = bin + "/" KD_SHARED_LIBRARY_SONAME;
    QVERIFY(QDir().mkpath(bin) && QFile::copy(KD_HELPER_PATH, helper) &&
            QFile::copy(KD_SHARED_LIBRARY_PATH, library));
    for (const QString& f : {macos + "/Ferrimo", helper, library})
      QVERIFY(::chmod(f.toLocal8Bit(), 0755) == 0);

    const QString settings = home + "/.config/com.quillfen.Ferrimo.plist";
    const auto runHelper = [&] {
      QVERIFY(::chown(settings.toLocal8Bit(), uid, gid) == 0);
      QFile::remove(launches);
      QProcess p;
      QProcessEnvironment env;
      env.insert("HOME", home);
      env.insert("PATH", "/usr/bin:/bin");
      p.setProcessEnvironment(env);
      p.setWorkingDirectory(app);
      p.start("/usr/bin/setpriv",
              {QStringLiteral("--reuid=%1").arg(uid), QStringLiteral("--regid=%1").arg(gid),
               "--clear-groups", "--", helper});
      QVERIFY(p.waitForFinished(30000));
      QCOMPARE(p.exitCode(), 0);
    };
    const QString log = home + "/.local/state/Quillfen/FerrimoHelper.1.log";
    Controller c(settings, ejector_, notifier_);
    c.offerCard(card);
    QVERIFY(c.ignoreCard());
    runHelper();
    QVERIFY2(bytesOf(log).contains("Recent volume: " + card.toUtf8()), bytesOf(log));
    QVERIFY2(bytesOf(log).contains(" - This drive has been ignored\n"), bytesOf(log));
    QTest::qWait(300);  // a launch would be on its way by now
    QVERIFY(!QFile::exists(launches));

    QVERIFY(c.forgetIgnoredCard("PHOTO_CARD"));
    runHelper();
    QTRY_VERIFY_WITH_TIMEOUT(bytesOf(launches).contains("-ferrimoVolume " + card.toUtf8()), 3000);
#endif
  }

  // The window offscreen at the end of a good offload.
  void windowShowsSafeToErase() {
    makeCard();
    auto c = controller();
    ferrimo::Window w(*c);
    w.show();
    c->offerCard(card_);
    runTo(*c, {tmp_.filePath("RAID")});
    QVERIFY(w.resultHeadline().contains("safe to erase"));
    QVERIFY(!w.grab().isNull());
    // Once the offload has ended the card can be ignored from the window.
    for (auto* b : w.findChildren<QPushButton*>())
      if (b->text() == "Ignore this card") b->click();
    QVERIFY2(w.ignoreMessage().contains("will not open by itself"), qPrintable(w.ignoreMessage()));
  }
};

QTEST_MAIN(FerrimoTest)
#include "ferrimo_test.moc"
