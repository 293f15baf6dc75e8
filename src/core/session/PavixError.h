#pragma once

#include <stdexcept>
#include <string>

namespace pavix {

// A failure whose description is a sentence meant for the user.
class PavixError : public std::runtime_error {
  public:
    explicit PavixError(const std::string& message) : std::runtime_error(message) {}
    std::string message() const { return what(); }
};

}  // namespace pavix
