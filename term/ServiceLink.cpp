#include "ServiceLink.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace term {
namespace {

#ifdef MSG_NOSIGNAL
constexpr int kSendFlags = MSG_NOSIGNAL;
#else
constexpr int kSendFlags = 0; // SO_NOSIGPIPE is set on the socket instead
#endif

/// Between tries while the service is away.
constexpr std::chrono::seconds kRetryEvery{2};
/// Output queued for a service that doesn't read; beyond it the link is dropped.
constexpr std::size_t kMaxPending = 1024 * 1024;
/// Output is gathered into one frame for at most this long, or this much.
constexpr std::chrono::milliseconds kBatchFor{5};
constexpr std::size_t kBatchBytes = 64 * 1024;

std::string env(const char* name)
{
    const char* value = std::getenv(name);
    return value ? std::string(value) : std::string();
}

} // namespace

ServiceLink::ServiceLink(std::string socketPath)
    : path_(std::move(socketPath))
{
}

ServiceLink::~ServiceLink()
{
    close();
}

std::string ServiceLink::defaultSocketPath()
{
    // The same support folder the service itself uses, test copies included.
    std::string support = env("TIDEWATCH_SUPPORT");
    if (support.empty()) {
        const std::string home = env("HOME");
        if (home.empty())
            return {};
#ifdef __APPLE__
        support = home + "/Library/Application Support/Tidewatch";
#else
        const std::string data = env("XDG_DATA_HOME");
        support = (data.empty() ? home + "/.local/share" : data) + "/Tidewatch";
#endif
    }
    std::string path = support + "/terminals.sock";
    if (path.size() >= sizeof(sockaddr_un{}.sun_path))
        return {};
    return path;
}

bool ServiceLink::tryConnect(std::chrono::steady_clock::time_point now)
{
    if (connected() || path_.empty() || (lastTry_ != decltype(lastTry_){} && now - lastTry_ < kRetryEvery))
        return false;
    lastTry_ = now;
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0)
        return false;
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return false;
    }
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
#ifdef SO_NOSIGPIPE
    const int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
#endif
    fd_ = fd;
    pending_.clear();
    batchAt_ = kNoBatch;
    reader_ = FrameReader();
    return true;
}

int ServiceLink::msUntilDue(std::chrono::steady_clock::time_point now) const
{
    std::chrono::steady_clock::duration left = std::chrono::steady_clock::duration::max();
    if (batchAt_ != kNoBatch)
        left = batchDue_ - now;
    else if (!connected() && !path_.empty())
        left = lastTry_ + kRetryEvery - now;
    if (left == std::chrono::steady_clock::duration::max())
        return -1;
    // Rounded up, so that poll doesn't wake just before it is time.
    return static_cast<int>(std::max<long long>(0, std::chrono::ceil<std::chrono::milliseconds>(left).count()));
}

void ServiceLink::flushDue(std::chrono::steady_clock::time_point now)
{
    if (batchAt_ != kNoBatch && now >= batchDue_) {
        seal();
        flush();
    }
}

void ServiceLink::send(FrameKind kind, std::string_view payload)
{
    if (!connected())
        return;
    seal();
    while (payload.size() > kMaxPayload) {
        send(kind, payload.substr(0, kMaxPayload));
        payload.remove_prefix(kMaxPayload);
    }
    pending_ += encodeFrame(kind, payload);
    dropIfBehind();
    flush();
}

void ServiceLink::sendOutput(std::string_view bytes)
{
    while (connected() && !bytes.empty()) {
        if (batchAt_ == kNoBatch) {
            batchAt_ = pending_.size();
            batchDue_ = std::chrono::steady_clock::now() + kBatchFor;
            pending_ += encodeFrame(FrameKind::Output, {});
        }
        const std::size_t room = kBatchBytes - (pending_.size() - batchAt_ - kHeaderBytes);
        const std::size_t taken = std::min(room, bytes.size());
        pending_.append(bytes.substr(0, taken));
        bytes.remove_prefix(taken);
        if (taken == room) {
            seal();
            dropIfBehind();
            flush();
        }
    }
}

void ServiceLink::seal()
{
    if (batchAt_ == kNoBatch)
        return;
    setFrameSize(pending_.data() + batchAt_, pending_.size() - batchAt_ - kHeaderBytes);
    batchAt_ = kNoBatch;
}

void ServiceLink::dropIfBehind()
{
    // Never hold the person's terminal back for a slow reader.
    if (pending_.size() > kMaxPending)
        close();
}

void ServiceLink::flush()
{
    while (connected() && sealedBytes() > 0) {
        const ssize_t wrote = ::send(fd_, pending_.data(), sealedBytes(), kSendFlags);
        if (wrote > 0) {
            pending_.erase(0, static_cast<std::size_t>(wrote));
            if (batchAt_ != kNoBatch)
                batchAt_ -= static_cast<std::size_t>(wrote);
        } else if (wrote < 0 && errno == EINTR) {
            continue;
        } else {
            if (wrote < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
                return;
            close();
        }
    }
}

void ServiceLink::receive(std::string& typed)
{
    char chunk[16 * 1024];
    const ssize_t got = ::read(fd_, chunk, sizeof chunk);
    if (got < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (got <= 0) {
        close();
        return;
    }
    reader_.feed(std::string_view(chunk, static_cast<std::size_t>(got)));
    Frame frame;
    for (;;) {
        switch (reader_.next(frame)) {
        case FrameReader::Result::Frame:
            typed += frame.payload;
            continue;
        case FrameReader::Result::NeedMore:
            return;
        case FrameReader::Result::Broken:
            // Whatever speaks like this isn't the service: stop listening to it.
            close();
            return;
        }
    }
}

void ServiceLink::drain(std::chrono::milliseconds limit)
{
    seal();
    const auto until = std::chrono::steady_clock::now() + limit;
    while (connected() && !pending_.empty()) {
        const auto left
            = std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return;
        pollfd one{fd_, POLLOUT, 0};
        if (::poll(&one, 1, static_cast<int>(left.count())) <= 0)
            return;
        flush();
    }
}

void ServiceLink::close()
{
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
    pending_.clear();
    batchAt_ = kNoBatch;
}

} // namespace term
