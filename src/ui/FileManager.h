#pragma once

#include <QString>

namespace pavix::FileManager {

// Opens the folder that holds `file` in the desktop's file manager with the file selected,
// through the freedesktop FileManager1 interface; a desktop without one gets the folder opened
// by its default handler. Returns at once: the file manager answers later.
void showItem(const QString& file);

}  // namespace pavix::FileManager
