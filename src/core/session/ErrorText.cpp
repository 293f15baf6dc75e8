#include "core/session/ErrorText.h"

#include <asio/error.hpp>
#include <cstdlib>
#include <system_error>

#include "core/capture/CaptureError.h"
#include "core/net/TransportError.h"
#include "core/session/KeychainError.h"
#include "core/session/PavixError.h"
#include "core/session/PavixHTTPError.h"

namespace pavix::ErrorText {

std::string describe(std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "An unexpected error occurred.";
    }
}

std::string errorCode(std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const PavixHTTPError& e) {
        return e.code() ? *e.code() : "http_" + std::to_string(e.status());
    } catch (const CaptureError& e) {
        return "scstream_" + std::to_string(std::abs(e.code()));
    } catch (const TransportError& e) {
        return "url_" + std::to_string(std::abs(e.code()));
    } catch (const PavixError&) {
        return "app_rule";
    } catch (...) {
        return "other";
    }
}

std::string domain(std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const PavixHTTPError&) {
        return "PavixHTTPError";
    } catch (const CaptureError&) {
        return "CaptureError";
    } catch (const TransportError&) {
        return "TransportError";
    } catch (const KeychainError&) {
        return "KeychainError";
    } catch (const PavixError&) {
        return "PavixError";
    } catch (const std::system_error& e) {
        return e.code().category().name();
    } catch (...) {
        return "other";
    }
}

long number(std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const PavixHTTPError& e) {
        return e.status();
    } catch (const CaptureError& e) {
        return e.code();
    } catch (const TransportError& e) {
        return e.code();
    } catch (const KeychainError& e) {
        return e.status();
    } catch (const std::system_error& e) {
        return e.code().value();
    } catch (...) {
        return 0;
    }
}

bool isCancellation(std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::system_error& e) {
        return e.code() == asio::error::operation_aborted;
    } catch (const TransportError& e) {
        return e.code() == TransportError::kCancelled;
    } catch (...) {
        return false;
    }
}

}  // namespace pavix::ErrorText
