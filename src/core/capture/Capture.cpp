#include "core/capture/Capture.h"

#include <asio/post.hpp>
#include <asio/redirect_error.hpp>
#include <asio/steady_timer.hpp>
#include <asio/use_awaitable.hpp>
#include <cmath>
#include <system_error>

#include "core/capture/CaptureError.h"
#include "core/capture/CaptureGuards.h"
#include "core/capture/CaptureStill.h"
#include "core/capture/CaptureWriter.h"
#include "core/capture/EncoderBudget.h"
#include "core/runtime/Offload.h"
#include "core/session/ErrorText.h"
#include "core/session/PavixError.h"

namespace pavix {

// One start attempt with one encoding: its writer and its stream, and what their threads
// reported (posted to the model executor). The stream is declared last so that it is destroyed
// first: its frame handler writes into the writer.
struct Capture::Attempt {
    explicit Attempt(const asio::any_io_executor& executor) : settled(executor) {}

    // The first frame or a failure has come: a start that waits for either goes on.
    void settle() { settled.cancel(); }

    std::unique_ptr<CaptureWriter> writer;
    std::unique_ptr<CaptureStream> stream;
    bool firstFrame = false;
    std::chrono::steady_clock::time_point firstFrameAt;
    std::exception_ptr writerFailure;
    std::exception_ptr streamFailure;
    asio::steady_timer settled;  // the start's wait, ended by `settle` or the time-out
};

namespace {

std::string whatOf(std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "unknown error";
    }
}

const ShareableWindow* findWindow(const ShareableContentSnapshot& content, std::uint32_t id) {
    for (const auto& window : content.windows) {
        if (window.id == id) {
            return &window;
        }
    }
    return nullptr;
}

}  // namespace

Capture::EncoderRejected::EncoderRejected(std::exception_ptr error)
    : std::runtime_error(whatOf(error)), underlying(std::move(error)) {}

Capture::Capture(Parts parts)
    : parts_(std::move(parts)),
      self_(std::make_shared<Capture*>(this)),
      preview_(std::make_shared<PreviewFeed>(parts_.platform.streams)) {}

Capture::~Capture() {
    self_.reset();  // callbacks already posted find nothing to touch
    layerWatch_.cancel();
    stopTask_.cancel();
}

void Capture::log(const std::string& line) const {
    if (parts_.log) {
        parts_.log->line(line);
    }
}

std::string Capture::describe(std::exception_ptr error) const {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        return CaptureGuards::describe(e, parts_.libraryLabel);
    } catch (...) {
        return "Capture failed. Any saved video remains in " + parts_.libraryLabel + ".";
    }
}

Capture::Framing Capture::withPopups(const CaptureSource& source,
                                     const ShareableContentSnapshot& content) {
    Framing framing;
    framing.filter = source.filter;
    framing.width = static_cast<double>(source.width);
    framing.height = static_cast<double>(source.height);
    if (source.windowIDs.empty()) {
        // A display keeps its own filter, at the display's current size.
        for (const auto& display : content.displays) {
            if (!source.displayIDs.empty() && display.id == source.displayIDs.front()) {
                framing.width = display.width;
                framing.height = display.height;
            }
        }
        return framing;
    }
    const auto* window = findWindow(content, source.windowIDs.front());
    framing.filter.kind = CaptureFilter::Kind::window;
    framing.filter.windowID = source.windowIDs.front();
    if (window == nullptr) {
        return framing;  // the stream reports the vanished window
    }
    CaptureRect frame{window->x, window->y, window->width, window->height};
    framing.windowFrame = frame;
    framing.width = frame.width;
    framing.height = frame.height;
    if (!window->onScreen || !window->appName) {
        return framing;
    }
    const double midX = frame.x + frame.width / 2, midY = frame.y + frame.height / 2;
    for (const auto& display : content.displays) {
        CaptureRect area{display.x, display.y, display.width, display.height};
        if (!area.contains(midX, midY)) {
            continue;
        }
        auto region = CaptureLayers::region(frame, area);
        framing.filter.kind = CaptureFilter::Kind::applicationRegion;
        framing.filter.displayID = display.id;
        framing.filter.appId = window->appId;
        framing.region = region;
        framing.width = region.width;
        framing.height = region.height;
        break;
    }
    return framing;
}

void Capture::prepareEncoder() {
    if (encoderPrepared_ || !parts_.platform.probe || parts_.pool == nullptr) {
        return;
    }
    encoderPrepared_ = true;
    // The pool is joined before the platform parts go, so the probe outlives this work.
    asio::post(*parts_.pool, [probe = parts_.platform.probe] {
        CaptureWriter::plan(CaptureEncoding::candidates(1920, 1080, 1.0), std::nullopt, *probe);
    });
}

