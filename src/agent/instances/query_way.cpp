#include "instances/query_way.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>

#include "printable.h"

namespace kavel::agent {
namespace {

using Words = std::vector<std::string>;

Words SplitBy(std::string_view text, std::string_view separators)
{
    Words words;
    while (!text.empty()) {
        const std::string_view word = text.substr(0, text.find_first_of(separators));
        if (!word.empty()) {
            words.emplace_back(word);
        }
        text.remove_prefix(std::min(word.size() + 1, text.size()));
    }
    return words;
}

std::string LowerCase(std::string text)
{
    std::ranges::transform(text, text.begin(), [](unsigned char letter) { return std::tolower(letter); });
    return text;
}

bool HasWord(const Words &words, const std::string &word)
{
    return std::ranges::any_of(words, [&](const std::string &one) { return LowerCase(one) == LowerCase(word); });
}

// "/etc/kavel/dnsmasq/vpn_7/hosts, line 1: 192.168.7.10 nas.branch.example"
std::string Place(const QueryFile &file, std::size_t index)
{
    return file.path + ", line " + std::to_string(index + 1) + ": " + Printable(file.lines[index]);
}

// The places of the lines that `isWanted` is true for.
template <typename IsWanted>
Words Places(const std::vector<QueryFile> &files, IsWanted isWanted)
{
    Words places;
    for (const QueryFile &file : files) {
        for (std::size_t i = 0; i < file.lines.size(); ++i) {
            if (isWanted(file, file.lines[i])) {
                places.push_back(Place(file, i));
            }
        }
    }
    return places;
}

bool IsBelow(const std::string &name, const std::string &domain)
{
    return name == domain || name.ends_with("." + domain);
}

constexpr std::string_view kServerKey = "server=";
constexpr std::string_view kNameserverKey = "nameserver ";

// A line "server=/DOMAIN/ADDRESS", "server=ADDRESS@INTERFACE" or "nameserver ADDRESS".
struct ServerLine {
    Words domains;
    std::string address;
};

std::optional<ServerLine> ReadServerLine(std::string_view line)
{
    if (line.starts_with(kNameserverKey)) {
        const Words words = SplitBy(line.substr(kNameserverKey.size()), " \t");
        return words.empty() ? std::nullopt : std::optional(ServerLine{{}, words.front()});
    }
    if (!line.starts_with(kServerKey)) {
        return std::nullopt;
    }
    Words parts = SplitBy(line.substr(kServerKey.size()), "/");
    if (parts.empty()) {
        return std::nullopt;
    }
    std::string address = parts.back().substr(0, parts.back().find('@'));
    constexpr std::string_view kPort = "#53"; // the usual port is not logged
    if (address.ends_with(kPort)) {
        address.resize(address.size() - kPort.size());
    }
    parts.pop_back();
    return ServerLine{std::move(parts), std::move(address)};
}

// The lines that make dnsmasq ask this server for this name: those for the name's domain, or else those for all names.
Words ServerPlaces(const std::vector<QueryFile> &files, const std::string &name, const std::string &address)
{
    const auto forDomain = [&](const QueryFile & /*file*/, const std::string &line) {
        const auto server = ReadServerLine(line);
        return server && server->address == address &&
               std::ranges::any_of(server->domains,
                                   [&](const std::string &one) { return IsBelow(LowerCase(name), LowerCase(one)); });
    };
    Words places = Places(files, forDomain);
    if (places.empty()) {
        // dnsmasq asks the servers of its configuration before those of a resolv file.
        for (const std::string_view key : {kServerKey, kNameserverKey}) {
            std::ranges::move(Places(files,
                                     [&](const QueryFile & /*file*/, const std::string &line) {
                                         const auto server = ReadServerLine(line);
                                         return server && server->address == address && server->domains.empty() &&
                                                line.starts_with(key);
                                     }),
                              std::back_inserter(places));
        }
    }
    return places;
}

// Makes steps of the lines of one query.
class WayReader {
  public:
    explicit WayReader(const std::vector<QueryFile> &files) : files_(files) {}

    void Add(const QueryLogLine &line)
    {
        const Words words = SplitBy(line.text, " ");
        constexpr std::size_t kPrefixWords = 2; // the number of the query, and the client
        const bool isOfQuery = words.size() > kPrefixWords && words[1].find('/') != std::string::npos &&
                               std::ranges::all_of(words.front(), [](unsigned char c) { return std::isdigit(c) != 0; });
        if (isOfQuery && !words[kPrefixWords].starts_with("query[")) {
            AddStep({words.begin() + kPrefixWords, words.end()}, line.after);
        }
    }

    Words Take() { return std::move(steps_); }

  private:
    void AddStep(const Words &words, std::chrono::milliseconds after)
    {
        constexpr std::size_t kSentence = 4; // "reply www.example is 192.0.2.1"
        const std::string what = words.size() == kSentence ? words.front() : "";
        if (what == "forwarded") {
            AddForward(words[1], words[3]);
        } else if (what == "reply") {
            const std::string reply = words[1] == "error" ? words[3] : words[1] + " is " + words[3];
            steps_.push_back("answered after " + std::to_string(after.count()) + " ms: " + reply);
        } else if (what.starts_with('/')) {
            AddPlaces(words, [&](const QueryFile &file, const std::string &line) {
                const Words parts = SplitBy(line, " \t");
                return file.path == what && HasWord(parts, words[1]) && HasWord(parts, words[3]);
            });
        } else if (what == "config") {
            AddPlaces(words, [&](const QueryFile & /*file*/, const std::string &line) {
                return line.find('=') != std::string::npos && HasWord(SplitBy(line, "=,/"), words[1]);
            });
        } else {
            steps_.push_back(Joined(words));
        }
    }

    // The same server may be named by several lines: dnsmasq asks it once for each.
    void AddForward(const std::string &name, const std::string &address)
    {
        const std::size_t before = asked_[address]++;
        const Words places = ServerPlaces(files_, name, address);
        const std::string place = places.empty() ? "" : " (" + places[std::min(before, places.size() - 1)] + ")";
        steps_.push_back("forwarded to " + Printable(address) + place);
    }

    template <typename IsWanted>
    void AddPlaces(const Words &words, IsWanted isWanted)
    {
        const Words places = Places(files_, isWanted);
        for (const std::string &place : places) {
            if (std::ranges::find(steps_, place) == steps_.end()) {
                steps_.push_back(place);
            }
        }
        if (places.empty()) {
            steps_.push_back(Joined(words));
        }
    }

    static std::string Joined(const Words &words)
    {
        std::string text;
        for (const std::string &word : words) {
            text += (text.empty() ? "" : " ") + word;
        }
        return Printable(text);
    }

    const std::vector<QueryFile> &files_;
    std::map<std::string, std::size_t> asked_;
    Words steps_;
};

} // namespace

std::vector<std::string> WayOfQuery(const std::vector<QueryLogLine> &log, const std::vector<QueryFile> &files)
{
    WayReader way(files);
    std::ranges::for_each(log, [&](const QueryLogLine &line) { way.Add(line); });
    return way.Take();
}

std::vector<QueryFile> ReadQueryFiles(const std::vector<std::string> &paths)
{
    std::vector<QueryFile> files;
    for (const std::string &path : paths) {
        QueryFile file{path, {}};
        std::ifstream stream(path);
        for (std::string line; std::getline(stream, line);) {
            file.lines.push_back(line);
        }
        files.push_back(std::move(file));
    }
    return files;
}

} // namespace kavel::agent
