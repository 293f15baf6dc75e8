#pragma once

#include <asio/any_io_executor.hpp>
#include <asio/thread_pool.hpp>
#include <memory>

#include "core/net/HttpClient.h"
#include "core/runtime/StreamLog.h"
#include "core/session/StudioEnvironment.h"
#include "linux/AtspiActions.h"
#include "linux/AtspiTreeReader.h"
#include "linux/FallbackSecretStore.h"
#include "linux/FfmpegEncoderProbe.h"
#include "linux/FfmpegMediaReader.h"
#include "linux/FfmpegPngEncoder.h"
#include "linux/GioTrash.h"
#include "linux/StatvfsVolume.h"
#include "linux/TesseractRecognizer.h"
#include "linux/XdgFolders.h"
#include "ui/QtDefaults.h"

namespace pavix {

// The platform parts of this computer that the Studio is built from, owned in one place:
// the worker pool, the network, the keyring, the settings, the window system's listings and
// clipboard, the disk, the Trash, the video parts, and the accessibility of, input to and text
// recognition for other applications. Parts that need a display are absent (or report why)
// when there is none.
class LinuxEnvironment {
  public:
    LinuxEnvironment();
    ~LinuxEnvironment();
    LinuxEnvironment(const LinuxEnvironment&) = delete;
    LinuxEnvironment& operator=(const LinuxEnvironment&) = delete;

    // The Studio's environment on the model executor `model`.
    StudioEnvironment studio(asio::any_io_executor model);
    Log& log() { return log_; }

  private:
    asio::thread_pool pool_{4};
    StreamLog log_;
    HttpClient http_;
    Timing timing_;
    std::unique_ptr<FallbackSecretStore> secrets_;
    QtDefaults defaults_;
    std::unique_ptr<ShareableContent> content_;
    StatvfsVolume volume_;
    FfmpegEncoderProbe encoderProbe_{EncoderCostRecord(XdgFolders::state() / "encoder-cost.json")};
    FfmpegMediaReader mediaReader_;
    FfmpegPngEncoder pngEncoder_;
    std::unique_ptr<WindowLayers> layers_;
    GioTrash trash_;
    std::unique_ptr<Clipboard> clipboard_;
    AtspiTreeReader accessibility_;
    AtspiActions accessibleActions_;
    std::unique_ptr<DesktopInput> desktopInput_;
    std::unique_ptr<WindowFrames> windowFrames_;
    // Reads the text canvas applications draw; its engine is made on the first read, on the
    // control thread.
    TesseractRecognizer textRecognizer_;
    // The one thread that talks to the accessibility bus (its library is not thread-safe) and
    // makes the synthetic input.
    asio::thread_pool controlThread_{1};
};

}  // namespace pavix
