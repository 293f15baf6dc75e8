#pragma once

#include <string>
#include <string_view>

// Random identifiers: UUIDs (version 4, lower-case hyphenated), bearer tokens and pairing codes.
namespace pavix::devserver::Ids {

std::string uuid();
// True for any 8-4-4-4-12 hexadecimal UUID text, in either case.
bool isUuid(std::string_view text);
// True only for the lower-case hyphenated form the service issues and the uploads must use.
bool isLowerUuid(std::string_view text);
std::string lower(std::string_view text);
// An opaque bearer token: prefix followed by 64 hexadecimal characters (256 random bits).
std::string token(std::string_view prefix);
// A one-time pairing code: 8 characters from an alphabet without look-alikes (no 0/O, 1/I/L).
std::string pairingCode();

}  // namespace pavix::devserver::Ids
