// Frames of the control socket: header and limits. control.proto describes the protocol.
#ifndef KAVEL_CONTROL_FRAME_H
#define KAVEL_CONTROL_FRAME_H

#include <array>
#include <cstddef>
#include <cstdint>

namespace kavel::control {

inline constexpr std::size_t kFrameHeaderSize = 4;
inline constexpr std::size_t kFrameMax = std::size_t{16} * 1024 * 1024;
// Of a message in a request: the other fields need less than the rest of the frame.
inline constexpr std::size_t kMessageMax = kFrameMax - 4096;
inline constexpr const char *kDefaultSocket = "/run/kavel/agent.sock";

// The header of a frame of `length` bytes, at most kFrameMax.
inline std::array<std::uint8_t, kFrameHeaderSize> EncodeFrameLength(std::size_t length)
{
    return {static_cast<std::uint8_t>(length >> 24U), static_cast<std::uint8_t>(length >> 16U),
            static_cast<std::uint8_t>(length >> 8U), static_cast<std::uint8_t>(length)};
}

// The length in a frame's header of kFrameHeaderSize bytes. It may exceed kFrameMax: the caller must check.
inline std::size_t DecodeFrameLength(const std::uint8_t *header)
{
    return std::size_t{header[0]} << 24U | std::size_t{header[1]} << 16U | std::size_t{header[2]} << 8U |
           std::size_t{header[3]};
}

} // namespace kavel::control

#endif
