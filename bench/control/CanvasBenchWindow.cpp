// The window the visual outline benchmark reads: 1920×1080 pixels, without a frame, that paint
// 96 words in a grid as a design canvas shows them: sizes from 11 to 32 pixels, dark and grey
// text on a light ground, white text on coloured boxes, and light text on a dark panel. Once
// painted it prints each word with the centre of its ink in window coordinates and its size
// ("word Harbor 402.5 75 13") and then its window's number ("window 0x…").
#include <QApplication>
#include <QFontMetricsF>
#include <QPainter>
#include <QTimer>
#include <QWidget>

#include <cstdio>
#include <functional>
#include <utility>
#include <vector>

namespace {

constexpr const char* kWords[] = {
    "Harbor",    "Lantern",   "Meadow",    "Granite",  "Orchard", "Pioneer",  "Quartz",
    "Rainfall",  "Saddle",    "Thimble",   "Umbrella", "Velvet",  "Walnut",   "Yonder",
    "Zephyr",    "Anchor",    "Blossom",   "Cascade",  "Dolphin", "Ember",    "Falcon",
    "Glacier",   "Horizon",   "Island",    "Jasmine",  "Kestrel", "Lagoon",   "Monsoon",
    "Nectar",    "Oyster",    "Pebble",    "Quiver",   "Ribbon",  "Summit",   "Tundra",
    "Utopia",    "Voyage",    "Willow",    "Compass",  "Bramble", "Canyon",   "Drizzle",
    "Estuary",   "Fjord",     "Gazebo",    "Hammock",  "Inkwell", "Juniper",  "Kayak",
    "Ledger",    "Mosaic",    "Nomad",     "Outpost",  "Parcel",  "Quarry",   "Rafter",
    "Satchel",   "Trellis",   "Upland",    "Vintage",  "Wharf",   "Budget",   "Roadmap",
    "Timeline",  "Prototype", "Wireframe", "Backlog",  "Sprint",  "Release",  "Feedback",
    "Persona",   "Journey",   "Sketch",    "Layout",   "Palette", "Gradient", "Shadow",
    "Export",    "Publish",   "Comment",   "Version",  "Archive", "Template", "Library",
    "Component", "Variant",   "Spacing",   "Border",   "Opacity", "Typeface", "Baseline",
    "Margin",    "Column",    "Section",   "Header",   "Footer"};
constexpr int kSizes[] = {11, 12, 13, 14, 15, 16, 18, 20, 24, 32};
constexpr int kColumns = 8;
constexpr int kDarkFrom = 9;  // the rows from here on lie on a dark panel

QFont typeface(int pixels) {
    QFont f("DejaVu Sans");
    f.setPixelSize(pixels);
    return f;
}

struct Word {
    QString text;
    QPointF baseline;
    int pixels;
    QColor ink;
    QColor ground;  // a box behind the word when not transparent
};

QRectF inkOf(const Word& word) {
    return QFontMetricsF(typeface(word.pixels))
        .tightBoundingRect(word.text)
        .translated(word.baseline);
}

std::vector<Word> layout() {
    std::vector<Word> words;
    const QColor none(0, 0, 0, 0);
    int i = 0;
    for (const char* text : kWords) {
        const int row = i / kColumns, column = i % kColumns;
        Word word{text, QPointF(40 + column * 235, 70 + row * 85), kSizes[(i * 7) % 10],
                  QColor("#1a1a1a"), none};
        if (row >= kDarkFrom) {
            word.ink = QColor(i % 2 ? "#e8e8e8" : "#b8c4d0");
        } else if (i % 5 == 2) {
            word.ink = QColor("#ffffff");
            word.ground = QColor(i % 2 ? "#2f4f8f" : "#8f2f3f");
        } else if (i % 5 == 4) {
            word.ink = QColor("#666666");
        }
        words.push_back(word);
        ++i;
    }
    return words;
}

class Canvas : public QWidget {
  public:
    Canvas(std::vector<Word> words, std::function<void()> painted)
        : words_(std::move(words)), painted_(std::move(painted)) {
        setWindowFlag(Qt::FramelessWindowHint);
        setGeometry(0, 0, 1920, 1080);
    }

  protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.fillRect(rect(), QColor("#f7f7f4"));
        painter.fillRect(QRectF(0, 70 + kDarkFrom * 85 - 45, width(), height()), QColor("#262a30"));
        painter.setPen(QPen(QColor("#9aa8b8"), 2));
        // Shapes between the rows, as a drawing has.
        for (int x = 0; x < kColumns; ++x) {
            painter.drawEllipse(QPointF(245 + x * 235, 98 + (x % 3) * 255), 12, 12);
        }
        for (const auto& word : words_) {
            if (word.ground.alpha() > 0) {
                painter.fillRect(inkOf(word).adjusted(-18, -12, 18, 12), word.ground);
            }
            painter.setFont(typeface(word.pixels));
            painter.setPen(word.ink);
            painter.drawText(word.baseline, word.text);
        }
        if (painted_) {
            QTimer::singleShot(0, std::exchange(painted_, nullptr));
        }
    }

  private:
    std::vector<Word> words_;
    std::function<void()> painted_;
};

}  // namespace

int main(int argc, char** argv) {
    qputenv("QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1");
    QApplication app(argc, argv);
    const auto words = layout();
    Canvas canvas(words, [&] {
        for (const auto& word : words) {
            const auto centre = inkOf(word).center();
            std::printf("word %s %g %g %d\n", word.text.toUtf8().constData(), centre.x(),
                        centre.y(), word.pixels);
        }
        std::printf("window 0x%llx\n", static_cast<unsigned long long>(canvas.winId()));
        std::fflush(stdout);
    });
    canvas.show();
    return app.exec();
}
