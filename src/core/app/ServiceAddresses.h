#pragma once

// The fixed addresses of the hosted service.
namespace pavix::ServiceAddresses {

// The service's base address, used until the user or a setup link names another one.
inline constexpr const char* kDefaultServer = "https://agent.pavix.app";
// The host of kDefaultServer: the agent host.
inline constexpr const char* kAgentHost = "agent.pavix.app";
// The web application's origin, where the console lives.
inline constexpr const char* kConsole = "https://app.pavix.app";
// Where a new version is downloaded from.
inline constexpr const char* kDownloadPage = "https://pavix.app/download";

}  // namespace pavix::ServiceAddresses
