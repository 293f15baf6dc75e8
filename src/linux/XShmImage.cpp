#include "linux/XShmImage.h"

#include <X11/Xutil.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include "core/capture/CaptureError.h"
#include "linux/X11ErrorTrap.h"

namespace pavix {

XShmImage::XShmImage(Display* display, Visual* visual, int depth, int width, int height)
    : display_(display) {
    auto fail = [this](const char* why) {
        release();
        throw CaptureError(CaptureError::kFailedToStart,
                           std::string("Cannot share image memory with the X server: ") + why);
    };
    if (!XShmQueryExtension(display)) {
        throw CaptureError(CaptureError::kFailedToStart,
                           "The X server does not offer shared-memory images (MIT-SHM).");
    }
    segment_.shmid = -1;
    segment_.shmaddr = reinterpret_cast<char*>(-1);
    image_ = XShmCreateImage(display, visual, depth, ZPixmap, nullptr, &segment_, width, height);
    if (image_ == nullptr) {
        fail("no image");
    }
    if (image_->bits_per_pixel != 32) {
        fail("the pixel format is not 32 bits");
    }
    segment_.shmid = shmget(IPC_PRIVATE, static_cast<std::size_t>(image_->bytes_per_line) * height,
                            IPC_CREAT | 0600);
    if (segment_.shmid < 0) {
        fail("shmget failed");
    }
    segment_.shmaddr = image_->data = static_cast<char*>(shmat(segment_.shmid, nullptr, 0));
    if (segment_.shmaddr == reinterpret_cast<char*>(-1)) {
        fail("shmat failed");
    }
    segment_.readOnly = False;
    X11ErrorTrap trap(display);
    XShmAttach(display, &segment_);
    if (trap.sync() != 0) {
        fail("the server could not attach the segment");
    }
    attached_ = true;
    // Marked for removal now that both sides are attached: the segment then disappears with the
    // last detach, even if this process is killed.
    shmctl(segment_.shmid, IPC_RMID, nullptr);
}

XShmImage::~XShmImage() {
    release();
}

void XShmImage::release() {
    if (attached_) {
        X11ErrorTrap trap(display_);
        XShmDetach(display_, &segment_);
        attached_ = false;
    }
    if (image_ != nullptr) {
        image_->data = nullptr;  // the memory is the segment's, not Xlib's
        XDestroyImage(image_);
        image_ = nullptr;
    }
    if (segment_.shmaddr != reinterpret_cast<char*>(-1) && segment_.shmaddr != nullptr) {
        shmdt(segment_.shmaddr);
        segment_.shmaddr = reinterpret_cast<char*>(-1);
    }
    if (segment_.shmid >= 0) {
        shmctl(segment_.shmid, IPC_RMID, nullptr);
        segment_.shmid = -1;
    }
}

bool XShmImage::grab(Drawable drawable, int x, int y) {
    return XShmGetImage(display_, drawable, image_, x, y, AllPlanes) != 0;
}

}  // namespace pavix
