#pragma once

#include <asio/any_io_executor.hpp>
#include <asio/thread_pool.hpp>
#include <filesystem>
#include <functional>
#include <string>

#include "core/app/Defaults.h"
#include "core/capture/CapturePlatform.h"
#include "core/capture/CaptureStill.h"
#include "core/library/CaptureTransfer.h"
#include "core/net/HttpClient.h"
#include "core/runtime/Log.h"
#include "core/runtime/Timing.h"
#include "platform/AccessibilityReader.h"
#include "platform/AccessibleActions.h"
#include "platform/Clipboard.h"
#include "platform/DesktopInput.h"
#include "platform/SecretStore.h"
#include "platform/ShareableContent.h"
#include "platform/TextRecognizer.h"
#include "platform/Trash.h"
#include "platform/Volume.h"
#include "platform/WindowFrames.h"

namespace pavix {

// What Studio is built from: its executor, the worker pool, the network, the platform parts
// and the fixed facts of this machine. Everything referenced outlives the Studio.
struct StudioEnvironment {
    asio::any_io_executor executor;  // the model executor: all of Studio's state lives on it
    asio::thread_pool* pool = nullptr;
    HttpClient* http = nullptr;
    SecretStore* secrets = nullptr;
    Defaults* defaults = nullptr;
    ShareableContent* content = nullptr;
    Volume* volume = nullptr;
    Trash* trash = nullptr;          // where the library's videos go when they are removed
    Clipboard* clipboard = nullptr;  // for the support summary; none on a headless machine
    CapturePlatform capture;         // streams, encoders and read-back for recordings and stills
    // Desktop control: the accessibility of other applications, synthetic input, and the one
    // thread that all their calls are made on. None: control methods are refused.
    AccessibilityReader* accessibility = nullptr;
    AccessibleActions* accessibleActions = nullptr;
    DesktopInput* desktopInput = nullptr;
    asio::thread_pool* controlThread = nullptr;
    // The visual outline of canvas applications: a still picture of the shared window and the
    // recogniser of its text, both used on the control thread only. Either none: windows are
    // read from their accessible tree only.
    WindowPicture windowPicture;
    TextRecognizer* textRecognizer = nullptr;
    // Moving and resizing top-level windows, for the agent's window sizes; none: windows are
    // left as they are.
    WindowFrames* windowFrames = nullptr;
    // Logs every control method with its outcome and time (PAVIX_CONTROL_LOG); typed text and
    // values are logged by length only.
    bool controlLog = false;
    Log* log = nullptr;
    Timing timing;
    // The largest piece an upload sends, at most CaptureTransfer::kChunkSize (the service's
    // limit); the soak programs send small pieces, so that a short video has many of them.
    std::int64_t uploadPieceBytes = CaptureTransfer::kChunkSize;
    // Milliseconds since 1970 on the wall clock (credential expiry times are in that unit).
    std::function<double()> nowMs;
    std::string appVersion = "dev";
    std::string deviceName = "computer";
    std::string userFullName;           // the user's own name, whose sightings the agent is told of
    std::string osVersion = "unknown";  // the operating system as the support summary names it
    std::int32_t ownPid = 0;  // this process: its own windows are never offered as sources
    std::filesystem::path libraryFolder;        // where recordings are kept
    std::string libraryLabel = "Videos/Pavix";  // the same folder as the user knows it
};

}  // namespace pavix
