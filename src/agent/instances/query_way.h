// The way of a query, from the log of the dnsmasq that has answered it.
#ifndef KAVEL_AGENT_QUERY_WAY_H
#define KAVEL_AGENT_QUERY_WAY_H

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

namespace kavel::agent {

// A line that dnsmasq has logged, without its prefix, and when, since the question was sent.
struct QueryLogLine {
    std::string text; // "1 127.0.0.1/4711 forwarded www.example to 192.0.2.53"
    std::chrono::milliseconds after{0};
};

// A file that the instance reads.
struct QueryFile {
    std::string path;
    std::vector<std::string> lines;
};

// The steps that led to the answer, one line each: the lines of files that it is from, the servers that were asked with
// the lines that name them, and when a server has answered. A step that is not known is as dnsmasq has logged it.
[[nodiscard]] std::vector<std::string> WayOfQuery(const std::vector<QueryLogLine> &log,
                                                  const std::vector<QueryFile> &files);

// The files at these paths; one that cannot be read has no lines.
[[nodiscard]] std::vector<QueryFile> ReadQueryFiles(const std::vector<std::string> &paths);

} // namespace kavel::agent

#endif
