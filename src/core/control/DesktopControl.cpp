#include "core/control/DesktopControl.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <map>

#include "core/control/ControlPolicy.h"
#include "core/control/InputError.h"
#include "core/control/OutlineText.h"
#include "core/control/VisualOutline.h"
#include "core/runtime/Text.h"
#include "core/session/PavixError.h"

namespace pavix {
namespace {

constexpr std::array<const char*, 8> kMethods = {"readPage",  "pageText",           "pointer",
                                                 "formInput", "typeText",           "pressKey",
                                                 "scrollBy",  "redactSensitiveText"};

constexpr const char* kUnreadable = "The shared window cannot be read. Bring it back on screen.";
constexpr const char* kNoPicture =
    "The window's picture cannot be read: text recognition is not available here.";
constexpr const char* kPictureFailed = "Text in the window's picture could not be read: ";

// A picture side in pixels for a window side in points: one pixel a point, as X11 has it,
// rounded up to the even sizes the capture delivers.
int pictureSide(double points) {
    const int side = std::max(2, static_cast<int>(std::ceil(points)));
    return side + side % 2;
}

}  // namespace

bool DesktopControl::serves(const std::string& method) {
    return std::any_of(kMethods.begin(), kMethods.end(),
                       [&](const char* name) { return method == name; });
}

DesktopControl::DesktopControl(ControlParts parts, std::uint32_t windowID, OutlineOptions options,
                               InputPacing pacing)
    : parts_(parts), windowID_(windowID), options_(std::move(options)) {
    if (!parts_.reader.reachable()) {
        throw PavixError("local_method_forbidden: Accessibility permission is off");
    }
    auto window = locate();
    if (ControlPolicy::denied(window.appId, window.appName)) {
        throw PavixError("local_method_forbidden: Pavix does not operate this app");
    }
    pid_ = window.pid;
    driver_ = std::make_unique<InputDriver>(pid_, windowID_, parts_.actions, parts_.input, pacing);
}

ShareableWindow DesktopControl::locate() {
    for (auto& window : parts_.content.current().windows) {
        if (window.id == windowID_ && window.onScreen) {
            std::lock_guard lock(telemetryMutex_);
            located_ = CaptureRect{window.x, window.y, window.width, window.height};
            return window;
        }
    }
    throw PavixError(kUnreadable);
}

void DesktopControl::useCanvasApps(std::vector<std::string> ids) {
    std::lock_guard lock(canvasMutex_);
    canvasApps_ = std::move(ids);
}

std::vector<RecognizedText> DesktopControl::see(const ShareableWindow& window) {
    const CaptureRect frame{window.x, window.y, window.width, window.height};
    auto picture = parts_.picture(windowID_, pictureSide(window.width), pictureSide(window.height));
    return VisualOutline::toScreen(parts_.recognizer->recognize(picture), picture.width,
                                   picture.height, frame);
}

// The picture is read on this thread, the control thread, as the accessible tree is. A failure
// of the picture fails a read the agent forced; for a canvas application the outline says
// what happened, unless it has nothing else to show.
const OutlineSnapshot& DesktopControl::read(bool forced) {
    const auto started = std::chrono::steady_clock::now();
    const bool canSee = parts_.picture && parts_.recognizer;
    if (forced && !canSee) {
        throw PavixError(kNoPicture);
    }
    auto window = locate();
    bool visual = forced;
    if (!visual) {
        std::lock_guard lock(canvasMutex_);
        visual = VisualOutline::isCanvasApp(window.appId, window.appName, canvasApps_);
    }
    ControlledWindow target{
        window.pid, {window.x, window.y, window.width, window.height}, window.title};
    auto tree = parts_.reader.read(target, options_);
    // A canvas application may show nothing on the accessibility bus: its picture is all the
    // outline has then.
    if (!tree && !(visual && canSee)) {
        throw PavixError(kUnreadable);
    }
    auto options = options_;
    options.title = window.title;
    auto snapshot =
        OutlineBuilder::build(tree ? *tree : AccessibleElement{}, target.frame, options);
    std::string unseen;  // why the picture was not read
    if (visual && canSee) {
        try {
            VisualOptions seen;
            seen.textLimit = options_.textLimit;
            seen.identityName = options_.identityName;
            snapshot = VisualOutline::augment(std::move(snapshot), see(window), seen);
        } catch (const std::exception& e) {
            unseen = kPictureFailed + std::string(e.what());
            if (forced || !tree) {
                throw PavixError(unseen);
            }
        }
    } else if (visual) {
        unseen = kNoPicture;
    }
    if (!unseen.empty()) {
        snapshot.outline = VisualOutline::insertLines(snapshot.outline, "(" + unseen + ")\n");
    }
    snapshot_ = std::move(snapshot);
    snapshot_->milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(
                                  std::chrono::steady_clock::now() - started)
                                  .count();
    noteSightings(*snapshot_);
    return *snapshot_;
}

// A reference of the last outline; one from an older read, or from none, is stale.
const OutlineTarget& DesktopControl::target(const nlohmann::json& ref) const {
    if (ref.is_null()) {
        throw PavixError("local_method_forbidden: missing ref");
    }
    if (!ref.is_string() || !snapshot_) {
        throw PavixError("stale element reference");
    }
    auto found = snapshot_->targets.find(ref.get<std::string>());
    if (found == snapshot_->targets.end()) {
        throw PavixError("stale element reference");
    }
    return found->second;
}

// A point the agent gives in window points, as {"x", "y"} or {"coordinate": [x, y]}, on the
// screen.
ScreenPoint DesktopControl::windowPoint(const nlohmann::json& options,
                                        const CaptureRect& window) const {
    nlohmann::json x, y;
    if (auto c = options.find("coordinate");
        c != options.end() && c->is_array() && c->size() == 2) {
        x = (*c)[0], y = (*c)[1];
    } else {
        x = options.value("x", nlohmann::json()), y = options.value("y", nlohmann::json());
    }
    if (!x.is_number() || !y.is_number()) {
        throw PavixError("local_method_forbidden: invalid pointer target");
    }
    ScreenPoint point{window.x + x.get<double>(), window.y + y.get<double>()};
    if (!window.contains(point.x, point.y)) {
        throw PavixError("local_method_forbidden: invalid pointer target");
    }
    return point;
}

namespace {

// Position `i` of the agent's argument list, or null.
nlohmann::json at(const nlohmann::json& args, std::size_t i) {
    return args.is_array() && i < args.size() ? args[i] : nlohmann::json();
}

std::string textOf(const nlohmann::json& value) {
    if (value.is_string()) {
        return value.get<std::string>();
    }
    if (value.is_null()) {
        return "";
    }
    return value.dump();
}

bool checkedWord(const nlohmann::json& value) {
    if (value.is_boolean()) {
        return value.get<bool>();
    }
    const auto word = Text::lowerAscii(textOf(value));
    return word == "true" || word == "on" || word == "yes" || word == "1" || word == "checked";
}

CaptureRect frameOf(const ShareableWindow& window) {
    return {window.x, window.y, window.width, window.height};
}

}  // namespace

nlohmann::json DesktopControl::pointer(const nlohmann::json& args) {
    auto action = at(args, 0).is_string() ? at(args, 0).get<std::string>() : "left_click";
    auto options = at(args, 1);
    if (options.is_string()) {
        options = {{"ref", options}};
    }
    const int count = action == "double_click" ? 2 : 1;
    const bool hover = action == "move" || action == "hover" || action == "mouse_move";
    if (!hover && action != "left_click" && action != "click" && count != 2) {
        throw InputError::unsupported("pointer action " + action);
    }
    if (!options.is_object() ||
        (!options.contains("ref") && !options.contains("x") && !options.contains("coordinate"))) {
        throw PavixError("local_method_forbidden: missing ref");
    }
    const auto window = frameOf(locate());
    nlohmann::json reply = {{"action", action}};
    if (options.contains("ref")) {
        const auto& element = target(options["ref"]);
        reply["element"] = element.label;
        if (hover) {
            driver_->hover({element.frame.x + element.frame.width / 2,
                            element.frame.y + element.frame.height / 2},
                           window);
        } else {
            driver_->click(element, window, count);
        }
    } else {
        auto point = windowPoint(options, window);
        reply["at"] = {point.x - window.x, point.y - window.y};
        if (hover) {
            driver_->hover(point, window);
        } else {
            driver_->clickAt(point, window, count);
        }
    }
    return reply;
}

nlohmann::json DesktopControl::formInput(const nlohmann::json& args) {
    const auto& element = target(at(args, 0));
    const auto value = at(args, 1);
    if (element.visual) {
        throw InputError::unsupported("filling " + element.label +
                                      ", which shows in the window's picture only: click it and "
                                      "type instead");
    }
    const auto window = frameOf(locate());
    const auto& role = element.role;
    if (OutlineRoles::isToggle(role)) {
        driver_->setChecked(element, checkedWord(value), window);
        return {{"element", element.label}, {"checked", checkedWord(value)}};
    }
    if (role == "combobox" && !element.secure && element.popup) {
        driver_->choose(element, textOf(value), window);
    } else {
        driver_->fill(element, textOf(value), window);
    }
    return {{"element", element.label}, {"value", textOf(value)}};
}

nlohmann::json DesktopControl::typeText(const nlohmann::json& args) {
    auto focused = driver_->focusedTextField();
    if (!focused) {
        throw PavixError("No text field is focused");
    }
    if (focused->secure) {
        throw InputError::secureField();
    }
    const auto text = textOf(at(args, 0));
    driver_->typeKeys(text);
    return {{"typed", Text::characters(text).size()}};
}

nlohmann::json DesktopControl::scrollBy(const nlohmann::json& args) {
    static const std::map<std::string, ScrollDirection> directions = {
        {"up", ScrollDirection::up},
        {"down", ScrollDirection::down},
        {"left", ScrollDirection::left},
        {"right", ScrollDirection::right}};
    const auto word = at(args, 0).is_string() ? at(args, 0).get<std::string>() : "down";
    auto direction = directions.find(word);
    if (direction == directions.end()) {
        throw InputError::unsupported("scroll direction " + word);
    }
    const int amount = at(args, 1).is_number() ? at(args, 1).get<int>() : 3;
    const auto window = frameOf(locate());
    auto place = at(args, 2);
    if (place.is_string()) {
        place = {{"ref", place}};
    }
    ScreenPoint point{window.x + window.width / 2, window.y + window.height / 2};
    if (place.is_object() && place.contains("ref")) {
        const auto& element = target(place["ref"]);
        point = {element.frame.x + element.frame.width / 2,
                 element.frame.y + element.frame.height / 2};
    } else if (place.is_object()) {
        point = windowPoint(place, window);
    }
    driver_->scroll(point, direction->second, amount, window);
    return {{"direction", word}, {"amount", std::clamp(amount, 1, 50)}};
}

// What the agent should hide in what it renders, in window points, from the last outline (read
// now when there is none): every password field, every place the user's own name shows, and
// the targets whose label holds one of the given texts. It changes nothing in the window.
nlohmann::json DesktopControl::redact(const nlohmann::json& args) {
    std::vector<std::string> wanted;
    auto first = at(args, 0);
    for (const auto& item : first.is_array() ? first : nlohmann::json::array({first})) {
        if (item.is_string() && !item.get<std::string>().empty()) {
            wanted.push_back(Text::lowerAscii(item.get<std::string>()));
        }
    }
    const auto& snapshot = snapshot_ ? *snapshot_ : read();
    const auto inWindow = [&](const CaptureRect& f) {
        return nlohmann::json::array(
            {f.x - snapshot.window.x, f.y - snapshot.window.y, f.width, f.height});
    };
    nlohmann::json rects = nlohmann::json::array();
    for (const auto& [ref, element] : snapshot.targets) {
        const auto label = Text::lowerAscii(element.label);
        const bool named = std::any_of(wanted.begin(), wanted.end(), [&](const std::string& text) {
            return label.find(text) != std::string::npos;
        });
        if (element.secure || named) {
            rects.push_back({{"ref", ref},
                             {"reason", element.secure ? "password" : "text"},
                             {"rect", inWindow(element.frame)}});
        }
    }
    for (const auto& rect : snapshot.identity) {
        rects.push_back({{"reason", "name"}, {"rect", inWindow(rect)}});
    }
    return {{"matches", rects.size()}, {"rects", rects}};
}

void DesktopControl::place(std::optional<CaptureRect> region) {
    std::lock_guard lock(telemetryMutex_);
    picture_.region = region;
}

// The samples of one call were made with the window where this call located it.
void DesktopControl::publishTrail() {
    const auto& samples = driver_->telemetry();
    std::lock_guard lock(telemetryMutex_);
    const auto window = located_.value_or(CaptureRect{});
    for (auto s = samples.begin() + static_cast<std::ptrdiff_t>(trailSent_); s != samples.end();
         ++s) {
        trail_.push_back({picture_.x(s->x, window), picture_.y(s->y, window), s->atMs, s->kind});
    }
    trailSent_ = samples.size();
}

void DesktopControl::noteSightings(const OutlineSnapshot& snapshot) {
    if (snapshot.identity.empty()) {
        return;
    }
    Sighting sighting{std::chrono::steady_clock::now(), {}};
    std::lock_guard lock(telemetryMutex_);
    for (const auto& rect : snapshot.identity) {
        sighting.rects.push_back({picture_.x(rect.x, snapshot.window),
                                  picture_.y(rect.y, snapshot.window), rect.width, rect.height});
    }
    sightings_.push_back(std::move(sighting));
}

ControlTelemetry DesktopControl::takeTelemetry() {
    std::lock_guard lock(telemetryMutex_);
    ControlTelemetry telemetry;
    for (const auto& s : trail_) {
        telemetry.pointerTrail.push_back(
            {{"x", s.x}, {"y", s.y}, {"atMs", s.atMs}, {"kind", s.kind}});
    }
    for (const auto& s : sightings_) {
        nlohmann::json rects = nlohmann::json::array();
        for (const auto& r : s.rects) {
            rects.push_back({r.x, r.y, r.width, r.height});
        }
        const auto atMs =
            std::chrono::duration_cast<std::chrono::milliseconds>(s.at - driver_->started())
                .count();
        telemetry.identitySightings.push_back({{"atMs", atMs}, {"rects", rects}});
    }
    trail_.clear();
    sightings_.clear();
    return telemetry;
}

nlohmann::json DesktopControl::handle(const std::string& method, const nlohmann::json& args) {
    struct Publish {
        DesktopControl* self;
        ~Publish() { self->publishTrail(); }
    } publish{this};
    if (method == "readPage") {
        // {"visual": true} reads the window's picture as well, whatever the application.
        const auto options = at(args, 0);
        bool visual = false;
        if (options.is_object()) {
            const auto flag = options.find("visual");
            visual = flag != options.end() && flag->is_boolean() && flag->get<bool>();
        }
        return read(visual).outline;
    }
    if (method == "pageText") {
        return (snapshot_ ? *snapshot_ : read()).text;
    }
    if (method == "pointer") {
        return pointer(args);
    }
    if (method == "formInput") {
        return formInput(args);
    }
    if (method == "typeText") {
        return typeText(args);
    }
    if (method == "pressKey") {
        const auto keys = at(args, 0);
        driver_->press(keys.is_string() ? keys.get<std::string>() : "");
        return {{"keys", keys}};
    }
    if (method == "scrollBy") {
        return scrollBy(args);
    }
    if (method == "redactSensitiveText") {
        return redact(args);
    }
    throw InputError::unsupported(method);
}

}  // namespace pavix
