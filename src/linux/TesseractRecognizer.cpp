#include "linux/TesseractRecognizer.h"

#include <dlfcn.h>
#include <leptonica/allheaders.h>
#include <tesseract/baseapi.h>
#include <tesseract/resultiterator.h>

#include <algorithm>
#include <cstdlib>
#include <system_error>

namespace pavix {
namespace {

struct PixFree {
    void operator()(Pix* pix) const { pixDestroy(&pix); }
};
struct BoxaFree {
    void operator()(Boxa* boxa) const { boxaDestroy(&boxa); }
};
struct PixaFree {
    void operator()(Pixa* pixa) const { pixaDestroy(&pixa); }
};
using PixPtr = std::unique_ptr<Pix, PixFree>;
using BoxaPtr = std::unique_ptr<Boxa, BoxaFree>;
using PixaPtr = std::unique_ptr<Pixa, PixaFree>;

// A grey level below this is ink on a light ground, or the ground of light text.
constexpr int kDark = 128;

// Text whose glyphs are shorter than this in the picture is read at twice its size. A glyph's
// inked height is about 0.55 of the font's size (the median over lower case and capitals), so
// this is text set below about 20 pixels: the sizes of screen interfaces at one pixel per
// point, where Tesseract's reading degrades (it was made for print scanned at 300 dpi, where
// body text is 40 pixels high). Larger text reads as well as it will at its own size, and
// doubling the picture quadruples the cost of the layout analysis.
constexpr int kSmallGlyph = 11;
// Pictures larger than this (2560×1600) are read at their size: at twice it the engine's
// copies of the picture would take hundreds of megabytes and seconds.
constexpr long kMostUpscaledPixels = 2560L * 1600L;

// The picture's luma, 8 bits a pixel. Throws when the frame does not hold its pixels.
PixPtr grey(const VideoFrame& picture) {
    const auto& pixels = picture.pixels;
    if (picture.layout != PixelLayout::bgra || !picture.holdsPicture()) {
        throw TextRecognitionError("The window's picture is malformed.");
    }
    PixPtr out(pixCreate(picture.width, picture.height, 8));
    if (!out) {
        throw TextRecognitionError("The window's picture is too large to read.");
    }
    l_uint32* data = pixGetData(out.get());
    const int wpl = pixGetWpl(out.get());
    for (int y = 0; y < picture.height; ++y) {
        const std::uint8_t* bgra = pixels->data() + std::size_t(y) * picture.stride;
        l_uint32* line = data + std::size_t(y) * wpl;
        for (int x = 0; x < picture.width; ++x, bgra += 4) {
            // Rec. 601 luma weights out of 256: blue, green, red.
            SET_DATA_BYTE(line, x, (bgra[0] * 29 + bgra[1] * 150 + bgra[2] * 77) >> 8);
        }
    }
    return out;
}

// Makes light text on dark areas (buttons, dark panels, a dark theme) dark on light, as
// Tesseract reads it: every large, mostly solid dark area is inverted together with the light
// glyphs it encloses. A light area it encloses that is solid or taller than a line of text (a
// field, a card) keeps its own polarity.
void evenPolarity(Pix* picture) {
    PixPtr dark(pixThresholdToBinary(picture, kDark));
    Pixa* parts = nullptr;
    BoxaPtr boxes(pixConnComp(dark.get(), &parts, 8));
    PixaPtr partsOwned(parts);
    if (!boxes || !parts) {
        return;
    }
    PixPtr flip(pixCreate(pixGetWidth(picture), pixGetHeight(picture), 1));
    bool any = false;
    for (int i = 0; i < boxaGetCount(boxes.get()); ++i) {
        l_int32 x, y, w, h;
        boxaGetBoxGeometry(boxes.get(), i, &x, &y, &w, &h);
        if (w < 24 || h < 16 || w * h < 1200) {
            continue;  // a glyph or a rule
        }
        PixPtr area(pixaGetPix(parts, i, L_CLONE));
        l_int32 inked = 0;
        pixCountPixels(area.get(), &inked, nullptr);
        if (inked * 10 < w * h * 6) {
            continue;  // strokes, a frame or a large glyph: not a ground
        }
        PixPtr holes(pixHolesByFilling(area.get(), 4));
        if (!holes) {
            continue;
        }
        Pixa* holeParts = nullptr;
        BoxaPtr holeBoxes(pixConnComp(holes.get(), &holeParts, 4));
        PixaPtr holePartsOwned(holeParts);
        for (int j = 0; holeBoxes && holeParts && j < boxaGetCount(holeBoxes.get()); ++j) {
            l_int32 hx, hy, hw, hh;
            boxaGetBoxGeometry(holeBoxes.get(), j, &hx, &hy, &hw, &hh);
            PixPtr hole(pixaGetPix(holeParts, j, L_CLONE));
            l_int32 filled = 0;
            pixCountPixels(hole.get(), &filled, nullptr);
            const bool glyph = hh <= 48 && (filled * 10 < hw * hh * 7 || hw * hh <= 400);
            if (!glyph) {
                pixRasterop(holes.get(), hx, hy, hw, hh, PIX_SUBTRACT, hole.get(), 0, 0);
            }
        }
        pixOr(holes.get(), holes.get(), area.get());
        pixRasterop(flip.get(), x, y, w, h, PIX_SRC | PIX_DST, holes.get(), 0, 0);
        any = true;
    }
    if (any) {
        PixPtr inverted(pixInvert(nullptr, picture));
        pixCombineMasked(picture, inverted.get(), flip.get());
    }
}

// The median height of what looks like glyphs in `picture` (dark on light): 0 when nothing
// does.
int glyphHeight(Pix* picture) {
    PixPtr ink(pixThresholdToBinary(picture, kDark));
    BoxaPtr boxes(pixConnCompBB(ink.get(), 8));
    std::vector<int> heights;
    for (int i = 0; boxes && i < boxaGetCount(boxes.get()); ++i) {
        l_int32 x, y, w, h;
        boxaGetBoxGeometry(boxes.get(), i, &x, &y, &w, &h);
        if (h >= 4 && h <= 64 && w <= 4 * h) {
            heights.push_back(h);
        }
    }
    if (heights.empty()) {
        return 0;
    }
    std::nth_element(heights.begin(), heights.begin() + heights.size() / 2, heights.end());
    return heights[heights.size() / 2];
}

// Tesseract's Debian build runs some of its network layers in OpenMP teams of four threads that
// spin while they wait: on a machine with two cores they cost more than they bring (what
// OMP_THREAD_LIMIT=1 shows). That variable is read when the OpenMP runtime is loaded, before
// Pavix runs, so the same limit is set through the runtime itself where it is loaded: no
// parallel region started from this thread runs more than one thread.
void oneThread() {
    using SetLevels = void (*)(int);
    if (auto set =
            reinterpret_cast<SetLevels>(::dlsym(RTLD_DEFAULT, "omp_set_max_active_levels"))) {
        set(0);
    }
}

std::string trimmed(const char* text) {
    std::string out = text ? text : "";
    const auto space = [](char c) { return c == ' ' || c == '\n' || c == '\t' || c == '\r'; };
    while (!out.empty() && space(out.back())) {
        out.pop_back();
    }
    std::size_t start = 0;
    while (start < out.size() && space(out[start])) {
        ++start;
    }
    return out.substr(start);
}

}  // namespace

TesseractRecognizer::TesseractRecognizer(std::vector<std::filesystem::path> folders,
                                         TesseractSettings settings)
    : folders_(std::move(folders)), settings_(settings) {}

TesseractRecognizer::~TesseractRecognizer() = default;

std::vector<std::filesystem::path> TesseractRecognizer::dataFolders() {
    std::vector<std::filesystem::path> folders;
    if (const char* prefix = std::getenv("TESSDATA_PREFIX"); prefix && *prefix) {
        folders.emplace_back(prefix);
        folders.emplace_back(std::filesystem::path(prefix) / "tessdata");
    }
    for (const char* folder :
         {"/usr/share/tesseract-ocr/5/tessdata", "/usr/share/tesseract-ocr/4.00/tessdata",
          "/usr/share/tessdata", "/usr/local/share/tessdata"}) {
        folders.emplace_back(folder);
    }
    return folders;
}

tesseract::TessBaseAPI& TesseractRecognizer::engine() {
    if (api_) {
        return *api_;
    }
    std::filesystem::path found;
    std::string searched;
    for (const auto& folder : folders_) {
        std::error_code error;
        if (std::filesystem::is_regular_file(folder / "eng.traineddata", error)) {
            found = folder;
            break;
        }
        searched += (searched.empty() ? "" : ", ") + folder.string();
    }
    if (found.empty()) {
        throw TextRecognitionError(
            "Text recognition needs Tesseract's English data (the Debian package "
            "tesseract-ocr-eng): eng.traineddata is in none of " +
            (searched.empty() ? std::string("the folders searched") : searched) + ".");
    }
    auto api = std::make_unique<tesseract::TessBaseAPI>();
    // Its warnings ("Empty page", "Detected diacritics") would go to standard error.
    std::vector<std::string> names = {"debug_file"}, values = {"/dev/null"};
    if (api->Init(found.c_str(), "eng", tesseract::OEM_DEFAULT, nullptr, 0, &names, &values,
                  false) != 0) {
        throw TextRecognitionError("Tesseract could not load its English data from " +
                                   found.string() + ".");
    }
    api->SetPageSegMode(settings_.sparseText ? tesseract::PSM_SPARSE_TEXT : tesseract::PSM_AUTO);
    if (settings_.evenPolarity) {
        api->SetVariable("thresholding_method", "2");  // Sauvola: a threshold for each area
    }
    api_ = std::move(api);
    return *api_;
}

std::vector<RecognizedText> TesseractRecognizer::recognize(const VideoFrame& picture) {
    auto image = grey(picture);
    auto& api = engine();
    upscaledLast_ = false;
    if (settings_.evenPolarity) {
        evenPolarity(image.get());
    }
    const int height = glyphHeight(image.get());
    if (height == 0 && settings_.evenPolarity) {
        return {};  // with every text dark on light, nothing inked is no text
    }
    int scale = 1;
    if (settings_.upscaleSmallText && height < kSmallGlyph &&
        long(picture.width) * picture.height <= kMostUpscaledPixels) {
        PixPtr doubled(pixScale(image.get(), 2.0f, 2.0f));
        if (doubled) {
            image = std::move(doubled);
            scale = 2;
            upscaledLast_ = true;
        }
    }

    oneThread();
    api.SetImage(image.get());
    // Screens show about 96 pixels an inch; said so, Tesseract does not guess it.
    api.SetSourceResolution(96 * scale);
    if (api.Recognize(nullptr) != 0) {
        api.Clear();
        throw TextRecognitionError("Tesseract could not read the window's picture.");
    }
    std::vector<RecognizedText> lines;
    std::unique_ptr<tesseract::ResultIterator> line(api.GetIterator());
    const auto level = tesseract::RIL_TEXTLINE;
    if (line && !line->Empty(level)) {
        do {
            std::unique_ptr<char[]> text(line->GetUTF8Text(level));
            int left = 0, top = 0, right = 0, bottom = 0;
            auto words = trimmed(text.get());
            if (words.empty() || !line->BoundingBox(level, &left, &top, &right, &bottom)) {
                continue;
            }
            lines.push_back({std::move(words),
                             {double(left) / scale, double(top) / scale,
                              double(right - left) / scale, double(bottom - top) / scale},
                             line->Confidence(level)});
        } while (line->Next(level));
    }
    line.reset();
    api.Clear();  // the picture and its results go; the model stays
    return lines;
}

}  // namespace pavix
