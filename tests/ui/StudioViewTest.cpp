// The main window on the real desktop session, over a model with fake capture parts and a
// scripted service on loopback. The model runs on a thread of its own, as in the application;
// the test clicks like a person and waits for the window to follow the model.
#include <glib.h>
#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QApplication>
#include <QCheckBox>
#include <QDBusConnection>
#include <QLabel>
#include <QListWidget>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QTest>
#include <QTimer>
#include <QToolButton>
#include <QUrl>
#include <thread>

#include "core/runtime/Uuid.h"
#include "ui/ModelOnThread.h"
#include "ui/PreviewStage.h"
#include "ui/RecordingRow.h"
#include "ui/StudioView.h"

namespace pavix::test {
namespace {

// A file manager on the session bus, as a desktop's would answer.
class FakeFileManager : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.FileManager1")

  public:
    FakeFileManager() {
        auto bus = QDBusConnection::sessionBus();
        registered = bus.registerObject("/org/freedesktop/FileManager1", this,
                                        QDBusConnection::ExportScriptableSlots) &&
                     bus.registerService("org.freedesktop.FileManager1");
    }
    ~FakeFileManager() override {
        auto bus = QDBusConnection::sessionBus();
        bus.unregisterService("org.freedesktop.FileManager1");
        bus.unregisterObject("/org/freedesktop/FileManager1");
    }

    bool registered = false;
    QStringList shown;

  public Q_SLOTS:
    Q_SCRIPTABLE void ShowItems(const QStringList& uris, const QString&) { shown += uris; }
};

namespace fs = std::filesystem;
using Stage = LocalCapture::Stage;

class StudioViewTest : public ::testing::Test {
  protected:
    StudioViewTest() {
        view = std::make_unique<StudioView>(*m.bridge, h.library);
        view->show();
        m.start();
    }

    bool until(const std::function<bool(const StudioState&)>& condition) {
        return m.until(condition);
    }
    template <class T>
    T* find(const QString& text) {
        for (auto* widget : view->findChildren<T*>()) {
            if (widget->text() == text) {
                return widget;
            }
        }
        return nullptr;
    }
    QLabel* status() { return named<QLabel>(*view, "Status"); }
    RecordingRow* row(int index) {
        auto* list = named<QListWidget>(*view, "On this computer");
        return static_cast<RecordingRow*>(list->itemWidget(list->item(index)));
    }
    RecordingRow* rowOf(const std::string& id) {
        for (auto* candidate : view->findChildren<RecordingRow*>()) {
            if (candidate->recordId() == id) {
                return candidate;
            }
        }
        return nullptr;
    }
    QToolButton* action(RecordingRow* row, const QString& name) {
        return named<QToolButton>(*row, name);
    }
    // Records by clicking "Record it yourself", then "Stop"; returns the record's id.
    std::string recordAndStop() {
        auto id = Uuid::make();
        uploads.issue(id);
        QTest::mouseClick(find<QPushButton>("Record it yourself"), Qt::LeftButton);
        EXPECT_TRUE(until([](const StudioState& s) { return s.recording && s.manual; }));
        EXPECT_TRUE(QTest::qWaitFor([&] { return find<QPushButton>("Stop") != nullptr; }));
        QTest::mouseClick(find<QPushButton>("Stop"), Qt::LeftButton);
        EXPECT_TRUE(until([](const StudioState& s) { return !s.recording && !s.busy; }));
        return Uuid::upper(id);
    }

