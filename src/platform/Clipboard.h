#pragma once

#include <string>

namespace pavix {

// The desktop's general clipboard.
class Clipboard {
  public:
    virtual ~Clipboard() = default;
    // Replaces the clipboard's content with `text` as plain UTF-8 text. Throws
    // std::runtime_error when the clipboard cannot be taken.
    virtual void setText(const std::string& text) = 0;
};

}  // namespace pavix
