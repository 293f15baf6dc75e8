// GoogleTest comes before any X11 header: Xlib defines None, Bool and Status as macros.
#include <gtest/gtest.h>

#include "linux/X11ShareableContent.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "support/X11TestWindow.h"

namespace pavix {
namespace {

using test::eventually;
using test::X11TestDisplay;
using test::X11TestWindow;

const ShareableWindow* find(const ShareableContentSnapshot& snapshot, Window id) {
    for (const auto& window : snapshot.windows) {
        if (window.id == id) {
            return &window;
        }
    }
    return nullptr;
}

TEST(X11ShareableContent, ListsWindowsWithTitleGeometryApplicationAndDisplays) {
    X11TestDisplay display;
    X11TestWindow notes(display, {.title = "Notes \u2014 caf\u00e9",
                                  .x = 150,
                                  .y = 120,
                                  .width = 640,
                                  .height = 480,
                                  .instance = "gnome-notes",
                                  .className = "Gnome-notes"});
    X11TestWindow small(display, {.title = "Small", .width = 319, .height = 400});
    X11ShareableContent content("", X11DesktopEntries(std::vector<std::string>{}));

    auto snapshot = content.current();
    const auto* listed = find(snapshot, notes.id());
    ASSERT_NE(listed, nullptr);
    EXPECT_EQ(listed->title, "Notes \u2014 caf\u00e9");
    EXPECT_EQ(listed->width, 640);
    EXPECT_EQ(listed->height, 480);
    auto [x, y] = display.position(notes.id());
    EXPECT_EQ(listed->x, x);
    EXPECT_EQ(listed->y, y);
    EXPECT_EQ(listed->pid, getpid());
    EXPECT_TRUE(listed->onScreen);
    // Without a desktop entry the application is named from its WM_CLASS.
    EXPECT_EQ(listed->appName, "Gnome Notes");
    EXPECT_EQ(listed->appId, "");
    // Stacking order, bottom first: the later window is above.
    auto position = [&](Window id) { return find(snapshot, id) - snapshot.windows.data(); };
    EXPECT_LT(position(notes.id()), position(small.id()));

    ASSERT_EQ(snapshot.displays.size(), 1u);
    EXPECT_EQ(snapshot.displays[0].width, 1920);
    EXPECT_EQ(snapshot.displays[0].height, 1080);
    EXPECT_NE(snapshot.displays[0].id, 0u);

    // Minimised: still listed, no longer on screen. Closed: gone.
    notes.iconify();
    ASSERT_TRUE(eventually([&] { return !notes.viewable(); }));
    snapshot = content.current();
    ASSERT_NE(find(snapshot, notes.id()), nullptr);
    EXPECT_FALSE(find(snapshot, notes.id())->onScreen);
    Window closed = notes.id();
    notes.close();
    EXPECT_TRUE(eventually([&] { return find(content.current(), closed) == nullptr; }));
}

TEST(X11ShareableContent, NamesApplicationsFromTheirDesktopEntries) {
    auto folder =
        std::filesystem::temp_directory_path() / ("pavix-entries-" + std::to_string(getpid()));
    std::filesystem::create_directories(folder / "vendor");
    auto write = [&](const std::filesystem::path& path, const std::string& text) {
        std::ofstream(folder / path) << text;
    };
    write("org.example.Sketch.desktop",
          "[Desktop Entry]\nName=Sketch Pad\nExec=sketchpad %U\n[Desktop Action new]\nName=New\n");
    write("vendor/tool.desktop",
          "[Desktop Entry]\nName=Vendor Tool\nStartupWMClass=VendorToolMain\nExec=/opt/t/tool\n");
    write("hidden.desktop", "[Desktop Entry]\nName=Hidden\nHidden=true\n");

    X11DesktopEntries entries({folder.string()});
    EXPECT_EQ(entries.find("org.example.Sketch", "", "", "")->name, "Sketch Pad");
    EXPECT_EQ(entries.find("", "main", "VendorToolMain", "")->id, "vendor-tool");
    EXPECT_EQ(entries.find("", "sketch", "Sketch", "")->name, "Sketch Pad");
    EXPECT_EQ(entries.find("", "x", "y", "/usr/bin/sketchpad")->id, "org.example.Sketch");
    EXPECT_EQ(entries.find("", "hidden", "Hidden", ""), std::nullopt);

    X11TestDisplay display;
    X11TestWindow sketch(display,
                         {.title = "Drawing 1", .instance = "sketch", .className = "Sketch"});
    X11ShareableContent content("", entries);
    auto snapshot = content.current();
    const auto* listed = find(snapshot, sketch.id());
    ASSERT_NE(listed, nullptr);
    EXPECT_EQ(listed->appName, "Sketch Pad");
    EXPECT_EQ(listed->appId, "org.example.Sketch");
    std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace pavix
