#pragma once

#include <QImage>
#include <QTimer>
#include <QWidget>
#include <string>

namespace pavix {

class StudioBridge;

// A still of the selected source, refreshed a few times a second while the window is shown
// and nothing records. One picture is asked for at a time and the next only after it came,
// so a slow source slows the preview down instead of piling requests on the model. While a
// recording runs the stage shows its last still, dimmed, and asks for nothing.
class PreviewStage : public QWidget {
    Q_OBJECT

  public:
    static constexpr int kRefreshMs = 350;

    explicit PreviewStage(StudioBridge& bridge, QWidget* parent = nullptr);

    QSize sizeHint() const override { return {320, 180}; }
    bool hasPicture() const { return !picture_.isNull(); }
    // What the stage says instead of (or over) the picture; empty when it shows one plainly.
    QString caption() const;
    // How many pictures were asked of the model so far.
    int requests() const { return requests_; }

  protected:
    void paintEvent(QPaintEvent* event) override;
    void showEvent(QShowEvent* event) override;

  private:
    void follow();   // the snapshot changed
    void refresh();  // asks for the next picture when the stage should show one
    bool wanted() const;

    StudioBridge& bridge_;
    QTimer timer_;
    QImage picture_;
    std::string source_;  // the selection the picture shows
    bool pending_ = false;
    bool failed_ = false;  // the last request had no picture
    int requests_ = 0;
};

}  // namespace pavix
