#pragma once

#include <exception>
#include <string>

namespace pavix {

// What the system says about a caught error: its sentence, its short diagnostic code, and the
// domain and number written in log lines.
namespace ErrorText {

// The user-facing description: the sentence of a PavixHTTPError, the message of a PavixError,
// otherwise the error's own text.
std::string describe(std::exception_ptr error);

// The short stable diagnostic code: the service's code, "http_" + status, "capture_" errors as
// "scstream_" + |code|, transport errors as "url_" + |code|, "app_rule" for a PavixError,
// "other" for anything else.
std::string errorCode(std::exception_ptr error);

std::string domain(std::exception_ptr error);
long number(std::exception_ptr error);

// Whether the error is the cancellation of the coroutine that caught it.
bool isCancellation(std::exception_ptr error);

}  // namespace ErrorText
}  // namespace pavix
