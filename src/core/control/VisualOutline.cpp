#include "core/control/VisualOutline.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <nlohmann/json.hpp>

#include "core/control/OutlineText.h"
#include "core/runtime/Text.h"

namespace pavix::VisualOutline {
namespace {

// The names, with blanks as hyphens and in lower case, that windows of the canvas applications
// carry when their desktop entry is not found: what their window class reads as.
constexpr std::string_view kCanvasNames[] = {"gimp", "inkscape", "krita", "blender", "figma-linux"};

constexpr std::string_view kScrollAreas = "Scroll areas (";

// An identifier as compared: lower case, without ".desktop".
std::string idKey(const std::string& id) {
    auto key = Text::lowerAscii(id);
    if (key.size() > 8 && key.compare(key.size() - 8, 8, ".desktop") == 0) {
        key.resize(key.size() - 8);
    }
    return key;
}

// A name as compared with identifiers: lower case, blanks and underscores as hyphens.
std::string nameKey(const std::string& name) {
    auto key = Text::lowerAscii(name);
    std::replace_if(
        key.begin(), key.end(), [](char c) { return c == ' ' || c == '_'; }, '-');
    return key;
}

bool blank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// Lower case, runs of blanks as one, none at the ends.
std::string textKey(const std::string& text) {
    std::string key;
    for (char c : Text::lowerAscii(text)) {
        if (!blank(c)) {
            key += c;
        } else if (!key.empty() && key.back() != ' ') {
            key += ' ';
        }
    }
    if (!key.empty() && key.back() == ' ') {
        key.pop_back();
    }
    return key;
}

// Whether the text holds a letter or a digit: of ASCII, letters and digits; beyond it, any
// character but the punctuation, symbols, arrows and shapes of U+2000 to U+2BFF and the
// private use area, where icon fonts draw their pictures.
bool wordy(const std::string& text) {
    for (char32_t c : Text::characters(text)) {
        const bool ascii = c < 0x80 && std::isalnum(static_cast<unsigned char>(c));
        const bool beyond = c >= 0xC0 && !(c >= 0x2000 && c <= 0x2BFF) &&
                            !(c >= 0xE000 && c <= 0xF8FF) && c != 0xFFFD;
        if (ascii || beyond) {
            return true;
        }
    }
    return false;
}

double area(const CaptureRect& r) {
    return r.empty() ? 0 : r.width * r.height;
}

bool overlap(const CaptureRect& a, const CaptureRect& b) {
    const double smaller = std::min(area(a), area(b));
    return smaller > 0 && area(a.intersection(b)) * 2 >= smaller;
}

// The name a target's label quotes; "" when it has none.
std::string labelName(const OutlineTarget& target) {
    const auto& label = target.label;
    if (label.size() <= target.role.size() + 1 ||
        label.compare(0, target.role.size(), target.role) != 0) {
        return "";
    }
    auto name = nlohmann::json::parse(label.substr(target.role.size() + 1), nullptr, false);
    return name.is_string() ? name.get<std::string>() : "";
}

bool pressable(const std::string& role) {
    return role == "button" || role == "link" || role == "tab" || role == "menuitem" ||
           role == "menubaritem";
}

// The number of a reference "ref_N"; 0 for anything else.
long refNumber(const std::string& ref) {
    if (ref.size() < 5 || ref.compare(0, 4, "ref_") != 0 || ref.size() > 4 + 9) {
        return 0;
    }
    long n = 0;
    for (std::size_t i = 4; i < ref.size(); ++i) {
        if (ref[i] < '0' || ref[i] > '9') {
            return 0;
        }
        n = n * 10 + (ref[i] - '0');
    }
    return n;
}

}  // namespace

std::vector<std::string> appList(const std::string& setting) {
    std::vector<std::string> ids;
    std::size_t start = 0;
    while (start <= setting.size()) {
        auto end = setting.find(',', start);
        if (end == std::string::npos) {
            end = setting.size();
        }
        auto id = setting.substr(start, end - start);
        while (!id.empty() && blank(id.back())) {
            id.pop_back();
        }
        id.erase(0, std::min(id.size(), id.find_first_not_of(" \t\n\r")));
        if (!id.empty()) {
            ids.push_back(std::move(id));
        }
        start = end + 1;
    }
    return ids;
}

bool isCanvasApp(const std::string& appId, const std::optional<std::string>& appName,
                 const std::vector<std::string>& extra) {
    const auto id = idKey(appId);
    const auto listed = [](const std::string& key, const std::vector<std::string>& keys) {
        return std::find(keys.begin(), keys.end(), key) != keys.end();
    };
    std::vector<std::string> extraIds;
    for (const auto& entry : extra) {
        extraIds.push_back(idKey(entry));
    }
    if (!id.empty()) {
        for (auto known : canvasApps) {
            if (idKey(std::string(known)) == id) {
                return true;
            }
        }
        return listed(id, extraIds);
    }
    if (!appName || appName->empty()) {
        return false;
    }
    const auto name = nameKey(*appName);
    return std::find(std::begin(kCanvasNames), std::end(kCanvasNames), name) !=
               std::end(kCanvasNames) ||
           listed(name, extraIds);
}

std::vector<RecognizedText> toScreen(std::vector<RecognizedText> lines, int pictureWidth,
                                     int pictureHeight, const CaptureRect& window) {
    if (pictureWidth <= 0 || pictureHeight <= 0 || window.empty()) {
        return {};
    }
    const double scale = std::min(pictureWidth / window.width, pictureHeight / window.height);
    const double left = (pictureWidth - window.width * scale) / 2;
    const double top = (pictureHeight - window.height * scale) / 2;
    for (auto& line : lines) {
        auto& f = line.frame;
        f = {window.x + (f.x - left) / scale, window.y + (f.y - top) / scale, f.width / scale,
             f.height / scale};
    }
    return lines;
}

std::string insertLines(const std::string& outline, const std::string& lines) {
    const auto lastStart = outline.rfind('\n') == std::string::npos ? 0 : outline.rfind('\n') + 1;
    if (outline.compare(lastStart, kScrollAreas.size(), kScrollAreas) == 0) {
        return outline.substr(0, lastStart) + lines + outline.substr(lastStart);
    }
    if (outline.empty() || outline.back() == '\n') {
        return outline + lines;
    }
    return outline + "\n" + lines;
}

OutlineSnapshot augment(OutlineSnapshot snapshot, const std::vector<RecognizedText>& lines,
                        const VisualOptions& options) {
    std::vector<const RecognizedText*> kept;
    for (const auto& line : lines) {
        if (line.confidence >= options.minimumConfidence && wordy(line.text) &&
            OutlineText::visible(line.frame, snapshot.window)) {
            kept.push_back(&line);
        }
    }
    // Reading order: rows from the top, each from the left. A line belongs to the row of the
    // line above it when their heights overlap by half the shorter one or more.
    std::stable_sort(kept.begin(), kept.end(),
                     [](const auto* a, const auto* b) { return a->frame.y < b->frame.y; });
    std::vector<std::vector<const RecognizedText*>> rows;
    for (const auto* line : kept) {
        const auto& f = line->frame;
        if (!rows.empty()) {
            const auto& first = rows.back().front()->frame;
            const double common = std::min(f.maxY(), first.maxY()) - std::max(f.y, first.y);
            if (common * 2 >= std::min(f.height, first.height)) {
                rows.back().push_back(line);
                continue;
            }
        }
        rows.push_back({line});
    }
    kept.clear();
    for (auto& row : rows) {
        std::stable_sort(row.begin(), row.end(),
                         [](const auto* a, const auto* b) { return a->frame.x < b->frame.x; });
        kept.insert(kept.end(), row.begin(), row.end());
    }

    long next = 0;
    for (const auto& [ref, target] : snapshot.targets) {
        next = std::max(next, refNumber(ref));
    }
    std::string added;
    auto textLength = OutlineText::length(snapshot.text);
    std::vector<std::pair<std::string, OutlineTarget>> found;
    for (const auto* line : kept) {
        const auto key = textKey(line->text);
        bool known = false, onPressable = false;
        const double cx = line->frame.x + line->frame.width / 2;
        const double cy = line->frame.y + line->frame.height / 2;
        for (const auto& [ref, target] : snapshot.targets) {
            if (target.visual) {
                continue;
            }
            if (overlap(line->frame, target.frame)) {
                const auto name = textKey(labelName(target));
                if (!name.empty() &&
                    (name.find(key) != std::string::npos || key.find(name) != std::string::npos)) {
                    known = true;
                    break;
                }
            }
            onPressable = onPressable || (pressable(target.role) && target.frame.contains(cx, cy));
        }
        if (known) {
            continue;
        }
        const std::string role = onPressable ? "button" : "text";
        const auto ref = "ref_" + std::to_string(++next);
        added += "  [" + ref + "] " + role + " " + OutlineText::quoted(line->text, 200) +
                 " visual — " +
                 OutlineText::location(line->frame, snapshot.window, snapshot.window) + "\n";
        OutlineTarget target;
        target.frame = line->frame;
        target.role = role;
        target.label = OutlineText::label(role, line->text);
        target.visual = true;
        found.emplace_back(ref, std::move(target));
        if (!options.identityName.empty() &&
            line->text.find(options.identityName) != std::string::npos) {
            snapshot.identity.push_back(line->frame);
        }
        if (textLength < options.textLimit) {
            auto piece = OutlineText::cut(line->text, options.textLimit - textLength);
            textLength += OutlineText::length(piece);
            snapshot.text += (snapshot.text.empty() ? "" : "\n") + piece;
        }
    }
    for (auto& [ref, target] : found) {
        snapshot.targets[ref] = std::move(target);
    }
    if (!added.empty()) {
        snapshot.outline = insertLines(snapshot.outline, added);
    }
    return snapshot;
}

}  // namespace pavix::VisualOutline