    ModelOnThread m;
    StudioHarness& h = m.h;
    ScriptedUploads& uploads = m.uploads;
    std::unique_ptr<StudioView> view;
};

// The preview runs a small stream of its own while shown and idle; a recording stops it before
// its own stream starts, and hiding the window ends it.
TEST_F(StudioViewTest, ApprovalRecordAndStopFollowTheModelAndThePreviewGivesWay) {
    auto* stage = view->findChild<PreviewStage*>();
    ASSERT_NE(stage, nullptr);
    auto& streams = *m.capture.streams;
    auto script = [&](auto read) {
        std::lock_guard lock(streams.mutex);
        return read(streams);
    };
    ASSERT_TRUE(QTest::qWaitFor([&] { return stage->pictures() >= 3; }));
    EXPECT_TRUE(stage->caption().isEmpty());
    auto asked = script([](auto& s) { return s.configs.back(); });
    EXPECT_LE(asked.width, stage->width() * stage->devicePixelRatio());
    EXPECT_LE(asked.height, stage->height() * stage->devicePixelRatio());
    EXPECT_TRUE(asked.draft);
    EXPECT_FALSE(asked.showsCursor);
    EXPECT_EQ(asked.minimumFrameInterval, PreviewFeed::kInterval);

    auto* consent = view->findChild<QCheckBox*>();
    ASSERT_NE(consent, nullptr);
    QTest::mouseClick(consent, Qt::LeftButton, {}, QPoint(4, consent->height() / 2));
    ASSERT_TRUE(until([](const StudioState& s) { return s.consent; }));

    auto id = Uuid::make();
    uploads.issue(id);
    QTest::mouseClick(find<QPushButton>("Record it yourself"), Qt::LeftButton);
    ASSERT_TRUE(until([](const StudioState& s) { return s.recording; }));
    ASSERT_TRUE(QTest::qWaitFor([&] { return find<QPushButton>("Stop") != nullptr; }));
    EXPECT_EQ(status()->text(), "Recording Text Editor — notes.txt. Press Stop when done.");
    // The share button says why it cannot be pressed, and the sources cannot change.
    EXPECT_FALSE(find<QPushButton>("Share with agent")->isEnabled());
    EXPECT_NE(find<QLabel>("Stop the current recording first."), nullptr);
    EXPECT_FALSE(view->findChild<QListWidget*>()->isEnabled());
    EXPECT_FALSE(consent->isEnabled());
    QTest::qWait(100);  // pictures already on their way are dropped
    const int shown = stage->pictures();
    QTest::qWait(300);
    EXPECT_EQ(stage->pictures(), shown);
    EXPECT_EQ(script([](auto& s) { return s.live; }), 1) << "the recording's stream alone";
    EXPECT_EQ(script([](auto& s) { return s.mostLive; }), 1) << "never two streams at once";
    EXPECT_TRUE(stage->hasPicture());
    EXPECT_EQ(stage->caption(), "Preview pauses while recording.");

    QTest::mouseClick(find<QPushButton>("Stop"), Qt::LeftButton);
    ASSERT_TRUE(until([](const StudioState& s) { return !s.busy && !s.recording; }));
    ASSERT_TRUE(QTest::qWaitFor([&] { return find<QLabel>("Uploaded") != nullptr; }));
    EXPECT_EQ(status()->text(),
              "Uploaded. Ask your agent to render it, or open your Pavix library.");
    EXPECT_TRUE(uploads.upload(id) && uploads.upload(id)->published);
    EXPECT_FALSE(consent->isChecked());
    EXPECT_TRUE(find<QPushButton>("Record it yourself")->isEnabled());
    // The latest recording stays the model's own until the next begins: not played, not
    // deleted, and an uploaded one offers no retry.
    auto* uploaded = row(0);
    EXPECT_FALSE(action(uploaded, "Retry upload")->isVisible());
    EXPECT_FALSE(action(uploaded, "Play")->isEnabled());
    EXPECT_FALSE(action(uploaded, "Move to Trash")->isEnabled());
    EXPECT_TRUE(action(uploaded, "Show in folder")->isEnabled());
    EXPECT_TRUE(QTest::qWaitFor([&] { return stage->pictures() > shown; }));

    view->hide();
    EXPECT_TRUE(QTest::qWaitFor([&] { return script([](auto& s) { return s.live; }) == 0; }));
}

// The update check's decision in the window: a banner with "Download" for a newer version; for
// a required one, its sentence, and recording refused with the reason beside the buttons.
TEST_F(StudioViewTest, TheUpdateBannerAndTheRequiredUpdateFollowTheCheck) {
    h.server.reply("/downloads/pavix-linux.json", 200, R"({"latest":{"version":"1.4"}})");
    bool checked = false;
    auto check = [&](const std::string& minimum) {
        h.server.reply("/local-browser/version", 200,
                       R"({"minimumAppVersion":")" + minimum + "\"}");
        checked = false;
        m.bridge->spawn([](Studio& studio) { return studio.checkForUpdate(true); },
                        [&] { checked = true; });
        return QTest::qWaitFor([&] { return checked; });
    };
    ASSERT_TRUE(check("1.0"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return find<QLabel>("Pavix 1.4 is available."); }));
    EXPECT_TRUE(find<QLabel>("Pavix 1.4 is available.")->isVisible());
    EXPECT_TRUE(find<QPushButton>("Download")->isVisible());
    EXPECT_TRUE(find<QPushButton>("Record it yourself")->isEnabled());

    ASSERT_TRUE(check("1.3"));
    const QString required =
        "Update to Pavix 1.4 to start new recordings. Current uploads continue.";
    ASSERT_TRUE(QTest::qWaitFor([&] { return find<QLabel>(required); }));
    EXPECT_TRUE(find<QLabel>(required)->isVisible());
    EXPECT_FALSE(find<QPushButton>("Record it yourself")->isEnabled());
    EXPECT_FALSE(find<QPushButton>("Share with agent")->isEnabled());
    EXPECT_NE(find<QLabel>("Update Pavix to keep recording."), nullptr);
}

