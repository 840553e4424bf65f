#include "Relay.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#ifdef __APPLE__
#include <util.h>
#else
#include <pty.h>
#endif

namespace term {
namespace {

/// The most read from one side before the other gets its turn.
constexpr std::size_t kChunk = 64 * 1024;
/// The exit frame gets this long to reach the service.
constexpr std::chrono::milliseconds kExitDrain{200};

int signalPipe[2] = {-1, -1};

extern "C" void noteSignal(int signal)
{
    const int kept = errno;
    const auto byte = static_cast<unsigned char>(signal);
    [[maybe_unused]] const ssize_t wrote = ::write(signalPipe[1], &byte, 1);
    errno = kept;
}

constexpr std::array kRelayed = {SIGWINCH, SIGCHLD, SIGCONT, SIGTERM, SIGHUP, SIGINT, SIGQUIT};

void setNonBlocking(int fd)
{
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
}

bool writeAll(int fd, const char* data, std::size_t size)
{
    while (size > 0) {
        const ssize_t wrote = ::write(fd, data, size);
        if (wrote < 0 && errno == EINTR)
            continue;
        if (wrote < 0 && errno == EAGAIN) {
            pollfd one{fd, POLLOUT, 0};
            ::poll(&one, 1, -1);
            continue;
        }
        if (wrote <= 0)
            return false;
        data += wrote;
        size -= static_cast<std::size_t>(wrote);
    }
    return true;
}

std::string randomId()
{
    std::array<unsigned char, 16> bytes{};
    const int fd = ::open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        [[maybe_unused]] const ssize_t got = ::read(fd, bytes.data(), bytes.size());
        ::close(fd);
    }
    std::string id;
    char hex[3];
    for (const unsigned char byte : bytes) {
        std::snprintf(hex, sizeof hex, "%02x", byte);
        id += hex;
    }
    return id;
}

// The window's size as JSON members, for a frame of its own or the hello.
std::string sizeFields(const winsize& size)
{
    return "\"cols\":" + std::to_string(size.ws_col) + ",\"rows\":" + std::to_string(size.ws_row);
}

} // namespace

std::string agentName(const std::string& program)
{
    const auto slash = program.rfind('/');
    return slash == std::string::npos ? program : program.substr(slash + 1);
}

Relay::Relay(std::vector<std::string> command, std::string socketPath)
    : command_(std::move(command))
    , id_(randomId())
    , link_(std::move(socketPath))
{
}

int Relay::run()
{
    if (!start())
        return 127;
    loop();
    finish();
    if (WIFSIGNALED(status_)) {
        const int signal = WTERMSIG(status_);
        std::signal(signal, SIG_DFL);
        ::raise(signal);
        return 128 + signal;
    }
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : 1;
}

bool Relay::start()
{
    if (::pipe(signalPipe) != 0)
        return false;
    for (const int fd : signalPipe) {
        ::fcntl(fd, F_SETFD, FD_CLOEXEC);
        setNonBlocking(fd);
    }
    winsize size{};
    ::ioctl(STDIN_FILENO, TIOCGWINSZ, &size);
    ::tcgetattr(STDIN_FILENO, &saved_);

    child_ = ::forkpty(&master_, nullptr, &saved_, &size);
    if (child_ < 0) {
        std::perror("tidewatch-term: forkpty");
        return false;
    }
    if (child_ == 0) {
        ::setenv("TIDEWATCH_TERM", id_.c_str(), 1);
        std::vector<char*> argv;
        for (auto& word : command_)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        ::execvp(argv[0], argv.data());
        std::fprintf(stderr, "tidewatch-term: %s: %s\n", argv[0], std::strerror(errno));
        ::_exit(127);
    }
    ::fcntl(master_, F_SETFD, FD_CLOEXEC);
    setNonBlocking(master_);

    struct sigaction action {
    };
    action.sa_handler = noteSignal;
    sigemptyset(&action.sa_mask);
    for (const int signal : kRelayed)
        ::sigaction(signal, &action, nullptr);
    // A service that goes away mid-write must not end the person's session.
    std::signal(SIGPIPE, SIG_IGN);

    termios raw = saved_;
    ::cfmakeraw(&raw);
    raw_ = ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &raw) == 0;
    if (link_.tryConnect(std::chrono::steady_clock::now()))
        hello();
    return true;
}

void Relay::hello()
{
    winsize size{};
    ::ioctl(STDIN_FILENO, TIOCGWINSZ, &size);
    char cwd[4096] = "";
    if (::getcwd(cwd, sizeof cwd) == nullptr)
        cwd[0] = '\0';
    const char* tty = ::ttyname(STDIN_FILENO);
    const std::string json = "{\"v\":1,\"id\":\"" + id_ + "\",\"agent\":" + jsonString(agentName(command_.front()))
        + ",\"pid\":" + std::to_string(::getpid()) + ",\"child\":" + std::to_string(child_)
        + ",\"cwd\":" + jsonString(cwd) + ",\"tty\":" + jsonString(tty ? tty : "") + "," + sizeFields(size) + "}";
    link_.send(FrameKind::Hello, json);
    // What the screen showed before we met: the end of the output so far.
    const auto [older, newer] = tail_.parts();
    link_.sendOutput(older);
    link_.sendOutput(newer);
}

