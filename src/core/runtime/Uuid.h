#pragma once

#include <string>
#include <string_view>

namespace pavix::Uuid {

// A new random (version 4) UUID in lower-case text.
std::string make();
// Whether `text` is a UUID in its textual form: 8-4-4-4-12 hexadecimal digits, any case.
bool isValid(std::string_view text);
// The same UUID text in upper case, the form that names a recording's files.
std::string upper(std::string_view text);
// The same UUID text in lower case, the form the service addresses a recording by.
std::string lower(std::string_view text);

}  // namespace pavix::Uuid
