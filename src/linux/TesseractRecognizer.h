#pragma once

#include <filesystem>
#include <memory>
#include <vector>

#include "platform/TextRecognizer.h"

namespace tesseract {
class TessBaseAPI;
}

namespace pavix {

// How the recogniser prepares and reads a picture. The defaults are Pavix's; the others exist
// to measure what each choice brings.
struct TesseractSettings {
    // Pictures of small text are read at twice their size (see TesseractRecognizer.cpp).
    bool upscaleSmallText = true;
    // Words scattered over the picture, each line on its own (page segmentation mode 11),
    // rather than Tesseract's automatic page layout, which joins words of a row into one line.
    bool sparseText = true;
    // Light text on dark areas is turned dark on light, and the picture is thresholded locally
    // (Sauvola) rather than with one threshold for the whole picture.
    bool evenPolarity = true;
};

// Text recognition with Tesseract and its English data (Debian's tesseract-ocr-eng). The engine
// is made on the first picture and kept: loading its model costs far more than reading a
// window. One object per thread.
class TesseractRecognizer : public TextRecognizer {
  public:
    // `folders` are searched in order for eng.traineddata.
    explicit TesseractRecognizer(std::vector<std::filesystem::path> folders = dataFolders(),
                                 TesseractSettings settings = {});
    ~TesseractRecognizer() override;
    TesseractRecognizer(const TesseractRecognizer&) = delete;
    TesseractRecognizer& operator=(const TesseractRecognizer&) = delete;

    // The lines of text with their frames in the picture's pixels. Throws TextRecognitionError
    // when the English data is missing or unreadable, or the picture is malformed.
    std::vector<RecognizedText> recognize(const VideoFrame& picture) override;

    // Where the English data is looked for: $TESSDATA_PREFIX and its "tessdata" folder when
    // the variable is set, then where Debian's tesseract-ocr-eng puts it for Tesseract 5 and 4,
    // then the usual folders of other builds.
    static std::vector<std::filesystem::path> dataFolders();

    // Whether the last picture was read at twice its size.
    bool upscaledLast() const { return upscaledLast_; }

  private:
    tesseract::TessBaseAPI& engine();

    std::vector<std::filesystem::path> folders_;
    TesseractSettings settings_;
    std::unique_ptr<tesseract::TessBaseAPI> api_;
    bool upscaledLast_ = false;
};

}  // namespace pavix
