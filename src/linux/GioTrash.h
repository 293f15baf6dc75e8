#pragma once

#include "platform/Trash.h"

namespace pavix {

// The freedesktop.org trash through GIO. A file on the home volume goes to
// $XDG_DATA_HOME/Trash (the file under files/, its original path and deletion date under
// info/); a file on another volume goes to that volume's own trash folder. GIO chooses a free
// name inside the trash, so an earlier trashed file of the same name is never replaced.
class GioTrash : public Trash {
  public:
    void moveToTrash(const std::filesystem::path& file) override;
};

}  // namespace pavix
