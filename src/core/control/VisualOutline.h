#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/control/OutlineSnapshot.h"
#include "platform/TextRecognizer.h"

namespace pavix {

// What the visual outline keeps and where its text goes.
struct VisualOptions {
    // Lines read with a lower confidence (0 to 100) are dropped. Words Tesseract reads right in
    // screen pictures prepared as TesseractRecognizer does score 90 and more (92 at the least
    // for the benchmark's 96 painted words), words under 10 pixels down to about 60; what it
    // makes of icons, rules and the edges of boxes scores under 55.
    double minimumConfidence = 60;
    std::size_t textLimit = 6000;  // characters of page text in all, as OutlineOptions says
    std::string identityName;      // the user's full name, whose sightings are noted; empty: none
};

// The outline of what a window shows rather than what it tells the accessibility bus: the lines
// of text recognised in its picture become targets of the snapshot, which the agent points at
// like any other. Pure rules; the picture and the recognition are the control session's.
namespace VisualOutline {

// The applications that draw their content themselves, by identifier (compared without case and
// without ".desktop"): the other platform's bundle identifiers of Figma, Sketch, Illustrator,
// Photoshop and Miro, then the Linux desktop ids of GIMP, Inkscape, Krita and Blender as Debian
// and Flathub install them, and of Figma's desktop wrapper figma-linux (its own package and
// Flathub's).
inline constexpr std::array<std::string_view, 13> canvasApps = {
    "com.figma.Desktop",
    "com.bohemiancoding.sketch3",
    "com.adobe.illustrator",
    "com.adobe.Photoshop",
    "com.miro.desktop",
    "gimp",                   // Debian's GIMP 2.10
    "org.gimp.GIMP",          // GIMP 3, and Flathub's
    "org.inkscape.Inkscape",  // Debian and Flathub
    "org.kde.krita",          // Debian and Flathub
    "blender",                // Debian
    "org.blender.Blender",    // Flathub
    "figma-linux",
    "io.github.Figma_Linux.figma_linux",  // Flathub's figma-linux
};

// The identifiers in the "visualOnlyApps" setting: separated by commas, blanks around them
// dropped.
std::vector<std::string> appList(const std::string& setting);

// Whether a window of the application `appId` (its desktop id, "" when unknown) named `appName`
// is read from its picture as well: its id is one of `canvasApps` or of `extra` (the user's
// "visualOnlyApps"), or, for an application without a known id, its name is that of one of
// them as the window's class gives it ("GIMP", "Figma Linux"), or one of `extra` with blanks
// as hyphens ("Canvas Board" for "canvas-board").
bool isCanvasApp(const std::string& appId, const std::optional<std::string>& appName,
                 const std::vector<std::string>& extra = {});

// The lines of a picture of `pictureWidth` × `pictureHeight` pixels that shows the window's
// content fitted into it (its aspect kept, centred), with their frames in screen points.
std::vector<RecognizedText> toScreen(std::vector<RecognizedText> lines, int pictureWidth,
                                     int pictureHeight, const CaptureRect& window);

// `snapshot` with the recognised `lines` (frames in screen points) added, in reading order
// (rows from the top, lines whose heights overlap by half the shorter one on one row, each
// row from the left):
//  - a line is kept when its confidence reaches the options' minimum, it holds a letter or a
//    digit, and at least 2×2 points of it lie inside the window;
//  - a line that overlaps a target of the accessible tree with the same text is that target and
//    is not added again. Two frames overlap when their common part covers at least half of the
//    smaller one; texts are the same when, in lower case with runs of blanks as one, one holds
//    the other;
//  - a kept line becomes a target (`visual`, no element handle) under the next reference after
//    the largest in the snapshot, with the role word "button" when its centre lies on a
//    pressable target of the tree (a button, link, tab, menu or menu bar item), else "text";
//  - its line reads `  [ref_N] text "Word" visual — visible at (X,Y) window points`, (X,Y)
//    the centre of its frame from the window's top-left corner, rounded. The lines follow the
//    tree's and come before the closing "Scroll areas" line, which stays last;
//  - its text joins the page text, within the options' limit.
OutlineSnapshot augment(OutlineSnapshot snapshot, const std::vector<RecognizedText>& lines,
                        const VisualOptions& options = {});

// `outline` with `lines` (each ending with a line feed) put before its closing "Scroll areas"
// line, or after its end when it has none.
std::string insertLines(const std::string& outline, const std::string& lines);

}  // namespace VisualOutline
}  // namespace pavix
