// Sizes of the module's fixed buffers. Text that does not fit one is an error and never cut.
#ifndef VQ_CTRL_ADVANCED_DNS_SIZES_H
#define VQ_CTRL_ADVANCED_DNS_SIZES_H

#include <cstddef>

// Every path below the configuration root and /var/run.
inline constexpr std::size_t kPathSize = 512;
// Dotted IPv4 text: 15 characters and the terminator, with the slack that the host's conversion is promised.
inline constexpr std::size_t kIpTextSize = 19;
// ServerMap.conf and resolv.conf: 8 servers need 312 and 216 characters.
inline constexpr std::size_t kServerFileSize = 1024;
// dnsmasq.conf of an instance.
inline constexpr std::size_t kDnsmasqConfSize = 1024;
// The launch command with its namespace prefix.
inline constexpr std::size_t kCommandSize = 512;
// The tag of an instance in its command line; ids of eight digits and more do not fit.
inline constexpr std::size_t kProcessTagSize = 20;
// What is read of a pid file, of a process's command line, and of a line in /proc/net/tcp (which is longer: the rest
// comes as a line of its own, without a port in it).
inline constexpr std::size_t kPidTextSize = 32;
inline constexpr std::size_t kCmdlineSize = 512;
inline constexpr std::size_t kTcpLineSize = 100;
inline constexpr std::size_t kProcPathSize = 1024;

#endif
