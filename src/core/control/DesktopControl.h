#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "core/control/OutlineBuilder.h"
#include "core/control/OutlineSnapshot.h"
#include "platform/AccessibilityReader.h"
#include "platform/ShareableContent.h"

namespace pavix {

// The agent's control session over the one window the user shared: it refuses the
// applications that are never operated, reads the window's outline and keeps the last one, so
// that the agent's references name elements of what it last read.
//
// Every call blocks on the accessibility bus and the window system: the session lives on the
// control thread, which runs its methods one at a time.
class DesktopControl {
  public:
    // The control methods; the command loop hands these to the session.
    static bool serves(const std::string& method);

    // Opens the session for `windowID`. Throws PavixError with the agent's
    // "local_method_forbidden: …" sentence when accessibility is off or the window's
    // application is one that is never operated, and with a plain sentence when the window is
    // gone.
    DesktopControl(AccessibilityReader& reader, ShareableContent& content, std::uint32_t windowID,
                   OutlineOptions options = {});

    std::uint32_t windowID() const { return windowID_; }

    // Runs one control method with its positional arguments; throws PavixError with the
    // sentence for the agent.
    nlohmann::json handle(const std::string& method, const nlohmann::json& args);

    // The last outline read, if any.
    const std::optional<OutlineSnapshot>& snapshot() const { return snapshot_; }

  private:
    ShareableWindow locate() const;
    const OutlineSnapshot& read();

    AccessibilityReader& reader_;
    ShareableContent& content_;
    std::uint32_t windowID_;
    OutlineOptions options_;
    std::optional<OutlineSnapshot> snapshot_;
};

}  // namespace pavix
