#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace pavix {

struct WindowPickerHandlers {
    std::function<void(std::uint32_t windowID)> selected;
    std::function<void()> canceled;
    std::function<void(const std::string& reason)> failed;
};

// Lets the user choose a window by clicking it. Exactly one handler runs per `present`, on the
// picker's own thread.
class WindowPicker {
  public:
    virtual ~WindowPicker() = default;
    // Returns at once. Presenting while a pick is in progress fails that new request.
    virtual void present(WindowPickerHandlers handlers) = 0;
    // Ends a pick in progress as canceled; nothing when none is.
    virtual void cancel() = 0;
    // Whether a pick is in progress.
    virtual bool accepting() const = 0;
};

}  // namespace pavix
