#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/capture/CaptureRect.h"

namespace pavix {

// An element the agent can name by its reference ("ref_" and a number).
struct OutlineTarget {
    std::shared_ptr<const void> handle;  // the platform's element
    CaptureRect frame;                   // in screen points
    std::string role;                    // the outline's role word
    bool secure = false;
    std::string label;    // the role word and the quoted name, cut to 80 characters
    bool visual = false;  // found in the window's picture rather than its accessible tree
    bool web = false;     // inside a web page
    bool popup = false;   // a combo box that opens a list of options
};

namespace OutlineRoles {

// Whether a target of `role` is set on or off rather than filled or chosen.
inline bool isToggle(const std::string& role) {
    return role == "checkbox" || role == "switch" || role == "radio" || role == "menuitemradio" ||
           role == "menuitemcheckbox";
}

}  // namespace OutlineRoles

// The result of one read of the shared window.
struct OutlineSnapshot {
    std::string outline;  // the lines for the agent
    std::string text;     // the page text
    CaptureRect window;   // the window's frame in screen points
    std::map<std::string, OutlineTarget> targets;
    int elements = 0;  // elements visited
    long long milliseconds = 0;
    std::vector<CaptureRect> identity;  // where the user's own name shows, in screen points
    bool web = false;
};

}  // namespace pavix