asio::awaitable<void> Capture::start(CaptureSource source, std::filesystem::path file) {
    if (running()) {
        throw PavixError(alreadyRecordingMessage);
    }
    if (!parts_.platform.streams || !parts_.platform.encoders || !parts_.platform.probe ||
        !parts_.platform.media || parts_.content == nullptr || parts_.pool == nullptr) {
        throw PavixError(didNotStartMessage);
    }
    starting_ = true;
    // Also ends the start when its frame is destroyed unfinished, which may happen after the
    // capture itself is gone (the executor is destroyed last): the flag is then left alone.
    struct Starting {
        std::weak_ptr<Capture*> self;
        ~Starting() {
            if (auto capture = self.lock()) {
                (*capture)->starting_ = false;
            }
        }
    } starting{self_};

    auto read = [content = parts_.content, file, preview = preview_] {
        preview->hideAndWait();  // no preview stream runs beside a recording
        auto snapshot = content->current();
        return std::make_pair(std::move(snapshot), std::filesystem::exists(file));
    };
    auto found = co_await offload(*parts_.pool, read);
    const auto& snapshot = found.first;
    if (found.second) {
        throw PavixError(existsMessage);  // never written over
    }
    auto framing = withPopups(source, snapshot);

    auto candidates = CaptureEncoding::candidates(framing.width, framing.height, 1.0);
    if (candidates.empty()) {
        throw PavixError(cannotRecordMessage);
    }
    std::optional<std::int64_t> maxWidth;
    if (parts_.defaults) {
        if (auto value = parts_.defaults->integer("captureMaxWidth")) {
            maxWidth = static_cast<std::int64_t>(*value);
        }
    }
    auto probe = [candidates, maxWidth, encoderProbe = parts_.platform.probe] {
        return CaptureWriter::plan(candidates, maxWidth, *encoderProbe);
    };
    const auto plan = co_await offload(*parts_.pool, probe);
    const auto& kept = plan.encodings;
    if (kept.empty()) {
        throw PavixError(cannotEncodeMessage);
    }
    log(EncoderBudget::describe(plan));

    failure_ = nullptr;
    region_ = framing.region;
    file_ = file;
    for (std::size_t i = 0; i < kept.size(); ++i) {
        std::exception_ptr rejected;
        try {
            co_await startWith(kept[i], framing);
        } catch (const EncoderRejected& refusal) {
            rejected = refusal.underlying;
        }
        if (!rejected) {
            co_return;
        }
        const bool last = i + 1 == kept.size();
        log("encoder rejected " + std::to_string(kept[i].size.width) + "x" +
            std::to_string(kept[i].size.height) + "; " +
            (last ? "no smaller size" : "trying a smaller size"));
        // The file did not exist when this start began: what is there is this attempt's.
        auto remove = [file] {
            std::error_code ignored;
            std::filesystem::remove(file, ignored);
        };
        co_await offload(*parts_.pool, remove);
        encoding_.reset();
        if (last) {
            throw PavixError(describe(rejected));
        }
    }
}

