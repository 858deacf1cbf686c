// Sizes of the fixed buffers, in bytes. If a text that the module formats does not fit, that is an error; it is not
// cut. Text that the module reads from /proc and from pid files is cut to its buffer.
#ifndef VQ_CTRL_ADVANCED_DNS_SIZES_H
#define VQ_CTRL_ADVANCED_DNS_SIZES_H

#include <cstddef>

// Paths below the configuration root and below /var/run.
inline constexpr std::size_t kPathSize = 512;
// Dotted IPv4 text: 15 characters and the terminator. The size 19 is passed to the host and must not change.
inline constexpr std::size_t kIpTextSize = 19;
// Contents of ServerMap.conf and resolv.conf: 8 servers need at most 312 and 216 characters.
inline constexpr std::size_t kServerFileSize = 1024;
// Content of the dnsmasq.conf of an instance.
inline constexpr std::size_t kDnsmasqConfSize = 1024;
// The launch command with its namespace prefix.
inline constexpr std::size_t kCommandSize = 512;
// The tag of an instance in its command line. VPN ids of eight digits and more do not fit.
inline constexpr std::size_t kProcessTagSize = 20;
// The part that is read of a pid file, of the command line of a process, and of a line in /proc/net/tcp. Lines of that
// table are longer; the rest of a line is read as a line of its own, which has no port in it.
inline constexpr std::size_t kPidTextSize = 32;
inline constexpr std::size_t kCmdlineSize = 512;
inline constexpr std::size_t kTcpLineSize = 100;
inline constexpr std::size_t kProcPathSize = 1024;

#endif
