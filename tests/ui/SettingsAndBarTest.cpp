// The settings window and the floating bar over a model on its own thread: each control
// reaches the model and the stored settings, the autostart entry is written and removed, the
// forget question does what its answer says, and the bar records, times and stops.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QGuiApplication>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QTimer>
#include <QToolButton>

#include "core/runtime/Uuid.h"
#include "support/LibraryRecords.h"
#include "ui/CaptureIndicator.h"
#include "ui/DemoView.h"
#include "ui/FloatingBar.h"
#include "ui/FloatingBarView.h"
#include "ui/ModelOnThread.h"
#include "ui/SettingsView.h"

namespace pavix::test {
namespace {

namespace fs = std::filesystem;

TEST(SettingsViewTest, EachControlReachesTheModelAndTheStoredSettingsAndForgetAsksFirst) {
    ModelOnThread m;
    StudioHarness& h = m.h;
    const auto config = h.library.parent_path() / "config";
    SettingsView view(*m.bridge, AutostartEntry(config));
    view.show();
    m.start();

    struct Toggle {
        QString row;
        std::string key;
        bool initially;
        std::function<bool(const StudioState&)> published;
    } toggles[] = {
        {"Show the floating bar", "showBar", true, [](const StudioState& s) { return s.showHUD; }},
        {"Let the agent operate the shared window", "allowControl", false,
         [](const StudioState& s) { return s.allowControl; }},
        {"Send failure reports", "diagnosticsOptIn", false,
         [](const StudioState& s) { return s.diagnosticsOptIn; }},
        {"Trash uploaded copies after 30 days", "autoTrashUploaded", true,
         [](const StudioState& s) { return s.autoTrashUploaded; }},
        {"Include beta versions", "betaUpdates", false,
         [](const StudioState& s) { return s.preferences.betaUpdates; }},
    };
    for (const auto& t : toggles) {
        SCOPED_TRACE(t.row.toStdString());
        auto* box = named<QCheckBox>(view, t.row);
        ASSERT_NE(box, nullptr);
        EXPECT_EQ(box->isChecked(), t.initially);
        box->click();
        ASSERT_TRUE(m.until([&](const StudioState& s) { return t.published(s) != t.initially; }));
        EXPECT_EQ(h.defaults.boolean(t.key), !t.initially);
    }

    auto* console = named<QLineEdit>(view, "Console address");
    console->setFocus();
    QTest::keyClicks(console, "https://console.example.com");
    QTest::keyClick(console, Qt::Key_Return);
    auto* width = named<QSpinBox>(view, "Widest video");
    width->setFocus();
    width->setValue(1920);
    QTest::keyClick(width, Qt::Key_Return);
    ASSERT_TRUE(m.until([](const StudioState& s) {
        return s.preferences.consoleURL == "https://console.example.com" &&
               s.preferences.captureMaxWidth == 1920;
    }));
    EXPECT_EQ(h.defaults.text("consoleURL"), "https://console.example.com");
    EXPECT_EQ(h.defaults.integer("captureMaxWidth"), 1920);
    // Back to automatic: the key goes.
    width->setValue(0);
    QTest::keyClick(width, Qt::Key_Return);
    ASSERT_TRUE(m.until([](const StudioState& s) { return !s.preferences.captureMaxWidth; }));
    EXPECT_FALSE(h.defaults.integer("captureMaxWidth"));

    // Start at login writes the autostart entry and removes it.
    const auto entry = config / "autostart" / "pavix.desktop";
    auto* box = named<QCheckBox>(view, "Start Pavix when you log in");
    EXPECT_FALSE(box->isChecked());
    box->click();
    ASSERT_TRUE(fs::exists(entry));
    const auto text = readBytes(entry);
    EXPECT_NE(text.find("[Desktop Entry]\nType=Application\nName=Pavix\n"), std::string::npos);
    EXPECT_NE(text.find("Exec=\"" + QCoreApplication::applicationFilePath().toStdString() + "\"\n"),
              std::string::npos)
        << text;
    EXPECT_TRUE(box->isChecked());
    box->click();
    EXPECT_FALSE(fs::exists(entry));
    EXPECT_FALSE(box->isChecked());

    // Forgetting the pairing asks first.
    std::vector<bool> answers = {false, true};
    int asked = 0;
    view.confirmForget = [&](QWidget*) { return answers[asked++]; };
    auto* forget = named<QPushButton>(view, "Pairing");
    ASSERT_TRUE(forget->isEnabled());
    forget->click();
    EXPECT_EQ(asked, 1);
    EXPECT_TRUE(m.bridge->snapshot().state.paired);
    forget->click();
    EXPECT_EQ(asked, 2);
    ASSERT_TRUE(m.until([](const StudioState& s) { return !s.paired; }));
    EXPECT_EQ(m.bridge->snapshot().state.status,
              "Disconnected. Local videos remain on this computer.");
    EXPECT_FALSE(forget->isEnabled());
}

TEST(FloatingBarTest, RecordsTimesAndStopsAndHidesWhenTurnedOff) {
    ModelOnThread m;
    FloatingBar bar(*m.bridge);
    CaptureIndicator indicator(*m.bridge);
    m.start();
    ASSERT_TRUE(QTest::qWaitFor([&] { return bar.isVisible(); }));
    auto* record = named<QToolButton>(bar, "Record it yourself");
    ASSERT_NE(record, nullptr);
    ASSERT_TRUE(record->isEnabled());
    auto* state = named<QLabel>(bar, "State");
    EXPECT_EQ(state->text(), "Ready · Text Editor — notes.txt");

    auto id = Uuid::make();
    m.uploads.issue(id);
    record->click();
    ASSERT_TRUE(m.until([](const StudioState& s) { return s.recording; }));
    auto* elapsed = named<QLabel>(bar, "Recorded time");
    ASSERT_TRUE(QTest::qWaitFor([&] { return elapsed->isVisible(); }));
    EXPECT_EQ(elapsed->text(), "0:00");
    EXPECT_EQ(state->text(), "Recording Text Editor — notes.txt");
    // The indicator marks every screen while it records.
    ASSERT_EQ(indicator.marks().size(), QGuiApplication::screens().size());
    EXPECT_TRUE(indicator.marks().front()->isVisible());

    named<QToolButton>(bar, "Stop")->click();
    ASSERT_TRUE(m.until([](const StudioState& s) { return !s.recording && !s.busy; }));
    EXPECT_TRUE(QTest::qWaitFor([&] { return !elapsed->isVisible(); }));
    EXPECT_TRUE(indicator.marks().empty());
    EXPECT_TRUE(m.uploads.upload(id) && m.uploads.upload(id)->published);

    m.bridge->call([](Studio& studio) { studio.setShowHUD(false); });
    EXPECT_TRUE(QTest::qWaitFor([&] { return !bar.isVisible(); }));
}

TEST(DemoViewTest, ThePictureMovesWhileShownAndRestsWhenHidden) {
    DemoView demo;
    EXPECT_EQ(demo.windowTitle(), "Pavix Capture Demo");
    demo.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&demo));
    auto first = demo.grab().toImage();
    QTest::qWait(100);  // the picture's own motion, not a wait for an event
    EXPECT_NE(demo.grab().toImage(), first);
    demo.hide();
    EXPECT_FALSE(demo.findChild<QTimer*>() && demo.findChild<QTimer*>()->isActive());
}

TEST(FloatingBarTest, ElapsedTimeReadsInMinutesAndSeconds) {
    for (auto [seconds, text] :
         {std::pair{0, "0:00"}, {59, "0:59"}, {61, "1:01"}, {3600, "60:00"}}) {
        EXPECT_EQ(FloatingBarView::elapsedText(std::chrono::seconds(seconds)), text);
    }
}

}  // namespace
}  // namespace pavix::test
