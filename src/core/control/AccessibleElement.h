#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/capture/CaptureRect.h"

namespace pavix {

// What one batched read of an accessible element tells the outline, already in the outline's
// own words: the platform layer maps its roles, states and actions onto these facts.
struct ElementFacts {
    // How the walk treats the element besides making it a target.
    enum class Kind {
        plain,
        staticText,   // its text joins the page text; named by its value
        image,        // a picture, which may show the user's name
        webArea,      // marks the snapshot as showing web content
        scrollArea,   // narrows the visible part for its descendants
        layoutGroup,  // passes its name down as the holder of its descendants
        row,          // a table or list row, or a cell: named by what it holds
        decoration,   // the window's own buttons: skipped with everything below
    };

    Kind kind = Kind::plain;
    // The outline's word for an element the agent can act on ("button", "textbox", …); none
    // for the rest, which are walked but get no reference.
    std::optional<std::string> roleWord;
    std::string title;
    std::string description;
    std::string value;  // never filled for a password field
    std::string help;
    std::string selectedText;  // of a focused text field
    bool enabled = true;
    bool focused = false;
    bool selected = false;
    bool secure = false;          // a password field
    std::optional<bool> checked;  // check boxes, radio buttons and switches
    bool popup = false;           // a combo box that opens a list of options
    std::vector<std::string> options;
    // The element's frame in screen points; none when the element does not say.
    std::optional<CaptureRect> frame;
};

// One element of the shared window's tree, as read for one outline.
struct AccessibleElement {
    ElementFacts facts;
    std::vector<AccessibleElement> children;
    // The platform's own element, kept for acting on it later; opaque here.
    std::shared_ptr<const void> handle;
    // Set on the window when the application stopped answering before the read was done: the
    // tree holds what was read until then.
    bool partial = false;
};

}  // namespace pavix
