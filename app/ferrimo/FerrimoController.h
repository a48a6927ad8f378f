// What the Ferrimo window shows and does, without any widget: the card in
// front of the user, the destinations (kept in the settings file shared with
// FerrimoHelper), the offload run with its progress and result, the queue of
// cards that came in while a run was going, the eject at the end, and the
// card names FerrimoHelper opens nothing for.
//
// The controller lives on the GUI thread and is used from there only. An
// offload runs `kd::offloadCard` on a worker thread that the controller owns
// and joins (at the end of the run, or in its destructor after asking the run
// to stop). The worker writes the progress into atomics that a timer on the
// GUI thread reads, and hands its report back through a queued call; nothing
// else is shared with it. The ejector and the notifier are borrowed and must
// outlive the controller.
#pragma once

#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "files/offload/Offload.h"

namespace ferrimo {

// Takes a card out of the system: unmounts it and powers its drive down.
class Ejector {
 public:
  virtual ~Ejector() = default;
  // False, with why in `why` (the card is busy, say), when the card is still
  // there.
  virtual bool eject(const QString& mountPoint, QString* why) = 0;
};

// Tells the user something on the desktop, outside the window.
class Notifier {
 public:
  virtual ~Notifier() = default;
  virtual void notify(const QString& summary, const QString& body) = 0;
};

struct CardInfo {
  QString path;  // empty: no card
  QString name;  // the folder's name, the card folder's name at each destination
  qint64 layoutCode = -1;
  QString layout;  // how the helper's detection recognises it
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
  QString problem;  // the card could not be read
};

struct DestinationInfo {
  QString path;
  bool exists = false;
  std::optional<std::uint64_t> freeBytes;
  QStringList warnings;  // too small, on one drive with another, missing
};

struct DestinationResult {
  QString folder;  // <destination>/<card name>
  bool verified = false;
  QString summary;          // "all verified, 4 copied, ..." or why not
  QStringList failedFiles;  // "path: reason"
  QString report;           // the HTML transfer report, empty when none
  QString manifest;         // the hash list written, empty when none
};

struct RunResult {
  QString card;
  bool allVerified = false;
  bool stopped = false;  // Cancel was asked and the run ended before its end
  QString error;         // the run could not start or stopped early
  QStringList warnings;
  QList<DestinationResult> destinations;
  std::uint64_t files = 0, bytes = 0;
  double seconds = 0;
};

class Controller : public QObject {
  Q_OBJECT

 public:
  enum class State { Idle, Running, Stopping, Finished };

  // `settingsPath`: the settings file shared with the helper; empty keeps
  // nothing.
  Controller(QString settingsPath, Ejector& ejector, Notifier& notifier, QObject* parent = nullptr);
  ~Controller() override;

  // The settings file of this user (com.quillfen.Ferrimo.plist in the
  // preferences folder), empty when there is no such folder.
  static QString defaultSettingsPath();
  // The removable volumes mounted now.
  static QStringList removableVolumes();

  // A card to offload: shown at once when no run is going, else queued. A
  // card already shown or queued is not added again.
  void offerCard(const QString& path);
  const CardInfo& card() const { return card_; }
  const QStringList& queue() const { return queue_; }
  // Looks at the removable media every `interval` and offers each new one
  // with a known camera layout that the settings do not ignore (the helper
  // starts no second Ferrimo while this one runs).
  void watchMounts(std::chrono::milliseconds interval);
  void checkMounts();

  QStringList destinations() const { return destinations_; }
  QList<DestinationInfo> destinationInfos() const;
  bool addDestination(const QString& path);
  void removeDestination(int index);

  QString hashKinds() const { return hash_; }
  bool reverify() const { return reverify_; }
  bool sourceVerify() const { return sourceVerify_; }
  void setHashKinds(const QString& kinds);
  void setReverify(bool on);
  void setSourceVerify(bool on);
  // Off: changes stay with this run and the settings file is not written
  // (a scripted run must not replace the user's own choices).
  void setKeepSettings(bool keep) { keepSettings_ = keep; }

  // The card names FerrimoHelper opens Ferrimo for no more (the settings'
  // "ignoredVolumes"), as last read or written here.
  const QStringList& ignoredCards() const { return ignoredVolumes_; }
  // A card is shown and no offload of it is running.
  bool canIgnoreCard() const;
  // Adds the shown card's name (the last component of its mount point) to
  // that list, once; the card itself is not touched. The settings file is
  // read afresh and only that list changes: every other key and every other
  // entry stays. A file that cannot be read or is damaged is never replaced:
  // false, with why in `problem()`, and nothing is written.
  bool ignoreCard();
  // Takes `name` off that list again, on the same terms.
  bool forgetIgnoredCard(const QString& name);

  State state() const { return state_; }
  // Starts the offload of the card shown to every destination; false with
  // `problem` set when it cannot start.
  bool start();
  // Asks the run to stop after its current stretch; `finished` follows.
  void cancel();
  QString problem() const { return problem_; }

  std::uint64_t bytesDone() const { return done_.load(); }
  std::uint64_t bytesTotal() const { return total_.load(); }
  double bytesPerSecond() const { return rate_; }
  std::optional<double> secondsLeft() const;
  QString currentFile() const;

  const std::optional<RunResult>& result() const { return result_; }
  // Every destination verified and the card is still there.
  bool canEject() const;
  // Ejects the card shown; on success the next queued card (if any) is shown.
  bool eject(QString* why);
  // Leaves the finished run and shows the next queued card, if any.
  void next();

 signals:
  void cardChanged();
  void queueChanged();
  void destinationsChanged();
  void ignoredChanged();
  void stateChanged();
  void progressChanged();
  void finished();

 private:
  void showCard(const QString& path);
  void loadSettings();
  void saveSettings();
  bool changeIgnored(const QString& name, bool ignore);
  void finish(const kd::OffloadReport& report);
  void tick();

  const QString settingsPath_;
  Ejector& ejector_;
  Notifier& notifier_;
  CardInfo card_;
  QStringList queue_;
  QStringList destinations_;
  QString hash_ = QStringLiteral("xxh64");
  bool reverify_ = true;
  bool sourceVerify_ = false;
  QStringList ignoredVolumes_;
  bool keepSettings_ = true;
  QStringList knownMounts_;
  QTimer mountTimer_;

  State state_ = State::Idle;
  QString problem_;
  std::optional<RunResult> result_;
  std::thread worker_;
  std::atomic<bool> stop_{false};
  std::atomic<std::uint64_t> done_{0}, total_{0};
  mutable std::mutex fileMutex_;
  std::string currentFile_;  // guarded by fileMutex_
  std::chrono::steady_clock::time_point started_;
  double rate_ = 0;
  QTimer progressTimer_;
};

}  // namespace ferrimo