void Relay::loop()
{
    while (!exited_) {
        const auto now = std::chrono::steady_clock::now();
        if (link_.tryConnect(now))
            hello();
        link_.flushDue(now);
        std::array<pollfd, 4> fds{};
        fds[0] = {signalPipe[0], POLLIN, 0};
        fds[1] = {outputOpen_ ? master_ : -1, POLLIN, 0};
        fds[2] = {inputOpen_ ? STDIN_FILENO : -1, POLLIN, 0};
        fds[3] = {link_.fd(), static_cast<short>(POLLIN | (link_.wantsWrite() ? POLLOUT : 0)), 0};
        if (::poll(fds.data(), fds.size(), link_.msUntilDue(now)) < 0) {
            if (errno == EINTR)
                continue;
            break;
        }
        if (fds[0].revents & POLLIN) {
            unsigned char signal = 0;
            while (::read(signalPipe[0], &signal, 1) == 1)
                onSignal(signal);
        }
        if (fds[1].revents & (POLLIN | POLLHUP | POLLERR))
            pump(master_, STDOUT_FILENO, true);
        if (fds[2].revents & (POLLIN | POLLHUP | POLLERR))
            pump(STDIN_FILENO, master_, false);
        if (link_.connected() && (fds[3].revents & POLLOUT))
            link_.flush();
        if (link_.connected() && (fds[3].revents & (POLLIN | POLLHUP | POLLERR))) {
            std::string typed;
            link_.receive(typed);
            if (!typed.empty())
                writeAll(master_, typed.data(), typed.size());
        }
    }
}

std::size_t Relay::pump(int from, int to, bool mirror)
{
    char chunk[kChunk];
    std::size_t size = 0;
    // A terminal hands over a few kilobytes a read: gather what is there, so
    // that a flood of output costs one write on each side, not dozens.
    while (size < sizeof chunk) {
        const ssize_t got = ::read(from, chunk + size, sizeof chunk - size);
        if (got > 0) {
            size += static_cast<std::size_t>(got);
            if (!mirror)
                break;
            continue;
        }
        if (got < 0 && errno == EINTR)
            continue;
        if (got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) {
            if (from == STDIN_FILENO)
                inputOpen_ = false;
            else
                outputOpen_ = false; // the agent's side closed: its end is near, told by SIGCHLD
        }
        break;
    }
    if (size == 0)
        return 0;
    writeAll(to, chunk, size);
    if (!mirror)
        return size;
    link_.sendOutput(std::string_view(chunk, size));
    tail_.append(std::string_view(chunk, size));
    return size;
}

void Relay::onSignal(int signal)
{
    switch (signal) {
    case SIGWINCH:
        resize();
        break;
    case SIGCHLD:
        onChildChanged();
        break;
    case SIGCONT:
        break;
    default:
        // Asked of us, meant for the agent.
        ::kill(child_, signal);
        break;
    }
}

void Relay::resize()
{
    winsize size{};
    if (::ioctl(STDIN_FILENO, TIOCGWINSZ, &size) != 0)
        return;
    ::ioctl(master_, TIOCSWINSZ, &size);
    link_.send(FrameKind::Size, "{" + sizeFields(size) + "}");
}

void Relay::onChildChanged()
{
    int status = 0;
    const pid_t got = ::waitpid(child_, &status, WNOHANG | WUNTRACED);
    if (got != child_)
        return;
    if (WIFSTOPPED(status)) {
        suspend();
        return;
    }
    status_ = status;
    exited_ = true;
    // What it printed last is still in the terminal: pass it on.
    while (outputOpen_ && pump(master_, STDOUT_FILENO, true) > 0) { }
}

void Relay::suspend()
{
    // The agent stopped itself (Ctrl-Z): stop with it, so the shell's job
    // control sees us, and carry on together when the shell says so.
    if (raw_)
        ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved_);
    std::signal(SIGTSTP, SIG_DFL);
    ::kill(::getpid(), SIGTSTP);
    termios raw = saved_;
    ::cfmakeraw(&raw);
    raw_ = ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &raw) == 0;
    resize();
    ::kill(child_, SIGCONT);
}

void Relay::finish()
{
    if (raw_)
        ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved_);
    const int code = WIFEXITED(status_) ? WEXITSTATUS(status_) : 128 + WTERMSIG(status_);
    link_.send(FrameKind::Exit, "{\"status\":" + std::to_string(code) + "}");
    link_.drain(kExitDrain);
    link_.close();
    ::close(master_);
}

} // namespace term
