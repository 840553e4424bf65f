// tidewatch-term: runs `claude` or `codex` in a terminal Tidewatch's service
// shares, so the Mac and the phone can see it and type into it. Any other
// program is run as it is.
//
//   tidewatch-term <agent> [arguments…]

#include "Relay.h"
#include "ServiceLink.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "Usage: tidewatch-term <agent> [arguments…]\n");
        return 2;
    }
    // Without a terminal of its own, or already inside a shared one, the
    // agent runs as it would without Tidewatch.
    const char* inside = std::getenv("TIDEWATCH_TERM");
    const std::string agent = term::agentName(argv[1]);
    if (!::isatty(STDIN_FILENO) || !::isatty(STDOUT_FILENO) || (inside != nullptr && *inside != '\0')
        || (agent != "claude" && agent != "codex")) {
        ::execvp(argv[1], argv + 1);
        std::fprintf(stderr, "tidewatch-term: %s: %s\n", argv[1], std::strerror(errno));
        return 127;
    }
    std::vector<std::string> command(argv + 1, argv + argc);
    return term::Relay(std::move(command), term::ServiceLink::defaultSocketPath()).run();
}
