#pragma once

#include <QWidget>
#include <optional>

#include "core/library/LocalCapture.h"
#include "core/session/StudioSnapshot.h"

class QLabel;
class QProgressBar;
class QToolButton;

namespace pavix {

// One recording of the library "On this computer": when it was made, how long and how large
// it is, its stage, the upload's progress while it runs, and its actions, each enabled
// exactly when the model allows it.
class RecordingRow : public QWidget {
    Q_OBJECT

  public:
    explicit RecordingRow(QWidget* parent = nullptr);

    // Shows `record`; `progress` is the upload's share while this record uploads.
    void setRecord(const LocalCapture& record, RecordActions actions,
                   std::optional<double> progress);
    const std::string& recordId() const { return id_; }

    static QString stageText(LocalCapture::Stage stage);
    // "0:05 · 1280 × 720", or the size alone while the duration is unknown.
    static QString detail(const LocalCapture& record);

  Q_SIGNALS:
    void playRequested();
    void showInFolderRequested();
    void retryRequested();
    void removeRequested();

  private:
    std::string id_;
    QLabel* date_;
    QLabel* detail_;
    QLabel* stage_;
    QProgressBar* progress_;
    QToolButton* play_;
    QToolButton* folder_;
    QToolButton* retry_;
    QToolButton* remove_;
};

}  // namespace pavix
