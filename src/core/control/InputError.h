#pragma once

#include <string>

#include "core/session/PavixError.h"

namespace pavix {

// A refusal of the input driver, worded for the agent: the sentence goes back unchanged.
class InputError : public PavixError {
  public:
    using PavixError::PavixError;

    static InputError unsupported(const std::string& what) {
        return InputError("local_method_forbidden: unsupported: " + what);
    }
    static InputError notFound(const std::string& what) {
        return InputError("local_method_forbidden: not found: " + what);
    }
    static InputError refused(const std::string& sentence) { return InputError(sentence); }
    // A password field: the user signs in themselves.
    static InputError secureField() { return InputError("local_sign_in_required"); }
};

}  // namespace pavix
