#pragma once

#include <X11/Xlib.h>

namespace pavix {

// Collects the X protocol errors raised on one connection while it exists, instead of letting
// Xlib's default handler print them and end the process. Nested and concurrent traps on
// different threads are allowed; each connection must be used by one thread at a time.
//
// Xlib keeps a single process-wide error handler that receives no context, so the traps share
// one installation: the first trap to start installs the recording handler and the last one to
// end restores whatever handler was there before. The handler finds the trap to record into
// through the innermost trap of the calling thread, because Xlib reports an error on the thread
// that reads the connection.
class X11ErrorTrap {
  public:
    explicit X11ErrorTrap(Display* display);
    ~X11ErrorTrap();
    X11ErrorTrap(const X11ErrorTrap&) = delete;
    X11ErrorTrap& operator=(const X11ErrorTrap&) = delete;

    // Waits until the server has handled every request sent so far, then returns the code of the
    // first error since the trap started or since the last call (0 when there was none) and
    // forgets it.
    int sync();
    // The first error recorded and not yet taken, without a round trip.
    int pending() const { return error_; }
    void clear() { error_ = 0; }

  private:
    static int record(Display* display, XErrorEvent* event);

    Display* display_;
    X11ErrorTrap* outer_;
    int error_ = 0;
};

}  // namespace pavix
