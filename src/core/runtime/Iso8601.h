#pragma once

#include <string>

namespace pavix {

// `unixSeconds` as ISO 8601 text in UTC, to the second: "2026-11-21T08:00:00Z".
std::string iso8601(double unixSeconds);

}  // namespace pavix
