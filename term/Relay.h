#pragma once

// Runs an agent under a pseudo-terminal and relays the person's terminal to
// it byte for byte, while the service sees the same output and may type into
// it. With the service away the agent runs exactly as it would without us.

#include "OutputTail.h"
#include "ServiceLink.h"

#include <string>
#include <sys/types.h>
#include <termios.h>
#include <vector>

namespace term {

/// The agent's name as the service knows it: the program's file name.
std::string agentName(const std::string& program);

class Relay
{
public:
    Relay(std::vector<std::string> command, std::string socketPath);

    /// Runs the agent to its end; the result is its exit status (a signal
    /// that ended it is raised on this process too, so the shell sees it).
    int run();

private:
    bool start();
    void loop();
    void onSignal(int signal);
    void onChildChanged();
    void suspend();
    /// Passes on what is there to read; gives how much.
    std::size_t pump(int from, int to, bool mirror);
    void resize();
    void hello();
    void finish();

    std::vector<std::string> command_;
    std::string id_;
    ServiceLink link_;
    termios saved_{};
    bool raw_ = false;
    int master_ = -1;
    pid_t child_ = -1;
    int status_ = 0;
    bool exited_ = false;
    bool inputOpen_ = true;
    bool outputOpen_ = true;
    OutputTail tail_;
};

} // namespace term
