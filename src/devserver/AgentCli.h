#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace pavix::devserver::AgentCli {

// "pavix-devserver agent ...": the agent's command line over the agent API. `args` are the
// words after "agent". Returns the process exit code: 0 success, 1 the command was answered with
// an error (or the service refused), 2 usage or connection failure, 3 time-out.
int run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

}  // namespace pavix::devserver::AgentCli
