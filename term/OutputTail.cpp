#include "OutputTail.h"

#include <algorithm>
#include <cstring>

namespace term {

void OutputTail::append(std::string_view bytes)
{
    // More than the ring holds: only its end can stay.
    if (bytes.size() > kBytes)
        bytes.remove_prefix(bytes.size() - kBytes);
    const std::size_t first = std::min(bytes.size(), kBytes - end_);
    std::memcpy(ring_.data() + end_, bytes.data(), first);
    std::memcpy(ring_.data(), bytes.data() + first, bytes.size() - first);
    full_ = full_ || end_ + bytes.size() >= kBytes;
    end_ = (end_ + bytes.size()) % kBytes;
}

std::pair<std::string_view, std::string_view> OutputTail::parts() const
{
    const std::string_view ring(ring_.data(), kBytes);
    if (!full_)
        return {ring.substr(0, end_), {}};
    return {ring.substr(end_), ring.substr(0, end_)};
}

} // namespace term
