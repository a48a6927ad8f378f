#include "FerrimoController.h"

#include <QDir>
#include <QFileInfo>
#include <QMetaObject>

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

#include "common/Path.h"
#include "common/SettingsFile.h"
#include "files/KdFileManager.h"
#include "helper/FerrimoVolumeChecker.h"
#include "log/KdLog.h"
#include "paths/KdLocalPaths.h"
#include "paths/UserFiles.h"
#include "platform/Platform.h"
#include "platform/Volumes.h"

namespace ferrimo {

namespace {

// The keys this window keeps in the shared settings file; every other key
// is written back as it was read.
constexpr const char* kDestinationsKey = "offloadDestinations";
constexpr const char* kHashKey = "offloadHash";
constexpr const char* kReverifyKey = "offloadReverify";
constexpr const char* kSourceVerifyKey = "offloadSourceVerify";
constexpr const char* kIgnoredKey = "ignoredVolumes";

void log(const QString& line) {
  KdLog::appendLog("%@", line.toStdString());
}

QString size(std::uint64_t bytes) {
  return QString::fromStdString(KdFileManager::formatFileSize(static_cast<double>(bytes)));
}

QString trimmed(QString path) {
  while (path.size() > 1 && path.endsWith(QLatin1Char('/'))) path.chop(1);
  return path;
}

QStringList stringsOf(const kd::PlistDict& dict, const char* key) {
  QStringList out;
  auto it = dict.find(key);
  if (it == dict.end()) return out;
  if (const auto* array = it->second.get<kd::PlistArray>())
    for (const kd::PlistValue& v : *array)
      if (const auto* s = v.get<std::string>()) out << QString::fromStdString(*s);
  return out;
}

}  // namespace

Controller::Controller(QString settingsPath, Ejector& ejector, Notifier& notifier, QObject* parent)
    : QObject(parent),
      settingsPath_(std::move(settingsPath)),
      ejector_(ejector),
      notifier_(notifier) {
  loadSettings();
  progressTimer_.setInterval(250);
  connect(&progressTimer_, &QTimer::timeout, this, &Controller::tick);
  connect(&mountTimer_, &QTimer::timeout, this, &Controller::checkMounts);
}

Controller::~Controller() {
  if (worker_.joinable()) {
    stop_ = true;
    worker_.join();
  }
}

QString Controller::defaultSettingsPath() {
  const auto path =
      kd::path::append(KdLocalPaths::prefsDirectory(true), "com.quillfen.Ferrimo.plist");
  return path ? QString::fromStdString(*path) : QString();
}

QStringList Controller::removableVolumes() {
  QStringList out;
  for (const std::string& v : kd::platform().volumes().mountedRemovableMedia())
    out << QString::fromStdString(v);
  return out;
}

void Controller::loadSettings() {
  if (settingsPath_.isEmpty()) return;
  // Only read: a file that cannot be used is left where it is, for the user
  // to see and for the ignore list to refuse.
  const std::string path = settingsPath_.toStdString();
  const kd::PlistFile file = kd::readPlistFile(path, !kd::ownerForUserPath(path));
  if (file.status == kd::PlistReadStatus::Unreadable || file.status == kd::PlistReadStatus::Damaged)
    log(QStringLiteral("Settings file %1 cannot be read (%2); the saved choices are not used")
            .arg(settingsPath_, QString::fromStdString(file.reason)));
  const kd::PlistDict& d = file.dict;
  destinations_ = stringsOf(d, kDestinationsKey);
  ignoredVolumes_ = stringsOf(d, kIgnoredKey);
  if (auto it = d.find(kHashKey); it != d.end())
    if (const auto* s = it->second.get<std::string>(); s && !s->empty())
      hash_ = QString::fromStdString(*s);
  if (auto it = d.find(kReverifyKey); it != d.end())
    if (const auto* b = it->second.get<bool>()) reverify_ = *b;
  if (auto it = d.find(kSourceVerifyKey); it != d.end())
    if (const auto* b = it->second.get<bool>()) sourceVerify_ = *b;
}

void Controller::saveSettings() {
  if (settingsPath_.isEmpty() || !keepSettings_) return;
  // Read afresh: the helper may have written its own keys since.
  const std::string path = settingsPath_.toStdString();
  const auto owner = kd::ownerForUserPath(path);
  kd::Settings settings = kd::loadSettings(path, !owner);
  if (!settings.writable) {
    log(QStringLiteral("Settings not saved: ") + QString::fromStdString(settings.message));
    return;
  }
  kd::PlistArray destinations;
  for (const QString& d : destinations_) destinations.emplace_back(d.toStdString());
  settings.dict[kDestinationsKey] = std::move(destinations);
  settings.dict[kHashKey] = hash_.toStdString();
  settings.dict[kReverifyKey] = reverify_;
  settings.dict[kSourceVerifyKey] = sourceVerify_;
  std::string error;
  if (!kd::saveSettings(settings, path, owner, &error))
    log(QStringLiteral("Unable to write settings: ") + QString::fromStdString(error));
}

bool Controller::canIgnoreCard() const {
  return !card_.path.isEmpty() && state_ != State::Running && state_ != State::Stopping;
}

bool Controller::ignoreCard() {
  problem_.clear();
  if (!canIgnoreCard()) {
    problem_ =
        card_.path.isEmpty()
            ? QStringLiteral("No card")
            : QStringLiteral("This card is being offloaded: it can be ignored once that ends");
    return false;
  }
  // A name that the system's text could not be read as is not the card's
  // name: the helper would never match it.
  if (card_.name.isEmpty() || card_.name.contains(QChar::ReplacementCharacter)) {
    problem_ = QStringLiteral("This card's name cannot be kept in the settings");
    return false;
  }
  return changeIgnored(card_.name, true);
}

bool Controller::forgetIgnoredCard(const QString& name) {
  problem_.clear();
  return changeIgnored(name, false);
}

// The helper reads the same file: the list is changed in the file as it is
// now, and a file this program cannot read whole is left exactly as it is
// (the shared loader would keep a damaged one aside and start afresh, losing
// the helper's and the user's keys from the file they read).
bool Controller::changeIgnored(const QString& name, bool ignore) {
  const auto refuse = [this](const QString& why) {
    problem_ = why;
    log(QStringLiteral("Ignore list not changed: ") + why);
    return false;
  };
  if (settingsPath_.isEmpty())
    return refuse(QStringLiteral("There is no settings file to keep the list in"));
  const std::string path = settingsPath_.toStdString();
  const auto owner = kd::ownerForUserPath(path);
  kd::PlistFile file = kd::readPlistFile(path, !owner);
  if (file.status == kd::PlistReadStatus::Unreadable || file.status == kd::PlistReadStatus::Damaged)
    return refuse(QStringLiteral("The settings file %1 is damaged or cannot be read (%2). It is "
                                 "left as it is and nothing was changed: move it away or repair "
                                 "it, then try again")
                      .arg(settingsPath_, QString::fromStdString(file.reason)));
  kd::Settings settings;
  settings.dict = std::move(file.dict);
  settings.format = file.format;
  kd::PlistArray list;
  if (auto it = settings.dict.find(kIgnoredKey); it != settings.dict.end()) {
    const auto* array = it->second.get<kd::PlistArray>();
    if (!array)
      return refuse(QStringLiteral("\"%1\" in the settings file %2 is not a list. It is left as "
                                   "it is and nothing was changed")
                        .arg(QLatin1String(kIgnoredKey), settingsPath_));
    list = *array;
  }
  const std::string wanted = name.toStdString();
  const auto same = [&](const kd::PlistValue& v) {
    const auto* s = v.get<std::string>();
    return s && *s == wanted;
  };
  const bool listed = std::any_of(list.begin(), list.end(), same);
  if (listed != ignore) {
    if (ignore)
      list.emplace_back(wanted);
    else
      std::erase_if(list, same);
    settings.dict[kIgnoredKey] = std::move(list);
    std::string error;
    if (!kd::saveSettings(settings, path, owner, &error))
      return refuse(QStringLiteral("Unable to write the settings file %1: %2")
                        .arg(settingsPath_, QString::fromStdString(error)));
    log((ignore ? QStringLiteral("Cards named %1 are ignored from now on")
                : QStringLiteral("Cards named %1 are no longer ignored"))
            .arg(name));
  }
  ignoredVolumes_ = stringsOf(settings.dict, kIgnoredKey);
  emit ignoredChanged();
  return true;
}

void Controller::offerCard(const QString& given) {
  const QString path = trimmed(given);
  if (path.isEmpty() || path == card_.path || queue_.contains(path)) return;
  if (card_.path.isEmpty() && state_ == State::Idle) {
    showCard(path);
    return;
  }
  log(QStringLiteral("Card queued: ") + path);
  queue_ << path;
  emit queueChanged();
}

void Controller::showCard(const QString& path) {
  card_ = CardInfo{};
  card_.path = path;
  card_.name = QFileInfo(path).fileName();
  const std::string real = QFileInfo(path).canonicalFilePath().toStdString();
  card_.layoutCode =
      FerrimoVolumeChecker::verifyVolumeType(real.empty() ? path.toStdString() : real);
  card_.layout = QString::fromStdString(FerrimoVolumeChecker::layoutDescription(card_.layoutCode));
  // What the offload will copy, counted as the offload counts it (the
  // system's files and the card's hash lists left out).
  const kd::OffloadCardContents contents = kd::offloadCardContents(path.toStdString());
  card_.files = contents.files;
  card_.bytes = contents.bytes;
  card_.problem = QString::fromStdString(contents.error);
  log(QStringLiteral("Card: %1, %2, %3 files (%4)")
          .arg(path, card_.layout)
          .arg(card_.files)
          .arg(size(card_.bytes)));
  emit cardChanged();
}

void Controller::watchMounts(std::chrono::milliseconds interval) {
  knownMounts_ = removableVolumes();
  mountTimer_.start(interval);
}

void Controller::checkMounts() {
  const QStringList now = removableVolumes();
  // A queued card that was taken out is no longer waiting.
  const qsizetype before = queue_.size();
  queue_.removeIf([&](const QString& q) { return !now.contains(q) && !QFileInfo(q).isDir(); });
  if (queue_.size() != before) emit queueChanged();
  for (const QString& volume : now) {
    if (knownMounts_.contains(volume)) continue;
    if (ignoredVolumes_.contains(QFileInfo(volume).fileName())) continue;
    if (FerrimoVolumeChecker::verifyVolumeType(volume.toStdString()) ==
        FerrimoVolumeChecker::kUnknownLayout)
      continue;
    offerCard(volume);
  }
  knownMounts_ = now;
}

QList<DestinationInfo> Controller::destinationInfos() const {
  QList<DestinationInfo> out;
  std::vector<std::pair<QString, std::string>> drives;
  for (const QString& path : destinations_) {
    DestinationInfo info;
    info.path = path;
    info.exists = QFileInfo(path).isDir();
    if (!info.exists) {
      info.warnings << QStringLiteral("Not an existing folder (is its drive mounted?)");
      out << info;
      continue;
    }
    std::error_code ec;
    const auto space = std::filesystem::space(path.toStdString(), ec);
    if (!ec) info.freeBytes = space.available;
    // An estimate: the offload itself does not count what is already there.
    if (info.freeBytes && !card_.path.isEmpty() && *info.freeBytes < card_.bytes)
      info.warnings << QStringLiteral("Too small: %1 free, the card holds %2")
                           .arg(size(*info.freeBytes), size(card_.bytes));
    if (auto drive = kd::platform().volumes().physicalDriveOf(path.toStdString())) {
      for (const auto& [other, otherDrive] : drives)
        if (otherDrive == *drive)
          info.warnings << QStringLiteral(
                               "On the same drive (%1) as %2: two copies on one drive "
                               "are one copy")
                               .arg(QString::fromStdString(*drive), other);
      drives.emplace_back(path, *drive);
    }
    out << info;
  }
  return out;
}

bool Controller::addDestination(const QString& given) {
  const QString path = trimmed(given);
  if (path.isEmpty() || destinations_.contains(path)) return false;
  destinations_ << path;
  saveSettings();
  emit destinationsChanged();
  return true;
}

void Controller::removeDestination(int index) {
  if (index < 0 || index >= destinations_.size()) return;
  destinations_.removeAt(index);
  saveSettings();
  emit destinationsChanged();
}

void Controller::setHashKinds(const QString& kinds) {
  if (kinds == hash_) return;
  hash_ = kinds;
  saveSettings();
}

void Controller::setReverify(bool on) {
  if (on == reverify_) return;
  reverify_ = on;
  saveSettings();
}

void Controller::setSourceVerify(bool on) {
  if (on == sourceVerify_) return;
  sourceVerify_ = on;
  saveSettings();
}

bool Controller::start() {
  problem_.clear();
  if (state_ == State::Running || state_ == State::Stopping) {
    problem_ = QStringLiteral("An offload is running");
    return false;
  }
  if (card_.path.isEmpty()) {
    problem_ = QStringLiteral("No card");
    return false;
  }
  kd::OffloadOptions options;
  options.card = card_.path.toStdString();
  for (const QString& d : destinations_) options.destinations.push_back(d.toStdString());
  options.hash = kd::HashKinds(hash_.toStdString());
  options.reverify = reverify_;
  options.sourceVerify = sourceVerify_;
  options.layout = card_.layout.toStdString();
  options.tool = "Ferrimo";
  options.toolVersion = KD_VERSION;
  options.stop = &stop_;
  if (auto why = kd::offloadOptionsProblem(options)) {
    problem_ = QString::fromStdString(*why);
    return false;
  }
  if (worker_.joinable()) worker_.join();
  result_.reset();
  stop_ = false;
  done_ = 0;
  total_ = card_.bytes;
  rate_ = 0;
  {
    std::lock_guard lock(fileMutex_);
    currentFile_.clear();
  }
  started_ = std::chrono::steady_clock::now();
  state_ = State::Running;
  log(QStringLiteral("Offload started: %1 to %2").arg(card_.path, destinations_.join(", ")));
  worker_ = std::thread([this, options = std::move(options)] {
    kd::OffloadProgress progress;
    progress.fileStarted = [this](const std::string& path, std::uint64_t) {
      std::lock_guard lock(fileMutex_);
      currentFile_ = path;
    };
    progress.bytes = [this](std::uint64_t done, std::uint64_t total) {
      total_ = total;
      done_ = done;
    };
    kd::OffloadReport report = kd::offloadCard(options, progress);
    QMetaObject::invokeMethod(
        this, [this, report = std::move(report)] { finish(report); }, Qt::QueuedConnection);
  });
  progressTimer_.start();
  emit stateChanged();
  return true;
}

void Controller::cancel() {
  if (state_ != State::Running) return;
  stop_ = true;
  state_ = State::Stopping;
  log(QStringLiteral("Offload: stop asked"));
  emit stateChanged();
}

std::optional<double> Controller::secondsLeft() const {
  const std::uint64_t done = done_, total = total_;
  if (rate_ <= 0 || done == 0 || total < done) return std::nullopt;
  return static_cast<double>(total - done) / rate_;
}

QString Controller::currentFile() const {
  std::lock_guard lock(fileMutex_);
  return QString::fromStdString(currentFile_);
}

void Controller::tick() {
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
  if (seconds > 0) rate_ = static_cast<double>(done_.load()) / seconds;
  emit progressChanged();
}

void Controller::finish(const kd::OffloadReport& report) {
  if (worker_.joinable()) worker_.join();
  progressTimer_.stop();
  RunResult r;
  r.card = QString::fromStdString(report.card);
  r.allVerified = report.allGood();
  // A stop that came after every copy verified changes nothing: the copies
  // are good. Any other ending after Cancel is a stopped run, never a good one.
  r.stopped = stop_ && !r.allVerified;
  r.error = QString::fromStdString(report.error);
  for (const std::string& w : report.warnings) r.warnings << QString::fromStdString(w);
  r.files = report.files;
  r.bytes = report.bytes;
  r.seconds = report.elapsed.count();
  for (const kd::OffloadDestination& d : report.destinations) {
    DestinationResult dr;
    dr.folder = QString::fromStdString(d.folder);
    dr.verified = d.good() && report.error.empty();
    if (dr.verified)
      dr.summary =
          QStringLiteral("%1 copied, %2 already there").arg(d.filesCopied).arg(d.filesSkipped);
    else if (!d.lost.empty())
      dr.summary = QStringLiteral("FAILED: %1").arg(QString::fromStdString(d.lost));
    else if (!d.failures.empty())
      dr.summary = QStringLiteral("FAILED: %1 file(s) failed").arg(d.failures.size());
    else if (!report.error.empty())
      dr.summary = QStringLiteral("NOT COMPLETE: %1 file(s) not copied").arg(d.filesMissing);
    else
      dr.summary = QStringLiteral("FAILED");
    for (const kd::OffloadFailure& f : d.failures)
      dr.failedFiles << QString::fromStdString(f.path + ": " + f.reason);
    if (d.reportHtml) dr.report = QString::fromStdString(*d.reportHtml);
    if (d.manifest) dr.manifest = QString::fromStdString(*d.manifest);
    r.destinations << dr;
  }
  result_ = std::move(r);
  state_ = State::Finished;
  done_ = total_.load();
  const QString what =
      result_->allVerified
          ? QStringLiteral("every copy verified: safe to erase")
          : (result_->stopped ? QStringLiteral("stopped: not every file was copied")
                              : QStringLiteral("FAILED: see the window"));
  log(QStringLiteral("Offload of %1 ended: %2%3")
          .arg(card_.path, what,
               r.error.isEmpty() ? QString() : QStringLiteral(" (") + r.error + ")"));
  notifier_.notify(QStringLiteral("Card %1").arg(card_.name), what);
  emit stateChanged();
  emit finished();
}

bool Controller::canEject() const {
  return state_ == State::Finished && result_ && result_->allVerified && !card_.path.isEmpty();
}

bool Controller::eject(QString* why) {
  if (!canEject()) {
    if (why) *why = QStringLiteral("Only a card whose every copy verified is ejected here");
    return false;
  }
  QString reason;
  if (!ejector_.eject(card_.path, &reason)) {
    log(QStringLiteral("Eject of %1 failed: %2").arg(card_.path, reason));
    if (why) *why = reason;
    return false;
  }
  log(QStringLiteral("Ejected: ") + card_.path);
  next();
  return true;
}

void Controller::next() {
  if (state_ == State::Running || state_ == State::Stopping) return;
  state_ = State::Idle;
  result_.reset();
  card_ = CardInfo{};
  if (!queue_.isEmpty()) {
    const QString path = queue_.takeFirst();
    emit queueChanged();
    showCard(path);
  } else {
    emit cardChanged();
  }
  emit stateChanged();
}

}  // namespace ferrimo
