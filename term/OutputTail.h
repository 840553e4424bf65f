#pragma once

// The end of the agent's output, so that a service met later sees the screen.
// A ring of fixed size: keeping it costs one copy of each byte, never a move.

#include <array>
#include <cstddef>
#include <string_view>
#include <utility>

namespace term {

class OutputTail
{
public:
    static constexpr std::size_t kBytes = 64 * 1024;

    void append(std::string_view bytes);
    /// The bytes kept, oldest first: the ring's two parts, either may be empty.
    std::pair<std::string_view, std::string_view> parts() const;

private:
    std::array<char, kBytes> ring_{};
    /// Where the next byte goes.
    std::size_t end_ = 0;
    bool full_ = false;
};

} // namespace term