asio::awaitable<void> Capture::startWith(const CaptureEncoding& encoding, const Framing& framing) {
    auto attempt = std::make_shared<Attempt>(parts_.executor);
    encoding_ = encoding;

    auto open = [path = file_->string(), encoding, encoders = parts_.platform.encoders] {
        return std::make_unique<CaptureWriter>(path, encoding, encoders());
    };
    std::exception_ptr openFailure;
    try {
        attempt->writer = co_await offload(*parts_.pool, open);
    } catch (...) {
        openFailure = std::current_exception();
    }
    if (openFailure) {
        throw EncoderRejected(openFailure);
    }

    // Writer and stream threads hop to the model executor; what they report belongs to this
    // attempt only.
    std::weak_ptr<Capture*> self = self_;
    std::weak_ptr<Attempt> weak = attempt;
    auto executor = parts_.executor;
    attempt->writer->setOnFirstFrame([self, weak, executor] {
        auto at = std::chrono::steady_clock::now();
        asio::post(executor, [self, weak, at] {
            auto attempt = weak.lock();
            if (self.lock() && attempt) {
                attempt->firstFrame = true;
                attempt->firstFrameAt = at;
                attempt->settle();
            }
        });
    });
    attempt->writer->setOnFailure([self, weak, executor](std::exception_ptr error) {
        asio::post(executor, [self, weak, error] {
            auto capture = self.lock();
            auto attempt = weak.lock();
            if (capture && attempt) {
                (*capture)->writerFailed(attempt, error);
            }
        });
    });

    CaptureStreamHandlers handlers;
    CaptureWriter* writer = attempt->writer.get();
    handlers.frame = [writer](const VideoFrame& frame) { writer->append(frame); };
    handlers.error = [self, weak, executor](const CaptureError& error) {
        auto failure = std::make_exception_ptr(error);
        asio::post(executor, [self, weak, failure] {
            auto capture = self.lock();
            auto attempt = weak.lock();
            if (capture && attempt) {
                (*capture)->streamFailed(attempt, failure);
            }
        });
    };
    CaptureStreamConfig config;
    config.width = static_cast<int>(encoding.size.width);
    config.height = static_cast<int>(encoding.size.height);
    config.showsCursor = showsCursor;
    config.minimumFrameInterval = 1.0 / CaptureWriter::frameRate;
    config.sourceRect = framing.region;
    config.layout = PixelLayout::i420;  // the encoder's own, converted once as it is grabbed

    attempt->stream = parts_.platform.streams();
    auto begin = [stream = attempt->stream.get(), filter = framing.filter, config, handlers] {
        stream->start(filter, config, handlers);
    };
    std::exception_ptr startFailure;
    try {
        co_await offload(*parts_.pool, begin);
    } catch (...) {
        startFailure = std::current_exception();
    }
    if (startFailure) {
        co_await discard(attempt);
        std::rethrow_exception(startFailure);
    }

    // Until the first frame or a failure, whichever comes first.
    if (!attempt->firstFrame && !attempt->writerFailure && !attempt->streamFailure) {
        attempt->settled.expires_after(parts_.timing.firstFrameTimeout);
        std::error_code ended;  // cancelled by `settle`, or timed out
        co_await attempt->settled.async_wait(asio::redirect_error(asio::use_awaitable, ended));
    }
    if (attempt->writerFailure) {
        co_await discard(attempt);
        throw EncoderRejected(attempt->writerFailure);
    }
    if (!attempt->firstFrame && attempt->streamFailure) {
        co_await discard(attempt);
        std::rethrow_exception(attempt->streamFailure);
    }
    if (!attempt->firstFrame) {
        co_await discard(attempt);
        throw PavixError(didNotStartMessage);
    }
    // The stream may have ended in the same wait that saw the first frame: a capture that
    // looked running with a dead stream would never end by itself.
    if (attempt->streamFailure) {
        co_await discard(attempt);
        std::rethrow_exception(attempt->streamFailure);
    }

    current_ = attempt;
    started_ = attempt->firstFrameAt;
    layers_ = CaptureLayers{};
    if (framing.filter.kind != CaptureFilter::Kind::display && parts_.platform.layers) {
        auto region =
            framing.region ? *framing.region : framing.windowFrame.value_or(CaptureRect{});
        layerWatch_ = Task::spawn(parts_.executor, watchLayers(framing.filter.windowID, region),
                                  [this](std::exception_ptr error) {
                                      log("layer sampling ended: " + ErrorText::describe(error));
                                  });
    }
}

asio::awaitable<void> Capture::discard(std::shared_ptr<Attempt> attempt) {
    auto end = [attempt] {
        if (attempt->stream) {
            attempt->stream->stop();
        }
        if (attempt->writer) {
            attempt->writer->cancel();
        }
        attempt->stream.reset();
        attempt->writer.reset();
    };
    co_await offload(*parts_.pool, end);
}

void Capture::writerFailed(const std::shared_ptr<Attempt>& attempt, std::exception_ptr error) {
    if (!attempt->firstFrame) {
        attempt->writerFailure = error;  // a refusal of the size: the start falls back
        attempt->settle();
        return;
    }
    if (attempt == current_) {
        report(error);
    }
}

void Capture::streamFailed(const std::shared_ptr<Attempt>& attempt, std::exception_ptr error) {
    if (!attempt->streamFailure) {
        attempt->streamFailure = error;
        attempt->settle();
    }
    if (attempt == current_) {
        report(error);
    }
}

void Capture::report(std::exception_ptr error) {
    if (failure_) {
        return;  // the first failure counts
    }
    failure_ = error;
    if (onFailureError) {
        onFailureError(error);
    }
    if (onFailure) {
        onFailure(describe(error));
    }
}

asio::awaitable<std::filesystem::path> Capture::stop() {
    if (!stopping_) {
        if (!current_) {
            throw PavixError(notRecordingMessage);
        }
        stopping_ = std::make_shared<SharedOutcome<std::filesystem::path>>(parts_.executor);
        stopTask_ = Task::spawn(parts_.executor, performStop(stopping_));
    }
    auto outcome = stopping_;
    co_return co_await outcome->wait();
}

