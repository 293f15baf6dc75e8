#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "core/capture/CaptureRect.h"
#include "platform/VideoFrame.h"

namespace pavix {

// One line of text read from a picture.
struct RecognizedText {
    std::string text;       // UTF-8, without the line's end
    CaptureRect frame;      // where it lies: in the picture's pixels as the recogniser gives it
    double confidence = 0;  // 0 (a guess) to 100 (certain)
};

// The recogniser cannot run: its language data is missing, or the picture cannot be read. The
// description is a sentence for the user.
class TextRecognitionError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Reads the lines of text in a picture: for applications that draw their content themselves
// and tell the accessibility bus nothing of it.
//
// Blocking, and not shared between threads: a recogniser belongs to the thread that uses it
// (the control thread).
class TextRecognizer {
  public:
    virtual ~TextRecognizer() = default;
    // The text lines of a BGRA picture, in reading order. Throws TextRecognitionError.
    virtual std::vector<RecognizedText> recognize(const VideoFrame& picture) = 0;
};

}  // namespace pavix
