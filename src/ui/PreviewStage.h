#pragma once

#include <QElapsedTimer>
#include <QImage>
#include <QTimer>
#include <QWidget>
#include <memory>
#include <string>

namespace pavix {

class StudioBridge;

// A live, small picture of the selected source. While the stage is shown it asks the model
// for a preview at its own size; the model's preview stream sends a picture only when the
// source changed, a few times a second at most, and pauses while a recording runs, when the
// stage shows its last picture dimmed. Hidden or minimised, the stage asks for nothing.
class PreviewStage : public QWidget {
    Q_OBJECT

  public:
    // How long the stage waits for a first picture before it says there is none, and asks
    // again (a minimised window has no picture until it is restored).
    static constexpr int kPatienceMs = 1500;

    explicit PreviewStage(StudioBridge& bridge, QWidget* parent = nullptr);
    ~PreviewStage() override;

    QSize sizeHint() const override { return {320, 180}; }
    bool hasPicture() const { return !picture_.isNull(); }
    // What the stage says instead of (or over) the picture; empty when it shows one plainly.
    QString caption() const;
    // How many pictures the stage has shown.
    int pictures() const { return pictures_; }

  protected:
    void paintEvent(QPaintEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    struct Mailbox;

    void ask(bool again = false);  // tells the model the size wanted, or that none is
    void follow();                 // the snapshot changed
    void receive(QImage image);
    bool recording() const;

    StudioBridge& bridge_;
    std::shared_ptr<Mailbox> mailbox_;
    QImage picture_;
    std::string source_;  // the selection the picture shows
    QSize asked_;         // the size last asked for; empty when none
    QTimer patience_;
    bool waitedInVain_ = false;
    int pictures_ = 0;
};

}  // namespace pavix
