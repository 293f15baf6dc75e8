#include "linux/AtspiTreeReader.h"

#include <atspi/atspi.h>

#include <chrono>
#include <cmath>
#include <memory>

#include "linux/AtspiCalls.h"
#include "linux/AtspiRoles.h"

namespace pavix {
namespace {

using namespace AtspiCalls;

std::optional<CaptureRect> extents(AtspiAccessible* accessible) {
    Ref<AtspiComponent> component(atspi_accessible_get_component_iface(accessible));
    if (!component) {
        return std::nullopt;
    }
    GError* error = nullptr;
    AtspiRect* rect = atspi_component_get_extents(component.get(), ATSPI_COORD_TYPE_SCREEN, &error);
    if (error) {
        g_error_free(error);
        g_free(rect);
        return std::nullopt;
    }
    std::optional<CaptureRect> frame;
    // GTK answers a scrolled-away element with a position near the lowest integer.
    constexpr int kFar = 1 << 24;
    if (rect && rect->width > 0 && rect->height > 0 && std::abs(rect->x) < kFar &&
        std::abs(rect->y) < kFar) {
        frame = CaptureRect{double(rect->x), double(rect->y), double(rect->width),
                            double(rect->height)};
    }
    g_free(rect);
    return frame;
}

std::string numberOf(AtspiAccessible* accessible) {
    Ref<AtspiValue> value(atspi_accessible_get_value_iface(accessible));
    if (!value) {
        return {};
    }
    GError* error = nullptr;
    double current = atspi_value_get_current_value(value.get(), &error);
    if (error) {
        g_error_free(error);
        return {};
    }
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%g", current);
    return buffer;
}

bool hasAction(AtspiAccessible* accessible) {
    Ref<AtspiAction> action(atspi_accessible_get_action_iface(accessible));
    if (!action) {
        return false;
    }
    GError* error = nullptr;
    int count = atspi_action_get_n_actions(action.get(), &error);
    if (error) {
        g_error_free(error);
        return false;
    }
    return count > 0;
}

// The titles of a combo box's options, the items of the menu it opens, and the one chosen.
std::vector<std::string> optionsOf(AtspiAccessible* combo, std::string& chosen) {
    std::vector<std::string> options;
    for (int i = 0, n = childCount(combo); i < n; ++i) {
        auto menu = childAt(combo, i);
        if (!menu || roleOf(menu.get()) != ATSPI_ROLE_MENU) {
            continue;
        }
        for (int j = 0, items = std::min(childCount(menu.get()), 200); j < items; ++j) {
            if (auto item = childAt(menu.get(), j)) {
                GError* error = nullptr;
                options.push_back(take(atspi_accessible_get_name(item.get(), &error), error));
                Ref<AtspiStateSet> states(atspi_accessible_get_state_set(item.get()));
                if (states && atspi_state_set_contains(states.get(), ATSPI_STATE_SELECTED)) {
                    chosen = options.back();
                }
            }
        }
    }
    return options;
}

// The option a combo box holds, through its selection (GTK's way of saying it).
std::string chosenOf(AtspiAccessible* combo) {
    Ref<AtspiSelection> selection(atspi_accessible_get_selection_iface(combo));
    if (!selection) {
        return {};
    }
    GError* error = nullptr;
    Ref<AtspiAccessible> chosen(atspi_selection_get_selected_child(selection.get(), 0, &error));
    if (error) {
        g_error_free(error);
        return {};
    }
    if (!chosen) {
        return {};
    }
    return take(atspi_accessible_get_name(chosen.get(), &error), error);
}

using Clock = std::chrono::steady_clock;

class Walk {
  public:
    Walk(const OutlineOptions& options, Clock::time_point deadline)
        : options_(options), deadline_(deadline) {}

    // Whether the walk stopped at its deadline.
    bool cut() const { return cut_; }

