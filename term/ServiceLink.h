#pragma once

// The relay's side of the service's terminal channel: a Unix socket in the
// support folder that only this user can open. Nothing here ever blocks the
// person's terminal: writes are non-blocking, and a service that falls behind
// is dropped and met again later.

#include "Frame.h"

#include <chrono>
#include <string>
#include <string_view>

namespace term {

class ServiceLink
{
public:
    /// `socketPath` empty means there is nowhere to connect: the relay runs alone.
    explicit ServiceLink(std::string socketPath);
    ~ServiceLink();
    ServiceLink(const ServiceLink&) = delete;
    ServiceLink& operator=(const ServiceLink&) = delete;

    /// The socket in the support folder this user's service listens on, or
    /// empty when the path can't be told or is too long for a socket.
    static std::string defaultSocketPath();

    bool connected() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    bool wantsWrite() const { return !pending_.empty(); }

    /// Connects if the last try was long enough ago; true when it just did.
    bool tryConnect(std::chrono::steady_clock::time_point now);
    /// How long poll may sleep before the next try, in milliseconds; -1 forever.
    int msUntilTry(std::chrono::steady_clock::time_point now) const;

    void send(FrameKind kind, std::string_view payload);
    void flush();
    /// Reads what the service sent; bytes to type are appended to `typed`.
    void receive(std::string& typed);
    /// Sends what is queued, waiting at most `limit` for the socket.
    void drain(std::chrono::milliseconds limit);
    void close();

private:
    std::string path_;
    int fd_ = -1;
    std::string pending_;
    FrameReader reader_;
    std::chrono::steady_clock::time_point lastTry_{};
};

} // namespace term
