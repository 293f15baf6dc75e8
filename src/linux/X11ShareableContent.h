#pragma once

#include <mutex>
#include <string>

#include "linux/X11DesktopEntries.h"
#include "linux/X11Display.h"
#include "platform/ShareableContent.h"

namespace pavix {

// Windows from the window manager's stacking list (EWMH), or the mapped top-levels of the root
// without a manager; displays from RandR monitors; application names from desktop entries.
class X11ShareableContent : public ShareableContent {
  public:
    explicit X11ShareableContent(const std::string& displayName = "",
                                 X11DesktopEntries entries = X11DesktopEntries());
    ShareableContentSnapshot current() override;

  private:
    std::vector<Window> clients();

    std::mutex mutex_;
    X11Display display_;
    X11DesktopEntries entries_;
};

}  // namespace pavix