asio::awaitable<void> Capture::performStop(
    std::shared_ptr<SharedOutcome<std::filesystem::path>> done) {
    layerWatch_.cancel();
    auto attempt = current_;
    const auto path = *file_;
    const std::int64_t endNs = CaptureWriter::now();

    auto finish = [attempt, endNs] {
        attempt->stream->stop();
        std::exception_ptr failure;
        try {
            attempt->writer->finish(endNs);
        } catch (...) {
            failure = std::current_exception();
        }
        attempt->stream.reset();
        attempt->writer.reset();
        if (failure) {
            std::rethrow_exception(failure);
        }
    };
    std::exception_ptr finishFailure;
    try {
        co_await offload(*parts_.pool, finish);
    } catch (...) {
        finishFailure = std::current_exception();
    }
    current_.reset();

    std::exception_ptr outcome;
    if (finishFailure) {
        log("capture could not finish: " + ErrorText::describe(finishFailure));
        std::string message =
            "Capture could not finish. Any saved video remains in " + parts_.libraryLabel + ".";
        if (failure_) {
            message += " " + describe(failure_);
        }
        outcome = std::make_exception_ptr(PavixError(message));
    } else {
        auto validate = [media = parts_.platform.media, path]() -> std::optional<double> {
            auto seconds = media->duration(path.string());
            if (!seconds || !std::isfinite(*seconds)) {
                return std::nullopt;
            }
            std::error_code ignored;
            std::filesystem::permissions(
                path, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write,
                std::filesystem::perm_options::replace, ignored);
            return seconds;
        };
        std::optional<double> seconds;
        try {
            seconds = co_await offload(*parts_.pool, validate);
        } catch (...) {
            outcome = std::current_exception();
        }
        if (!outcome && !seconds) {
            outcome = std::make_exception_ptr(PavixError(incompleteMessage));
        }
        if (seconds) {
            durationMs_ = static_cast<std::int64_t>(*seconds * 1000);
        }
    }
    stopping_.reset();
    if (outcome) {
        done->reject(outcome);
    } else {
        done->resolve(path);
    }
}

asio::awaitable<void> Capture::watchLayers(std::uint32_t windowID, CaptureRect region) {
    auto read = [layers = parts_.platform.layers, windowID] { return layers->windows(windowID); };
    const auto interval = parts_.timing.layerInterval;
    asio::steady_timer timer(parts_.executor);
    auto next = std::chrono::steady_clock::now();
    for (;;) {
        std::vector<LayerWindow> windows;
        bool gone = false;
        try {
            windows = co_await offload(*parts_.pool, read);
        } catch (const CaptureError&) {
            gone = true;  // the window closed; the stream reports it
        }
        if (gone) {
            co_return;
        }
        auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
                           std::chrono::steady_clock::now() - *started_)
                           .count();
        layers_.note(elapsed, CaptureLayers::rects(CaptureLayers::sampled(windows), region),
                     interval.count());
        next += interval;
        auto now = std::chrono::steady_clock::now();
        if (next < now) {
            next = now;  // fell behind: sample again at once, without catching up in a burst
        }
        timer.expires_at(next);
        co_await timer.async_wait(asio::use_awaitable);
    }
}

asio::awaitable<std::vector<std::uint8_t>> Capture::still(CaptureSource source) {
    if (!parts_.platform.streams || !parts_.platform.stills || parts_.pool == nullptr) {
        throw PavixError("Screenshot unavailable");
    }
    auto size = CaptureGeometry::make(static_cast<double>(source.width),
                                      static_cast<double>(source.height), 1.0, 16384, 16384);
    if (!size) {
        throw PavixError("Screenshot unavailable");
    }
    auto take = [streams = parts_.platform.streams, stills = parts_.platform.stills,
                 filter = stillFilter(source), width = static_cast<int>(size->width),
                 height = static_cast<int>(size->height)] {
        auto stream = streams();
        return CaptureStill::take(*stream, *stills, filter, width, height, stillTimeout);
    };
    co_return co_await offload(*parts_.pool, take);
}

void Capture::preview(const std::optional<CaptureSource>& source, int maxWidth, int maxHeight,
                      PreviewFeed::Sink sink) {
    std::optional<CaptureGeometry> size;
    if (source && !running()) {
        size = CaptureGeometry::make(static_cast<double>(source->width),
                                     static_cast<double>(source->height), 1.0, maxWidth, maxHeight);
    }
    if (!size) {
        preview_->hide();
        return;
    }
    preview_->show(stillFilter(*source), static_cast<int>(size->width),
                   static_cast<int>(size->height), std::move(sink));
}

CaptureFilter Capture::stillFilter(const CaptureSource& source) {
    CaptureFilter filter = source.filter;
    if (!source.windowIDs.empty()) {
        filter.kind = CaptureFilter::Kind::window;
        filter.windowID = source.windowIDs.front();
    }
    return filter;
}

}  // namespace pavix
