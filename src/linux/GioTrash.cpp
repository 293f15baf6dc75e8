#include "linux/GioTrash.h"

#include <gio/gio.h>

#include <memory>

namespace pavix {
namespace {

struct ObjectUnref {
    void operator()(gpointer object) const { g_object_unref(object); }
};

struct ErrorFree {
    void operator()(GError* error) const { g_error_free(error); }
};

using FilePtr = std::unique_ptr<GFile, ObjectUnref>;
using ErrorPtr = std::unique_ptr<GError, ErrorFree>;

}  // namespace

void GioTrash::moveToTrash(const std::filesystem::path& file) {
    // GIO resolves an empty path to the current folder, which would go to the trash whole.
    if (file.empty()) {
        throw std::runtime_error("No file was named to move to the trash.");
    }
    FilePtr target(g_file_new_for_path(file.c_str()));
    GError* raw = nullptr;
    if (g_file_trash(target.get(), nullptr, &raw)) {
        return;
    }
    ErrorPtr error(raw);
    if (error == nullptr) {
        throw std::runtime_error("The file could not be moved to the trash.");
    }
    // GIO answers NOT_SUPPORTED for volumes without a trash folder it may use (system mounts
    // such as /dev/shm, volumes marked x-gvfs-notrash, read-only volumes) and for a trash
    // folder that lies on another file system than the file.
    if (g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_NOT_SUPPORTED)) {
        throw Trash::NotSupported("This volume has no Trash. The file stays where it is.");
    }
    throw std::runtime_error(error->message);
}

}  // namespace pavix
