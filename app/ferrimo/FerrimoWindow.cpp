#include "FerrimoWindow.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDesktopServices>
#include <QFileDialog>
#include <QFileInfo>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QProgressBar>
#include <QPushButton>
#include <QUrl>
#include <QVBoxLayout>

#include "FerrimoController.h"
#include "files/KdFileManager.h"

namespace ferrimo {

namespace {

QString sizeText(std::uint64_t bytes) {
  return QString::fromStdString(KdFileManager::formatFileSize(static_cast<double>(bytes)));
}

QString duration(double seconds) {
  const auto s = static_cast<long long>(seconds + 0.5);
  return s >= 3600 ? QStringLiteral("%1:%2:%3")
                         .arg(s / 3600)
                         .arg(s / 60 % 60, 2, 10, QLatin1Char('0'))
                         .arg(s % 60, 2, 10, QLatin1Char('0'))
                   : QStringLiteral("%1:%2").arg(s / 60).arg(s % 60, 2, 10, QLatin1Char('0'));
}

QString escaped(const QString& s) {
  return s.toHtmlEscaped();
}

}  // namespace

Window::Window(Controller& controller, QWidget* parent) : QWidget(parent), controller_(controller) {
  setWindowTitle(QStringLiteral("Ferrimo"));
  setWindowIcon(QIcon::fromTheme(QStringLiteral("ferrimo")));
  auto* layout = new QVBoxLayout(this);

  auto* cardBox = new QGroupBox(QStringLiteral("Card"));
  auto* cardLayout = new QVBoxLayout(cardBox);
  cardTitle_ = new QLabel;
  QFont big = cardTitle_->font();
  big.setPointSizeF(big.pointSizeF() * 1.5);
  big.setBold(true);
  cardTitle_->setFont(big);
  cardDetails_ = new QLabel;
  cardDetails_->setTextInteractionFlags(Qt::TextSelectableByMouse);
  queueLabel_ = new QLabel;
  volumes_ = new QListWidget;
  useVolume_ = new QPushButton(QStringLiteral("Offload this volume"));
  cardLayout->addWidget(cardTitle_);
  cardLayout->addWidget(cardDetails_);
  cardLayout->addWidget(volumes_);
  cardLayout->addWidget(useVolume_);
  cardLayout->addWidget(queueLabel_);
  auto* ignoreRow = new QHBoxLayout;
  ignoreCard_ = new QPushButton(QStringLiteral("Ignore this card"));
  ignoreText_ = new QLabel;
  ignoreText_->setWordWrap(true);
  ignoreRow->addWidget(ignoreCard_);
  ignoreRow->addWidget(ignoreText_, 1);
  cardLayout->addLayout(ignoreRow);
  layout->addWidget(cardBox);

  auto* destBox = new QGroupBox(QStringLiteral("Destinations"));
  auto* destLayout = new QVBoxLayout(destBox);
  destinations_ = new QListWidget;
  destinations_->setMinimumHeight(70);
  destinations_->setMaximumHeight(130);
  auto* destButtons = new QHBoxLayout;
  addDestination_ = new QPushButton(QStringLiteral("Add…"));
  removeDestination_ = new QPushButton(QStringLiteral("Remove"));
  destButtons->addWidget(addDestination_);
  destButtons->addWidget(removeDestination_);
  destButtons->addStretch();
  destLayout->addWidget(destinations_);
  destLayout->addLayout(destButtons);
  layout->addWidget(destBox);

  auto* options = new QHBoxLayout;
  options->addWidget(new QLabel(QStringLiteral("Hash:")));
  hash_ = new QComboBox;
  hash_->setEditable(true);
  hash_->addItems({"xxh64", "xxh128", "md5", "sha1", "xxh64,md5"});
  hash_->setCurrentText(controller_.hashKinds());
  options->addWidget(hash_);
  reverify_ = new QCheckBox(QStringLiteral("Read copies again from the drive (--reverify)"));
  reverify_->setChecked(controller_.reverify());
  sourceVerify_ = new QCheckBox(QStringLiteral("Read the card twice (--source-verify)"));
  sourceVerify_->setChecked(controller_.sourceVerify());
  options->addWidget(reverify_);
  options->addWidget(sourceVerify_);
  options->addStretch();
  layout->addLayout(options);

  ignoredBox_ = new QGroupBox(QStringLiteral("Ignored cards"));
  auto* ignoredLayout = new QVBoxLayout(ignoredBox_);
  auto* ignoredNote = new QLabel(
      QStringLiteral("Ferrimo does not open by itself when a card with one of these names goes "
                     "in. You can still offload such a card from this window."));
  ignoredNote->setWordWrap(true);
  ignored_ = new QListWidget;
  ignored_->setMaximumHeight(80);
  forgetIgnored_ = new QPushButton(QStringLiteral("Remove"));
  forgetIgnored_->setToolTip(
      QStringLiteral("Ferrimo opens by itself again for cards with the selected name"));
  auto* ignoredButtons = new QHBoxLayout;
  ignoredButtons->addWidget(forgetIgnored_);
  ignoredButtons->addStretch();
  ignoredLayout->addWidget(ignoredNote);
  ignoredLayout->addWidget(ignored_);
  ignoredLayout->addLayout(ignoredButtons);
  layout->addWidget(ignoredBox_);

  progressBox_ = new QGroupBox(QStringLiteral("Progress"));
  auto* progressLayout = new QVBoxLayout(progressBox_);
  progressBars_ = new QVBoxLayout;
  progressText_ = new QLabel;
  progressLayout->addLayout(progressBars_);
  progressLayout->addWidget(progressText_);
  layout->addWidget(progressBox_);

  auto* run = new QHBoxLayout;
  start_ = new QPushButton(QStringLiteral("Start offload"));
  start_->setDefault(true);
  cancel_ = new QPushButton(QStringLiteral("Cancel"));
  run->addStretch();
  run->addWidget(cancel_);
  run->addWidget(start_);
  layout->addLayout(run);

  resultBox_ = new QGroupBox(QStringLiteral("Result"));
  auto* resultLayout = new QVBoxLayout(resultBox_);
  headline_ = new QLabel;
  headline_->setFont(big);
  headline_->setWordWrap(true);
  resultText_ = new QLabel;
  resultText_->setWordWrap(true);
  resultText_->setTextInteractionFlags(Qt::TextSelectableByMouse);
  auto* resultButtons = new QHBoxLayout;
  openFolder_ = new QPushButton(QStringLiteral("Open report folder"));
  eject_ = new QPushButton(QStringLiteral("Eject card"));
  next_ = new QPushButton(QStringLiteral("Next card"));
  resultButtons->addWidget(openFolder_);
  resultButtons->addStretch();
  resultButtons->addWidget(next_);
  resultButtons->addWidget(eject_);
  ejectText_ = new QLabel;
  ejectText_->setWordWrap(true);
  resultLayout->addWidget(headline_);
  resultLayout->addWidget(resultText_);
  resultLayout->addLayout(resultButtons);
  resultLayout->addWidget(ejectText_);
  layout->addWidget(resultBox_);
  layout->addStretch();

  connect(useVolume_, &QPushButton::clicked, this, [this] {
    if (auto* item = volumes_->currentItem()) controller_.offerCard(item->text());
  });
  connect(ignoreCard_, &QPushButton::clicked, this, &Window::ignoreCard);
  connect(forgetIgnored_, &QPushButton::clicked, this, [this] {
    auto* item = ignored_->currentItem();
    if (item && !controller_.forgetIgnoredCard(item->text()))
      ignoreText_->setText(controller_.problem());
  });
  connect(addDestination_, &QPushButton::clicked, this, &Window::addDestination);
  connect(removeDestination_, &QPushButton::clicked, this,
          [this] { controller_.removeDestination(destinations_->currentRow()); });
  connect(hash_, &QComboBox::currentTextChanged, this,
          [this](const QString& text) { controller_.setHashKinds(text.trimmed()); });
  connect(reverify_, &QCheckBox::toggled, this, [this](bool on) { controller_.setReverify(on); });
  connect(sourceVerify_, &QCheckBox::toggled, this,
          [this](bool on) { controller_.setSourceVerify(on); });
  connect(start_, &QPushButton::clicked, this, [this] {
    if (!controller_.start()) progressText_->setText(controller_.problem());
  });
  connect(cancel_, &QPushButton::clicked, this, [this] { controller_.cancel(); });
  connect(openFolder_, &QPushButton::clicked, this, [this] {
    const auto& r = controller_.result();
    if (r && !r->destinations.isEmpty())
      QDesktopServices::openUrl(QUrl::fromLocalFile(r->destinations.first().folder));
  });
  connect(eject_, &QPushButton::clicked, this, &Window::ejectCard);
  connect(next_, &QPushButton::clicked, this, [this] { controller_.next(); });

  connect(&controller_, &Controller::cardChanged, this, [this] {
    showCard();
    showDestinations();
    showState();  // what may be done depends on the card too
  });
  connect(&controller_, &Controller::queueChanged, this, &Window::showCard);
  connect(&controller_, &Controller::destinationsChanged, this, &Window::showDestinations);
  connect(&controller_, &Controller::ignoredChanged, this, [this] {
    showIgnored();
    showState();
  });
  connect(&controller_, &Controller::stateChanged, this, &Window::showState);
  connect(&controller_, &Controller::progressChanged, this, &Window::showProgress);
  showCard();
  showDestinations();
  showIgnored();
  showState();
  resize(760, 640);
}

QString Window::resultHeadline() const {
  return headline_->text();
}
QString Window::ejectMessage() const {
  return ejectText_->text();
}
QString Window::ignoreMessage() const {
  return ignoreText_->text();
}

void Window::showCard() {
  const CardInfo& card = controller_.card();
  const bool none = card.path.isEmpty();
  volumes_->setVisible(none);
  useVolume_->setVisible(none);
  if (none) {
    cardTitle_->setText(QStringLiteral("No card"));
    cardDetails_->setText(QStringLiteral("Removable volumes mounted now:"));
    volumes_->clear();
    volumes_->addItems(Controller::removableVolumes());
  } else {
    cardTitle_->setText(card.name);
    QString details = QStringLiteral("%1\nCamera layout: %2\n%3 files, %4")
                          .arg(card.path, card.layout)
                          .arg(card.files)
                          .arg(sizeText(card.bytes));
    if (!card.problem.isEmpty()) details += QStringLiteral("\nCannot be read: ") + card.problem;
    cardDetails_->setText(details);
  }
  // What was said about ignoring belongs to the card it was said of.
  ignoreText_->clear();
  const QStringList& queue = controller_.queue();
  queueLabel_->setVisible(!queue.isEmpty());
  queueLabel_->setText(QStringLiteral("Waiting: ") + queue.join(QStringLiteral(", ")));
}

void Window::showDestinations() {
  destinations_->clear();
  for (const DestinationInfo& d : controller_.destinationInfos()) {
    QString text = d.path;
    if (d.freeBytes) text += QStringLiteral("    %1 free").arg(sizeText(*d.freeBytes));
    for (const QString& w : d.warnings) text += QStringLiteral("\n    ⚠ ") + w;
    auto* item = new QListWidgetItem(text, destinations_);
    if (!d.warnings.isEmpty()) item->setForeground(QColor(0xb0, 0x40, 0x00));
  }
}

void Window::showState() {
  using State = Controller::State;
  const State state = controller_.state();
  const bool busy = state == State::Running || state == State::Stopping;
  start_->setEnabled(!busy && !controller_.card().path.isEmpty() && state != State::Finished);
  cancel_->setEnabled(state == State::Running);
  addDestination_->setEnabled(!busy);
  removeDestination_->setEnabled(!busy);
  hash_->setEnabled(!busy);
  reverify_->setEnabled(!busy);
  sourceVerify_->setEnabled(!busy);
  // Only a card that is not being offloaded is ignored, and only once.
  const bool ignored = controller_.ignoredCards().contains(controller_.card().name);
  ignoreCard_->setVisible(!controller_.card().path.isEmpty());
  ignoreCard_->setEnabled(controller_.canIgnoreCard() && !ignored);
  ignoreCard_->setToolTip(
      ignored ? QStringLiteral("Ferrimo already does not open by itself for cards with this name")
              : QStringLiteral("Ferrimo will not open by itself again when a card with this "
                               "name goes in. Nothing on the card is changed."));
  progressBox_->setVisible(state != State::Idle);
  if (state == State::Running && progressBars_->count() == 0) {
    for (const QString& d : controller_.destinations()) {
      auto* bar = new QProgressBar;
      bar->setFormat(QFileInfo(d).fileName() + QStringLiteral("  %p%"));
      bar->setToolTip(d);
      progressBars_->addWidget(bar);
    }
  }
  if (state == State::Idle) {
    while (QLayoutItem* item = progressBars_->takeAt(0)) {
      delete item->widget();
      delete item;
    }
    progressText_->clear();
  }
  if (state == State::Stopping) progressText_->setText(QStringLiteral("Stopping…"));
  showProgress();
  showResult();
}

void Window::showProgress() {
  const std::uint64_t done = controller_.bytesDone(), total = controller_.bytesTotal();
  const int permille = total ? static_cast<int>(done * 1000 / total) : 0;
  const auto& result = controller_.result();
  for (int i = 0; i < progressBars_->count(); ++i) {
    auto* bar = qobject_cast<QProgressBar*>(progressBars_->itemAt(i)->widget());
    if (!bar) continue;
    bar->setRange(0, 1000);
    bar->setValue(permille);
    // The card is read once and every destination is written from that read:
    // the bars move together; the result tells each destination's end.
    if (result && i < result->destinations.size() && !result->destinations[i].verified)
      bar->setFormat(QFileInfo(controller_.destinations().value(i)).fileName() +
                     QStringLiteral("  failed"));
  }
  if (controller_.state() != Controller::State::Running) return;
  QString text = QStringLiteral("%1 of %2, %3/s")
                     .arg(sizeText(done), sizeText(total),
                          sizeText(static_cast<std::uint64_t>(controller_.bytesPerSecond())));
  if (auto left = controller_.secondsLeft())
    text += QStringLiteral(", %1 left").arg(duration(*left));
  const QString file = controller_.currentFile();
  if (!file.isEmpty()) text += QStringLiteral("\n") + file;
  progressText_->setText(text);
}

void Window::showResult() {
  const auto& r = controller_.result();
  resultBox_->setVisible(r.has_value());
  next_->setVisible(r.has_value() && !controller_.queue().isEmpty());
  if (!r) {
    headline_->clear();
    resultText_->clear();
    ejectText_->clear();
    return;
  }
  progressText_->setText(QStringLiteral("%1 files, %2 in %3")
                             .arg(r->files)
                             .arg(sizeText(r->bytes))
                             .arg(duration(r->seconds)));
  if (r->allVerified) {
    headline_->setText(QStringLiteral("Every copy verified: the card is safe to erase"));
    headline_->setStyleSheet(QStringLiteral("color: #1b7a1b"));
  } else if (r->stopped) {
    headline_->setText(QStringLiteral("Stopped: not every file was copied. Do not erase the card"));
    headline_->setStyleSheet(QStringLiteral("color: #b04000"));
  } else {
    headline_->setText(QStringLiteral("FAILED: do not erase the card"));
    headline_->setStyleSheet(QStringLiteral("color: #c00000"));
  }
  QString html;
  if (!r->error.isEmpty()) html += QStringLiteral("<p><b>%1</b></p>").arg(escaped(r->error));
  for (const QString& w : r->warnings) html += QStringLiteral("<p>⚠ %1</p>").arg(escaped(w));
  for (const DestinationResult& d : r->destinations) {
    html += QStringLiteral("<p><b>%1</b>: <span style=\"color:%2\">%3</span>")
                .arg(escaped(d.folder), d.verified ? "#1b7a1b" : "#c00000",
                     escaped(d.verified ? QStringLiteral("verified") : QStringLiteral("failed")) +
                         " — " + escaped(d.summary));
    for (const QString& f : d.failedFiles)
      html += QStringLiteral("<br>&nbsp;&nbsp;✗ ") + escaped(f);
    if (!d.report.isEmpty()) html += QStringLiteral("<br>&nbsp;&nbsp;Report: ") + escaped(d.report);
    if (!d.manifest.isEmpty())
      html += QStringLiteral("<br>&nbsp;&nbsp;Hash list: ") + escaped(d.manifest);
    html += QStringLiteral("</p>");
  }
  resultText_->setText(html);
  openFolder_->setEnabled(!r->destinations.isEmpty());
  eject_->setVisible(controller_.canEject());
}

void Window::showIgnored() {
  ignored_->clear();
  ignored_->addItems(controller_.ignoredCards());
  ignoredBox_->setVisible(!controller_.ignoredCards().isEmpty());
}

void Window::ignoreCard() {
  const QString name = controller_.card().name;
  if (controller_.ignoreCard())
    ignoreText_->setText(QStringLiteral("Ferrimo will not open by itself for a card named "
                                        "\u201c%1\u201d again. Nothing on the card was changed; "
                                        "undo this under \u201cIgnored cards\u201d.")
                             .arg(name));
  else
    ignoreText_->setText(QStringLiteral("Not ignored: ") + controller_.problem());
}

void Window::addDestination() {
  const QString dir = QFileDialog::getExistingDirectory(this, QStringLiteral("Add a destination"));
  if (!dir.isEmpty()) controller_.addDestination(dir);
}

void Window::ejectCard() {
  QString why;
  if (controller_.eject(&why)) {
    ejectText_->clear();
    return;
  }
  ejectText_->setText(QStringLiteral("The card was not ejected: ") + why +
                      QStringLiteral(". It is still there."));
}

}  // namespace ferrimo