    AccessibleElement read(AtspiAccessible* accessible, int depth, bool parentIsMenuBar,
                           bool scrolled) {
        ++visited_;
        AccessibleElement element;
        element.handle = handleOf(accessible);
        auto& facts = element.facts;
        const auto role = roleOf(accessible);
        Ref<AtspiStateSet> states(atspi_accessible_get_state_set(accessible));
        auto has = [&](AtspiStateType state) {
            return states && atspi_state_set_contains(states.get(), state);
        };
        // What shows has a place on screen, and so has what a scroll area holds beyond its
        // visible part (GTK does not call a row showing once it is scrolled away). Anything
        // else that does not show (a closed menu's items, a hidden page) has stale or zero
        // extents: it says nothing and is not walked.
        const bool showing = has(ATSPI_STATE_SHOWING);
        const bool scrolledAway = !showing && scrolled && has(ATSPI_STATE_VISIBLE);
        if (!showing && !scrolledAway && depth > 0) {
            return element;
        }
        AtspiRoles::Context context;
        context.editable = has(ATSPI_STATE_EDITABLE);
        context.parentIsMenuBar = parentIsMenuBar;
        if (AtspiRoles::needsActions(role)) {
            context.hasAction = hasAction(accessible);
        }
        facts.kind = AtspiRoles::kind(role, context);
        facts.roleWord = AtspiRoles::word(role, context);
        facts.secure = role == ATSPI_ROLE_PASSWORD_TEXT;
        facts.enabled = has(ATSPI_STATE_SENSITIVE) || has(ATSPI_STATE_ENABLED);
        facts.focused = has(ATSPI_STATE_FOCUSED);
        facts.selected = has(ATSPI_STATE_SELECTED) && role != ATSPI_ROLE_PAGE_TAB_LIST;
        if (has(ATSPI_STATE_CHECKABLE) || role == ATSPI_ROLE_CHECK_BOX ||
            role == ATSPI_ROLE_RADIO_BUTTON || role == ATSPI_ROLE_TOGGLE_BUTTON) {
            facts.checked = has(ATSPI_STATE_CHECKED) || has(ATSPI_STATE_PRESSED);
        }
        GError* error = nullptr;
        facts.title = take(atspi_accessible_get_name(accessible, &error), error);
        // Each question is a round trip to the application: the description only names what
        // has no name, and a label's name is its text.
        if (facts.title.empty()) {
            error = nullptr;
            facts.description = take(atspi_accessible_get_description(accessible, &error), error);
        }
        const bool labelled =
            !facts.title.empty() && (role == ATSPI_ROLE_LABEL || role == ATSPI_ROLE_STATIC ||
                                     role == ATSPI_ROLE_HEADING || role == ATSPI_ROLE_CAPTION);
        // A password field gives nothing but its role: not its text, not its length.
        if (!facts.secure) {
            if (AtspiRoles::showsText(role) && !labelled) {
                facts.value = textOf(accessible, 400);
            } else if (role == ATSPI_ROLE_SLIDER || role == ATSPI_ROLE_SPIN_BUTTON) {
                facts.value = numberOf(accessible);
            } else if (role == ATSPI_ROLE_COMBO_BOX) {
                facts.popup = true;
                facts.options = optionsOf(accessible, facts.value);
                if (facts.value.empty()) {
                    facts.value = chosenOf(accessible);
                }
                if (facts.value.empty()) {
                    facts.value = facts.title;  // some toolkits name the box by its choice
                }
            }
        }
        if (showing || scrolledAway) {
            facts.frame = extents(accessible);
        }
        if (role == ATSPI_ROLE_COMBO_BOX) {
            return element;  // its options are already on its line
        }
        const bool scrolling =
            scrolled || role == ATSPI_ROLE_SCROLL_PANE || role == ATSPI_ROLE_VIEWPORT;
        const bool menuBar = role == ATSPI_ROLE_MENU_BAR;
        if (menuBar && facts.title.empty()) {
            facts.title = "menu bar";
        }
        for (int i = 0, n = childCount(accessible); i < n; ++i) {
            if (!options_.admits(visited_, depth + 1)) {
                break;
            }
            if (Clock::now() > deadline_) {
                cut_ = true;
                break;
            }
            if (auto child = childAt(accessible, i)) {
                element.children.push_back(read(child.get(), depth + 1, menuBar, scrolling));
            }
        }
        if (scrolling) {
            placeScrolledAway(element.children);
        }
        return element;
    }

