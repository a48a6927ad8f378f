// The window a camera assistant meets when a card goes in: the card, the
// destinations, the options, one button to start, progress, and the result
// with the eject. It only shows the controller's state and passes the user's
// clicks on; everything it shows comes from the controller.
//
// Lives on the GUI thread; borrows the controller, which must outlive it.
#pragma once

#include <QWidget>

class QCheckBox;
class QComboBox;
class QLabel;
class QListWidget;
class QPushButton;
class QVBoxLayout;
class QGroupBox;

namespace ferrimo {

class Controller;

class Window : public QWidget {
  Q_OBJECT

 public:
  explicit Window(Controller& controller, QWidget* parent = nullptr);

  // The line of the result that a test or a script reads ("safe to erase").
  QString resultHeadline() const;
  // What a click on Eject last said (empty when it worked).
  QString ejectMessage() const;
  // What a click on "Ignore this card" last said.
  QString ignoreMessage() const;

 private:
  void showCard();
  void showDestinations();
  void showState();
  void showProgress();
  void showResult();
  void showIgnored();
  void ignoreCard();
  void addDestination();
  void ejectCard();

  Controller& controller_;
  QLabel* cardTitle_;
  QLabel* cardDetails_;
  QLabel* queueLabel_;
  QPushButton* ignoreCard_;
  QLabel* ignoreText_;
  QListWidget* volumes_;
  QPushButton* useVolume_;
  QListWidget* destinations_;
  QPushButton* addDestination_;
  QPushButton* removeDestination_;
  QComboBox* hash_;
  QCheckBox* reverify_;
  QCheckBox* sourceVerify_;
  QGroupBox* ignoredBox_;
  QListWidget* ignored_;
  QPushButton* forgetIgnored_;
  QGroupBox* progressBox_;
  QVBoxLayout* progressBars_;
  QLabel* progressText_;
  QPushButton* start_;
  QPushButton* cancel_;
  QGroupBox* resultBox_;
  QLabel* headline_;
  QLabel* resultText_;
  QPushButton* openFolder_;
  QPushButton* eject_;
  QPushButton* next_;
  QLabel* ejectText_;
};

}  // namespace ferrimo
