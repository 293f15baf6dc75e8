#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>

namespace pavix {

// The user's trash can. Files moved there can be restored by the user; nothing here ever
// unlinks a file.
class Trash {
  public:
    // The volume of the file has no trash can (or the desktop offers none). The file stays.
    struct NotSupported : std::runtime_error {
        using std::runtime_error::runtime_error;
    };

    virtual ~Trash() = default;
    // Moves `file` to the trash. Blocking; call it off the model executor. Throws NotSupported
    // when the file's volume has no trash, std::runtime_error with the system's sentence for
    // other failures.
    virtual void moveToTrash(const std::filesystem::path& file) = 0;
};

}  // namespace pavix
