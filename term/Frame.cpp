#include "Frame.h"

#include <cstdint>
#include <cstdio>

namespace term {

std::string encodeFrame(FrameKind kind, std::string_view payload)
{
    std::string frame(kHeaderBytes, static_cast<char>(kind));
    setFrameSize(frame.data(), payload.size());
    frame.append(payload);
    return frame;
}

void setFrameSize(char* header, std::size_t size)
{
    const auto length = static_cast<std::uint32_t>(size);
    for (std::size_t i = 1; i < kHeaderBytes; ++i)
        header[i] = static_cast<char>((length >> (8 * (kHeaderBytes - 1 - i))) & 0xFFU);
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
