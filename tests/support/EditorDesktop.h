#pragma once

#include "platform/ShareableContent.h"

namespace pavix::test {

// The desktop most model tests record: one 800×600 text editor window ("Text Editor —
// notes.txt", window-4242) on a 1920×1080 display; without the window when it has closed.
inline ShareableContentSnapshot editorDesktop(bool withWindow = true) {
    ShareableContentSnapshot snapshot;
    if (withWindow) {
        ShareableWindow editor;
        editor.id = 4242;
        editor.pid = 99;
        editor.title = "notes.txt";
        editor.appName = "Text Editor";
        editor.width = 800;
        editor.height = 600;
        editor.onScreen = true;
        snapshot.windows = {editor};
    }
    snapshot.displays = {{77, 0, 0, 1920, 1080}};
    return snapshot;
}

}  // namespace pavix::test