    // Gives the rows of a list that scrolled away (and so have no place of their own) a
    // place in line with their siblings that show: after the last of them, or before the
    // first. The outline then says in which direction they lie.
    static void placeScrolledAway(std::vector<AccessibleElement>& rows) {
        std::optional<std::size_t> first, last;
        for (std::size_t i = 0; i < rows.size(); ++i) {
            if (rows[i].facts.frame) {
                first = first.value_or(i);
                last = i;
            }
        }
        if (!first) {
            return;
        }
        for (std::size_t i = 0; i < rows.size(); ++i) {
            auto& facts = rows[i].facts;
            if (facts.frame || !facts.roleWord) {
                continue;
            }
            const auto& anchor = *rows[i < *first ? *first : *last].facts.frame;
            const double steps = i < *first ? -double(*first - i) : double(i - *last);
            facts.frame = CaptureRect{anchor.x, anchor.y + steps * anchor.height, anchor.width,
                                      anchor.height};
        }
    }

  private:
    const OutlineOptions& options_;
    Clock::time_point deadline_;
    int visited_ = 0;
    bool cut_ = false;
};

// How far apart two frames are: the sum of the differences of their edges.
double distance(const CaptureRect& a, const CaptureRect& b) {
    return std::abs(a.x - b.x) + std::abs(a.y - b.y) + std::abs(a.maxX() - b.maxX()) +
           std::abs(a.maxY() - b.maxY());
}

}  // namespace

void AtspiTreeReader::start() {
    if (!started_) {
        started_ = true;
        AtspiCalls::start(timeoutMs_);
    }
}

bool AtspiTreeReader::reachable() {
    start();
    Ref<AtspiAccessible> desktop(atspi_get_desktop(0));
    return desktop && childCount(desktop.get()) > 0;
}

std::optional<AccessibleElement> AtspiTreeReader::read(const Window& window,
                                                       const OutlineOptions& options) {
    start();
    const auto deadline = Clock::now() + std::chrono::milliseconds(budgetMs_);
    Ref<AtspiAccessible> desktop(atspi_get_desktop(0));
    if (!desktop) {
        return std::nullopt;
    }
    // The application of the window's process, then its frame that lies where the window
    // does (or bears its title, or is active).
    Ref<AtspiAccessible> best;
    double bestScore = 0;
    for (int i = 0, n = childCount(desktop.get()); i < n; ++i) {
        auto app = childAt(desktop.get(), i);
        if (!app) {
            continue;
        }
        GError* error = nullptr;
        auto pid = atspi_accessible_get_process_id(app.get(), &error);
        if (error) {
            g_error_free(error);
            continue;
        }
        if (static_cast<pid_t>(pid) != window.pid) {
            continue;
        }
        for (int j = 0, frames = childCount(app.get()); j < frames && Clock::now() < deadline;
             ++j) {
            auto frame = childAt(app.get(), j);
            if (!frame) {
                continue;
            }
            Ref<AtspiStateSet> states(atspi_accessible_get_state_set(frame.get()));
            if (!states || !atspi_state_set_contains(states.get(), ATSPI_STATE_SHOWING)) {
                continue;
            }
            error = nullptr;
            auto name = take(atspi_accessible_get_name(frame.get(), &error), error);
            double score = 1;
            if (atspi_state_set_contains(states.get(), ATSPI_STATE_ACTIVE)) {
                score += 1;
            }
            if (!window.title.empty() && name == window.title) {
                score += 2;
            }
            // Some toolkits report window-relative positions: the size alone still counts.
            if (auto at = extents(frame.get())) {
                if (distance(*at, window.frame) < 4) {
                    score += 8;
                } else if (std::abs(at->width - window.frame.width) < 2 &&
                           std::abs(at->height - window.frame.height) < 2) {
                    score += 4;
                }
            }
            if (score > bestScore) {
                bestScore = score;
                best = std::move(frame);
            }
        }
    }
    if (!best) {
        return std::nullopt;
    }
    Walk walk(options, deadline);
    auto tree = walk.read(best.get(), 0, false, false);
    tree.partial = walk.cut();
    return tree;
}

}  // namespace pavix
