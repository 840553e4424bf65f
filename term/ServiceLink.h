#pragma once

// The relay's side of the service's terminal channel: a Unix socket in the
// support folder that only this user can open. Nothing here ever blocks the
// person's terminal: writes are non-blocking, and a service that falls behind
// is dropped and met again later. Output is gathered into frames of up to
// 64 KiB for a few milliseconds, so a flood costs the service few wakeups.

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
    bool wantsWrite() const { return sealedBytes() > 0; }

    /// Connects if the last try was long enough ago; true when it just did.
    bool tryConnect(std::chrono::steady_clock::time_point now);
    /// How long poll may sleep before the next try or the gathered output is
    /// due, in milliseconds; -1 forever.
    int msUntilDue(std::chrono::steady_clock::time_point now) const;
    /// Sends the gathered output once it has waited long enough.
    void flushDue(std::chrono::steady_clock::time_point now);

    /// Any frame but output: what was gathered goes first.
    void send(FrameKind kind, std::string_view payload);
    /// What the agent printed, gathered with what came just before it.
    void sendOutput(std::string_view bytes);
    void flush();
    /// Reads what the service sent; bytes to type are appended to `typed`.
    void receive(std::string& typed);
    /// Sends what is queued, waiting at most `limit` for the socket.
    void drain(std::chrono::milliseconds limit);
    void close();

private:
    static constexpr std::size_t kNoBatch = std::string::npos;

    /// Ends the output frame being gathered, so that it may be sent.
    void seal();
    std::size_t sealedBytes() const { return batchAt_ == kNoBatch ? pending_.size() : batchAt_; }
    void dropIfBehind();

    std::string path_;
    int fd_ = -1;
    /// Whole frames to send, then the output frame being gathered, if any.
    std::string pending_;
    /// Where the output frame being gathered starts in `pending_`.
    std::size_t batchAt_ = kNoBatch;
    std::chrono::steady_clock::time_point batchDue_{};
    FrameReader reader_;
    std::chrono::steady_clock::time_point lastTry_{};
};

} // namespace term
