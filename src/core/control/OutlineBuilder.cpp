#include "core/control/OutlineBuilder.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

#include "core/control/OutlineText.h"

namespace pavix::OutlineBuilder {
namespace {

using Kind = ElementFacts::Kind;

// A scroll area met during the walk: its visible part and the extent of what it holds.
struct ScrollArea {
    CaptureRect visible;
    std::optional<CaptureRect> content;
};

CaptureRect unite(const CaptureRect& a, const CaptureRect& b) {
    double left = std::min(a.x, b.x), top = std::min(a.y, b.y);
    double right = std::max(a.maxX(), b.maxX()), bottom = std::max(a.maxY(), b.maxY());
    return {left, top, right - left, bottom - top};
}

// The texts an element's descendants hold, depth first: a row is named by them.
void collectRowText(const AccessibleElement& element, std::string& out, std::size_t limit) {
    for (const auto& child : element.children) {
        if (out.size() >= limit) {
            return;
        }
        const auto& f = child.facts;
        for (const std::string* text : {&f.value, &f.title, &f.description}) {
            if (!text->empty() && !f.secure) {
                out += (out.empty() ? "" : " ") + *text;
                break;
            }
        }
        collectRowText(child, out, limit);
    }
}

class Walk {
  public:
    Walk(const CaptureRect& window, const OutlineOptions& options)
        : window_(window), options_(options) {}

    void visit(const AccessibleElement& element, int depth, const CaptureRect& clip,
               const std::string& holder, std::optional<std::size_t> area) {
        if (!options_.admits(snapshot.elements, depth)) {
            return;
        }
        ++snapshot.elements;
        const auto& facts = element.facts;
        if (facts.kind == Kind::decoration) {
            return;
        }
        const bool web = facts.kind == Kind::webArea;
        if (web) {
            snapshot.web = true;
            ++webAreas_;
        }
        if (facts.kind == Kind::staticText && !facts.secure) {
            addText(facts.value.empty() ? facts.title : facts.value);
        }
        if (facts.frame) {
            noteIdentity(facts);
            if (area) {
                auto& content = areas_[*area].content;
                content = content ? unite(*content, *facts.frame) : *facts.frame;
            }
        }

        std::string rowText;
        if (facts.kind == Kind::row) {
            collectRowText(element, rowText, 200);
        }
        const auto name = OutlineText::name(facts, rowText);
        if (facts.roleWord && facts.frame) {
            const auto ref = "ref_" + std::to_string(snapshot.targets.size() + 1);
            lines.push_back(OutlineText::line(ref, facts, name, holder,
                                              OutlineText::location(*facts.frame, window_, clip)));
            snapshot.targets[ref] = {element.handle,
                                     *facts.frame,
                                     *facts.roleWord,
                                     facts.secure,
                                     OutlineText::label(*facts.roleWord, name),
                                     false,
                                     webAreas_ > 0,
                                     facts.popup};
        }

        auto childClip = clip;
        auto childArea = area;
        if (facts.kind == Kind::scrollArea && facts.frame) {
            childClip = clip.intersection(*facts.frame);
            childArea = areas_.size();
            areas_.push_back({childClip, std::nullopt});
        }
        // What a menu holds is read only while it shows: its items are in an open menu.
        const bool menu = facts.roleWord == "menubaritem" || facts.roleWord == "menuitem";
        static const std::string kOpenMenu = "open menu";
        const auto& childHolder = menu                                               ? kOpenMenu
                                  : facts.kind == Kind::layoutGroup && !name.empty() ? name
                                                                                     : holder;
        for (const auto& child : element.children) {
            visit(child, depth + 1, childClip, childHolder, childArea);
        }
        if (web) {
            --webAreas_;
        }
    }

    std::string regions() const {
        struct Region {
            CaptureRect visible;
            nlohmann::json json;
        };
        std::vector<Region> found;
        const double windowArea = window_.width * window_.height;
        for (const auto& area : areas_) {
            if (!area.content) {
                continue;
            }
            const auto& v = area.visible;
            const auto& c = *area.content;
            auto down = std::lround(std::max(0.0, c.maxY() - v.maxY()));
            auto left = std::lround(std::max(0.0, v.x - c.x));
            auto right = std::lround(std::max(0.0, c.maxX() - v.maxX()));
            if (down == 0 && left == 0 && right == 0) {
                continue;  // everything it holds is in view
            }
            // A scroll area that fills half the window or more is the page; others are panels.
            const bool page = windowArea > 0 && v.width * v.height * 2 >= windowArea;
            found.push_back(
                {v,
                 {{"kind", page ? "page" : "panel"},
                  {"remainingPixels", {{"down", down}, {"left", left}, {"right", right}}}}});
        }
        std::stable_sort(found.begin(), found.end(), [](const Region& a, const Region& b) {
            return a.visible.y != b.visible.y ? a.visible.y < b.visible.y
                                              : a.visible.x < b.visible.x;
        });
        auto list = nlohmann::json::array();
        for (auto& region : found) {
            list.push_back(std::move(region.json));
        }
        return nlohmann::json{{"regions", list}}.dump();
    }

    std::string text() const {
        std::string out;
        for (const auto& piece : texts_) {
            out += (out.empty() ? "" : "\n") + piece;
        }
        return out;
    }

    std::vector<std::string> lines;
    OutlineSnapshot snapshot;

  private:
    void addText(const std::string& text) {
        if (text.empty() || textLength_ >= options_.textLimit) {
            return;
        }
        auto piece = OutlineText::cut(text, options_.textLimit - textLength_);
        textLength_ += OutlineText::length(piece);
        texts_.push_back(std::move(piece));
    }

    void noteIdentity(const ElementFacts& facts) {
        if (options_.identityName.empty() ||
            (facts.kind != Kind::staticText && facts.kind != Kind::image)) {
            return;
        }
        for (const std::string* text : {&facts.value, &facts.title, &facts.description}) {
            if (text->find(options_.identityName) != std::string::npos) {
                snapshot.identity.push_back(*facts.frame);
                return;
            }
        }
    }

    CaptureRect window_;
    const OutlineOptions& options_;
    std::vector<ScrollArea> areas_;
    int webAreas_ = 0;  // web areas the walk is inside of
    std::vector<std::string> texts_;
    std::size_t textLength_ = 0;
};

}  // namespace

std::string scrollAreasLine(const std::string& regions) {
    return "Scroll areas (layout only; offscreen content is not visual proof): " + regions;
}

OutlineSnapshot build(const AccessibleElement& window, const CaptureRect& frame,
                      const OutlineOptions& options) {
    Walk walk(frame, options);
    walk.visit(window, 0, frame, "", std::nullopt);
    std::string outline;
    if (!options.title.empty()) {
        outline = "Window " + OutlineText::quoted(options.title, 120) + "\n";
    }
    if (window.partial) {
        outline += "(Part of the window was read: the application stopped answering.)\n";
    }
    for (const auto& line : walk.lines) {
        outline += line + "\n";
    }
    outline += scrollAreasLine(walk.regions());
    auto snapshot = std::move(walk.snapshot);
    snapshot.outline = std::move(outline);
    snapshot.text = walk.text();
    snapshot.window = frame;
    return snapshot;
}

}  // namespace pavix::OutlineBuilder
