#pragma once

#include <string>

namespace pavix {

// Where the system's log lines go. Lines never carry tokens, refresh tokens or pairing codes.
class Log {
  public:
    virtual ~Log() = default;
    virtual void line(const std::string& text) = 0;
};

}  // namespace pavix
