#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "linux/X11ApplicationWindows.h"
#include "linux/X11Display.h"
#include "linux/X11TopLevels.h"
#include "platform/WindowLayers.h"

namespace pavix {

// The window list for the layer track, from the X server's stacking order and the EWMH window
// types. Keeps its own connection; the stack is followed through notifications, so a sampling
// tick in which nothing moved costs no round trip.
class X11WindowLayers : public WindowLayers {
  public:
    explicit X11WindowLayers(const std::string& displayName = "");
    std::vector<LayerWindow> windows(std::uint32_t windowID) override;

  private:
    std::mutex mutex_;
    X11Display display_;
    X11TopLevels topLevels_;
    std::unique_ptr<X11ApplicationWindows> application_;
};

}  // namespace pavix
