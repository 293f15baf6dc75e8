// Renders every window, pop-over and the floating bar of Pavix to PNG files, so that anyone
// can look at them: the main window (empty, and with a library), the settings, the bar and
// its two menus, the tray menu and the removal question. Run it on a desktop of its own
// (scripts/render-views does); it writes sample recordings into that desktop's library.
//
//   pavix-render-views OUTPUT_FOLDER
#include <QApplication>
#include <QDir>
#include <QMenu>
#include <QMessageBox>
#include <QStandardPaths>
#include <QTimer>
#include <cstdio>
#include <fstream>

#include "core/library/CaptureJournal.h"
#include "core/runtime/Uuid.h"
#include "core/session/Studio.h"
#include "linux/XdgFolders.h"
#include "ui/AccountPopover.h"
#include "ui/DemoView.h"
#include "ui/FloatingBar.h"
#include "ui/LinuxEnvironment.h"
#include "ui/ModelThread.h"
#include "ui/RecorderMenu.h"
#include "ui/SettingsView.h"
#include "ui/SourcesPopover.h"
#include "ui/StudioBridge.h"
#include "ui/StudioView.h"
#include "ui/Theme.h"

using namespace pavix;

namespace {

// A few recordings in each stage the library shows.
void sampleLibrary(const std::filesystem::path& folder) {
    CaptureJournal journal(folder);
    const LocalCapture::Stage stages[] = {LocalCapture::Stage::uploaded, LocalCapture::Stage::saved,
                                          LocalCapture::Stage::interrupted};
    double created = 785'000'000.0;
    for (auto stage : stages) {
        LocalCapture record;
        record.id = Uuid::upper(Uuid::make());
        record.createdAt = created;
        created -= 90'000;
        record.stage = stage;
        record.durationMs = 83'000;
        record.width = 1280;
        record.height = 720;
        std::ofstream(folder / record.fileName()) << "sample";
        journal.save(record);
    }
}

void save(QWidget& widget, const QString& folder, const QString& name) {
    widget.grab().save(folder + "/" + name + ".png");
    std::printf("%s/%s.png\n", qPrintable(folder), qPrintable(name));
}

// A menu as it opens: filled, laid out, then drawn.
void saveMenu(QMenu& menu, const QString& folder, const QString& name) {
    Q_EMIT menu.aboutToShow();
    menu.adjustSize();
    save(menu, folder, name);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: pavix-render-views OUTPUT_FOLDER\n");
        return 64;
    }
    QApplication app(argc, argv);
    Theme::apply(app);
    const QString out = QString::fromLocal8Bit(argv[1]);
    QDir().mkpath(out);

    ModelThread model;
    LinuxEnvironment platform;
    auto env = platform.studio(model.executor());
    Studio studio(env);
    studio.setServer("http://127.0.0.1:8640");
    studio.loadLibrary();
    StudioBridge bridge(studio, model.executor());
    StudioView window(bridge, env.libraryFolder);
    window.show();
    model.start();

    // The first view: nothing recorded, sources listed.
    bridge.spawn([](Studio& s) -> asio::awaitable<void> {
        co_await s.refreshSources();
        s.selectDefaultSource();
        s.setCode("ABCD-1234");
    });
    auto settle = [&] {
        for (int i = 0; i < 20; ++i) {
            QApplication::processEvents();
            QTimer timer;
            timer.start(25);
            QEventLoop loop;
            QObject::connect(&timer, &QTimer::timeout, &loop, &QEventLoop::quit);
            loop.exec();
        }
    };
    settle();
    save(window, out, "main-window-empty");

    std::filesystem::create_directories(env.libraryFolder);
    sampleLibrary(env.libraryFolder);
    bridge.call([](Studio& s) { s.loadLibrary(); });
    settle();
    save(window, out, "main-window-library");

    SettingsView settings(
        bridge,
        AutostartEntry(
            QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation).toStdString()));
    settings.show();
    settle();
    save(settings, out, "settings");

    FloatingBar bar(bridge);
    bar.show();
    settle();
    save(bar, out, "floating-bar");
    saveMenu(bar.sources(), out, "floating-bar-sources");
    saveMenu(bar.account(), out, "floating-bar-account");

    QAction stop("Stop recording");
    stop.setEnabled(false);
    RecorderMenu tray(bridge, &stop);
    saveMenu(*tray.menu(), out, "tray-menu");

    DemoView demo;
    demo.show();
    settle();
    save(demo, out, "capture-demo");

    auto question = StudioView::removalQuestion(&window);
    question->show();
    settle();
    save(*question, out, "remove-question");

    model.stop();
    return 0;
}
