#pragma once

#include <atomic>
#include <future>
#include <string>
#include <thread>

#include "linux/X11Wakeup.h"
#include "platform/CaptureStream.h"

namespace pavix {

class X11Display;
class X11Grabber;

// The capture stream on X11. Each running stream has its own thread and its own connection to
// the server:
//  - a window through XComposite (its content even when covered),
//  - a display through XShm from the root window,
//  - an application region composed from the application's windows with XRender.
// XDamage says whether a tick has anything new; a tick without damage, cursor movement or
// resizing delivers an idle frame and reads no pixels.
class X11CaptureStream : public CaptureStream {
  public:
    explicit X11CaptureStream(std::string displayName = "");
    ~X11CaptureStream() override;

    void start(const CaptureFilter& filter, const CaptureStreamConfig& config,
               CaptureStreamHandlers handlers) override;
    void stop() override;

  private:
    void run(CaptureFilter filter, CaptureStreamConfig config, CaptureStreamHandlers handlers,
             std::promise<void> started);
    void loop(X11Display& display, X11Grabber& grabber, const CaptureStreamConfig& config,
              const CaptureStreamHandlers& handlers);

    std::string displayName_;
    X11Wakeup wakeup_;
    std::thread thread_;
    std::atomic<bool> stopping_{false};
    std::atomic<bool> running_{false};
};

}  // namespace pavix
