#pragma once

#include <QApplication>
#include <QTest>
#include <QWidget>
#include <functional>
#include <thread>

#include "linux/GioTrash.h"
#include "support/EditorDesktop.h"
#include "support/FakeCapturePlatform.h"
#include "support/ScriptedUploads.h"
#include "support/StudioHarness.h"
#include "ui/StudioBridge.h"
#include "ui/Theme.h"

namespace pavix::test {

// The first widget of type T inside `parent` whose accessible name is `name`.
template <class T>
T* named(QWidget& parent, const QString& name) {
    for (auto* widget : parent.findChildren<T*>()) {
        if (widget->accessibleName() == name) {
            return widget;
        }
    }
    return nullptr;
}

// The model the views of a test show: fake capture parts, a scripted service on loopback and
// the real Trash, paired once and then not sharing (so the user may record), with its
// executor on a thread of its own once started, as in the application.
class ModelOnThread {
  public:
    ModelOnThread() : h(fastTiming(), capture.platform()) {
        Theme::apply(*qApp);
        h.studio().environment().trash = &trash;
        h.content.set(editorDesktop());
        h.await(h.studio().refreshSources());
        h.studio().selectSource("window-4242");
        h.pairWithCode();
        h.await(h.studio().disconnect("Disconnected. Local videos remain on this computer."));
        bridge = std::make_unique<StudioBridge>(h.studio(), h.io.get_executor());
    }
    ~ModelOnThread() {
        h.io.stop();
        if (thread.joinable()) {
            thread.join();
        }
        bridge.reset();
    }

    void start() {
        thread = std::thread([this] { h.io.run(); });
    }
    // Waits until the snapshot the views show satisfies `condition`.
    bool until(const std::function<bool(const StudioState&)>& condition) {
        return QTest::qWaitFor([&] { return condition(bridge->snapshot().state); }, 10'000);
    }

    testing::FakeCaptureParts capture;
    StudioHarness h;
    ScriptedUploads uploads{h.server};
    GioTrash trash;
    std::unique_ptr<StudioBridge> bridge;
    std::thread thread;
};

}  // namespace pavix::test
