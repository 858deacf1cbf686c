#include "instances/in_force.h"

#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>

#include "base/failure.h"
#include "base/files.h"
#include "base/log.h"

namespace kavel::agent {
namespace {

// The facts as lines, then the content: one file, so that the two are always of the same message.
constexpr std::string_view kKind = "inforce";
constexpr const char *kFirstLine = "kavel in force 1";
constexpr const char *kLastLine = "end";
constexpr char kMessageTag = 'M';
constexpr char kRecordTag = 'R';
constexpr mode_t kPrivate = 0600;

std::string TextOf(const InForce &facts)
{
    std::ostringstream text;
    text << kFirstLine << "\nenables " << facts.enables << "\nstored " << facts.isStored << "\n";
    if (facts.routes) {
        text << "routes " << *facts.routes << "\n";
    }
    if (facts.revision) {
        text << "revision " << *facts.revision << "\n";
    }
    for (const FileMark &mark : facts.files) {
        text << "file " << mark.inode << " " << mark.size << " " << mark.modified << " " << mark.changed << "\n";
    }
    text << kLastLine << "\n";
    return text.str();
}

// False for a line that is not known.
bool ReadFact(InForce &facts, const std::string &line)
{
    std::istringstream words(line);
    std::string name;
    words >> name;
    if (name == "enables") {
        words >> facts.enables;
    } else if (name == "stored") {
        words >> facts.isStored;
    } else if (name == "routes") {
        words >> facts.routes.emplace();
    } else if (name == "revision") {
        facts.revision = line.substr(line.find(' ') + 1);
        return true;
    } else if (name == "file") {
        FileMark &mark = facts.files.emplace_back();
        words >> mark.inode >> mark.size >> mark.modified >> mark.changed;
    } else {
        return false;
    }
    return !words.fail();
}

} // namespace

std::optional<InForce> InForceFiles::Read(std::uint32_t vpnId) const
{
    const std::string path = instances_.StatePath(vpnId, kKind);
    std::ifstream file(path, std::ios::binary);
    std::string line;
    if (!file || !std::getline(file, line)) {
        return std::nullopt;
    }
    InForce facts;
    bool isGood = line == kFirstLine;
    while (isGood && std::getline(file, line) && line != kLastLine) {
        isGood = ReadFact(facts, line);
    }
    if (!isGood || line != kLastLine) {
        Log(LogLevel::kWarning, "vpn %u: %s cannot be read: it is ignored", vpnId, path.c_str());
        return std::nullopt;
    }
    return facts;
}

InForceContent InForceFiles::ReadContent(std::uint32_t vpnId) const
{
    const std::string path = instances_.StatePath(vpnId, kKind);
    std::ifstream file(path, std::ios::binary);
    for (std::string line; std::getline(file, line) && line != kLastLine;) {
    }
    const int tag = file.get();
    if (!file || (tag != kMessageTag && tag != kRecordTag)) {
        ThrowErrno(ENOENT, path);
    }
    return {tag == kMessageTag, std::string(std::istreambuf_iterator<char>(file), {})};
}

void InForceFiles::Write(std::uint32_t vpnId, const InForce &facts, const InForceContent &content) const
{
    ReplaceFile(instances_.StatePath(vpnId, kKind),
                TextOf(facts) + (content.isMessage ? kMessageTag : kRecordTag) + content.bytes, kPrivate);
}

void InForceFiles::Remove(std::uint32_t vpnId) const
{
    const std::string path = instances_.StatePath(vpnId, kKind);
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        ThrowLastErrno(path);
    }
}

void InForceFiles::Write(std::uint32_t vpnId, const InForce &facts) const
{
    Write(vpnId, facts, ReadContent(vpnId));
}

} // namespace kavel::agent
