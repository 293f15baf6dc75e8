#pragma once

#include <optional>
#include <string>
#include <vector>

#include "core/capture/CaptureRect.h"
#include "core/control/AccessibleElement.h"

namespace pavix {

// The text rules of the outline: quoting, cutting, where an element is, and the shape of a
// target's line.
namespace OutlineText {

// The first `limit` characters of `text` (whole UTF-8 characters; bytes that are not UTF-8
// count as one character each and are replaced when quoted).
std::string cut(const std::string& text, std::size_t limit);

// The number of characters in `text`, counted as cut() counts them.
std::size_t length(const std::string& text);

// `text` cut to `limit` characters, as one JSON string: quotes, backslashes and control
// characters escaped, "/" left as it is.
std::string quoted(const std::string& text, std::size_t limit = std::string::npos);

// The list of texts as one JSON array.
std::string quotedList(const std::vector<std::string>& texts);

// Where `element` is for the agent: "visible at (X,Y) window points" for the centre of its part
// inside `clip`, when that part is at least 2×2 points; otherwise "offscreen-" and the
// directions in which it lies beyond `clip`, then " (scroll to reveal)".
std::string location(const CaptureRect& element, const CaptureRect& window,
                     const CaptureRect& clip);

// Whether the part of `element` inside `clip` is at least 2×2 points.
bool visible(const CaptureRect& element, const CaptureRect& clip);

// The element's name: title, description, what a row holds, a text's value, then its help.
std::string name(const ElementFacts& facts, const std::string& rowSummary);

// One target's line: reference, role word, name, states, selection, value, options, holder
// and location, each only when it applies.
std::string line(const std::string& ref, const ElementFacts& facts, const std::string& name,
                 const std::string& holder, const std::string& where);

// The target's label: the role word and its quoted name, cut to 80 characters.
std::string label(const std::string& role, const std::string& name);

}  // namespace OutlineText
}  // namespace pavix