TEST_F(StudioViewTest, AFailedUploadIsRetriedFromItsRowWithProgress) {
    uploads.fault(ScriptedUploads::Fault::badGateway);
    auto id = recordAndStop();
    ASSERT_TRUE(until([&](const StudioState& s) {
        return !s.recent.empty() && s.recent[0].stage == Stage::saved && !s.uploading;
    }));
    EXPECT_EQ(status()->text().left(60),
              QString("Upload did not finish. Local video saved; use Retry upload. ").left(60));
    ASSERT_TRUE(QTest::qWaitFor([&] { return action(row(0), "Retry upload")->isEnabled(); }));

    // The retry shows the upload's progress in the row while it runs.
    bool progressSeen = false;
    auto watch = QObject::connect(m.bridge.get(), &StudioBridge::changed, [&] {
        if (auto* bar = row(0)->findChild<QProgressBar*>(); bar && bar->isVisible()) {
            progressSeen = true;
        }
    });
    QTest::mouseClick(action(row(0), "Retry upload"), Qt::LeftButton);
    ASSERT_TRUE(until([&](const StudioState& s) {
        return !s.recent.empty() && s.recent[0].stage == Stage::uploaded && !s.uploading;
    }));
    QObject::disconnect(watch);
    EXPECT_TRUE(progressSeen);
    EXPECT_TRUE(QTest::qWaitFor([&] { return find<QLabel>("Uploaded") != nullptr; }));
    EXPECT_EQ(status()->text(), "Capture recovered. Ask your agent to render and export.");
    EXPECT_TRUE(uploads.upload(Uuid::lower(id))->published);
}

// With two recordings, the earlier one's row has all its actions on: Tab reaches them and every
// other control in reading order, the file manager is asked to show its video, and the video
// goes to the real Trash only when the question is answered so.
TEST_F(StudioViewTest, TheKeyboardReachesEveryControlAndAnEarlierVideoIsShownOrTrashed) {
    FakeFileManager files;
    ASSERT_TRUE(files.registered);
    auto id = recordAndStop();
    auto latest = recordAndStop();
    const auto video = h.library / ("Pavix-" + id + ".mp4");
    ASSERT_TRUE(fs::exists(video));
    ASSERT_TRUE(QTest::qWaitFor([&] { return action(rowOf(id), "Move to Trash")->isEnabled(); }));
    EXPECT_FALSE(action(rowOf(latest), "Move to Trash")->isEnabled());

    view->activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(view.get()));
    QStringList order;
    QWidget* first = nullptr;
    for (int i = 0; i < 40; ++i) {
        QTest::keyClick(QApplication::focusWidget() ? QApplication::focusWidget() : view.get(),
                        Qt::Key_Tab);
        auto* focused = QApplication::focusWidget();
        if (!focused || focused == first) {
            break;
        }
        first = first ? first : focused;
        auto* button = qobject_cast<QAbstractButton*>(focused);
        QString name = !focused->accessibleName().isEmpty() ? focused->accessibleName()
                       : button                             ? button->text()
                                                            : focused->metaObject()->className();
        order << name;
    }
    const QStringList expected = {"Settings…",
                                  "Sources",
                                  "Refresh",
                                  "Pick a window…",
                                  "Server",
                                  "One-time code",
                                  "Approve recording and upload of the selected source",
                                  "Share with agent",
                                  "Record it yourself",
                                  "On this computer"};
    int at = 0;
    for (const auto& name : order) {
        if (at < expected.size() && name == expected[at]) {
            ++at;
        }
    }
    EXPECT_EQ(at, expected.size()) << order.join(" | ").toStdString();
    EXPECT_TRUE(order.contains("Move to Trash")) << order.join(" | ").toStdString();
    // Space on the focused approval box gives the approval.
    auto* consent = view->findChild<QCheckBox*>();
    consent->setFocus();
    QTest::keyClick(consent, Qt::Key_Space);
    EXPECT_TRUE(until([](const StudioState& s) { return s.consent; }));

    QTest::mouseClick(action(rowOf(id), "Show in folder"), Qt::LeftButton);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !files.shown.isEmpty(); }));
    EXPECT_EQ(files.shown,
              QStringList{QUrl::fromLocalFile(QString::fromStdString(video.string())).toString()});

    // The real question, answered by its buttons as a person would.
    auto answer = [&](const QString& button) {
        QString asked;
        QTimer::singleShot(0, [&] {
            ASSERT_TRUE(QTest::qWaitFor(
                [] { return qobject_cast<QMessageBox*>(QApplication::activeModalWidget()); }));
            auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
            asked = box->text();
            for (auto* candidate : box->buttons()) {
                if (candidate->text() == button) {
                    QTest::mouseClick(candidate, Qt::LeftButton);
                }
            }
        });
        QTest::mouseClick(action(rowOf(id), "Move to Trash"), Qt::LeftButton);
        return asked;
    };
    EXPECT_EQ(answer("Keep"), "Move this recording to the Trash?");
    QTest::qWait(200);
    EXPECT_TRUE(fs::exists(video)) << "kept";
    EXPECT_EQ(m.bridge->snapshot().state.recent.size(), 2u);

    EXPECT_EQ(answer("Move to Trash"), "Move this recording to the Trash?");
    ASSERT_TRUE(until([](const StudioState& s) { return s.recent.size() == 1; }));
    EXPECT_FALSE(fs::exists(video));
    const auto trashed = fs::path(g_get_user_data_dir()) / "Trash" / "files" / video.filename();
    EXPECT_TRUE(fs::exists(trashed)) << trashed;
    EXPECT_EQ(status()->text(), "Local copy moved to Trash. Cloud recordings are unchanged.");
}

}  // namespace
}  // namespace pavix::test

#include "StudioViewTest.moc"
