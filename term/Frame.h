#pragma once

// The channel between the relay and the service: frames of one kind byte, a
// four-byte big-endian length and that many bytes. No JSON parser is needed
// on this side: the relay only ever takes bytes to type.

#include <cstddef>
#include <string>
#include <string_view>

namespace term {

enum class FrameKind : char {
    Hello = 'H', ///< relay → service: JSON of who runs where
    Output = 'O', ///< relay → service: what the agent printed, as it printed it
    Size = 'W', ///< relay → service: JSON {cols, rows}
    Exit = 'X', ///< relay → service: JSON {status}
    Input = 'I', ///< service → relay: bytes to type into the agent's terminal
};

inline constexpr std::size_t kHeaderBytes = 5;
/// The largest payload either side sends or takes.
inline constexpr std::size_t kMaxPayload = 256 * 1024;

std::string encodeFrame(FrameKind kind, std::string_view payload);
/// Writes `size` into the length of the frame whose header starts at `header`.
void setFrameSize(char* header, std::size_t size);

/// A JSON string literal of `text`, quotes included; bytes above 0x7F pass as they are.
std::string jsonString(std::string_view text);

struct Frame {
    FrameKind kind = FrameKind::Input;
    std::string payload;
};

/// Cuts frames out of the bytes the service sends. Only `Input` frames are
/// taken; any other kind, or a length over the limit, breaks the channel.
class FrameReader
{
public:
    enum class Result { Frame, NeedMore, Broken };

    void feed(std::string_view bytes) { buffer_.append(bytes); }
    Result next(Frame& out);

private:
    std::string buffer_;
};

} // namespace term
