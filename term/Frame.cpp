#include "Frame.h"

#include <cstdint>
#include <cstdio>

namespace term {

std::string encodeFrame(FrameKind kind, std::string_view payload)
{
    const auto size = static_cast<std::uint32_t>(payload.size());
    std::string frame;
    frame.reserve(kHeaderBytes + payload.size());
    frame.push_back(static_cast<char>(kind));
    for (int shift = 24; shift >= 0; shift -= 8)
        frame.push_back(static_cast<char>((size >> shift) & 0xFFU));
    frame.append(payload);
    return frame;
}

std::string jsonString(std::string_view text)
{
    std::string out = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out.push_back('\\');
            out.push_back(c);
        } else if (byte < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", byte);
            out.append(escaped);
        } else {
            out.push_back(c);
        }
    }
    out.push_back('"');
    return out;
}

FrameReader::Result FrameReader::next(Frame& out)
{
    if (buffer_.size() < kHeaderBytes)
        return Result::NeedMore;
    if (static_cast<FrameKind>(buffer_[0]) != FrameKind::Input)
        return Result::Broken;
    std::size_t size = 0;
    for (std::size_t i = 1; i < kHeaderBytes; ++i)
        size = (size << 8U) | static_cast<unsigned char>(buffer_[i]);
    if (size > kMaxPayload)
        return Result::Broken;
    if (buffer_.size() < kHeaderBytes + size)
        return Result::NeedMore;
    out.kind = FrameKind::Input;
    out.payload = buffer_.substr(kHeaderBytes, size);
    buffer_.erase(0, kHeaderBytes + size);
    return Result::Frame;
}

} // namespace term
