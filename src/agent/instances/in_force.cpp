#include "instances/in_force.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>
#include <utility>

#include "base/files.h"
#include "failure.h"
#include "log.h"

namespace kavel::agent {
namespace {

// The facts as lines, then the content: one file, so that the two are always of the same message.
constexpr std::string_view kKind = "inforce";
constexpr std::string_view kBeforeKind = "unconfirmed"; // empty: nothing was in force
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
    if (facts.confirmation) {
        text << "confirm " << facts.confirmation->deadline << " " << facts.confirmation->seconds << "\n";
    }
    for (const FileMark &mark : facts.files) {
        text << "file " << mark.inode << " " << mark.size << " " << mark.modified << " " << mark.changed << "\n";
    }
    text << kLastLine << "\n";
    return text.str();
}

std::string FileText(const InForce &facts, const InForceContent &content)
{
    return TextOf(facts) + (content.isMessage ? kMessageTag : kRecordTag) + content.bytes;
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
    } else if (name == "confirm") {
        AwaitedConfirmation &awaited = facts.confirmation.emplace();
        words >> awaited.deadline >> awaited.seconds;
    } else if (name == "file") {
        FileMark &mark = facts.files.emplace_back();
        words >> mark.inode >> mark.size >> mark.modified >> mark.changed;
    } else {
        return false;
    }
    return !words.fail();
}

// Nothing if the file does not exist; also if it cannot be read, which is logged.
std::optional<InForce> ReadFacts(std::uint32_t vpnId, const std::string &path)
{
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

InForceContent ReadContentOf(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    for (std::string line; std::getline(file, line) && line != kLastLine;) {
    }
    const int tag = file.get();
    if (!file || (tag != kMessageTag && tag != kRecordTag)) {
        ThrowErrno(ENOENT, path);
    }
    return {tag == kMessageTag, std::string(std::istreambuf_iterator<char>(file), {})};
}

void RemoveFile(const std::string &path)
{
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        ThrowLastErrno(path);
    }
}

} // namespace

std::optional<InForce> InForceFiles::Read(std::uint32_t vpnId) const
{
    return ReadFacts(vpnId, instances_.StatePath(vpnId, kKind));
}

InForceContent InForceFiles::ReadContent(std::uint32_t vpnId) const
{
    return ReadContentOf(instances_.StatePath(vpnId, kKind));
}

void InForceFiles::Write(std::uint32_t vpnId, const InForce &facts, const InForceContent &content) const
{
    ReplaceFile(instances_.StatePath(vpnId, kKind), FileText(facts, content), kPrivate);
}

void InForceFiles::Remove(std::uint32_t vpnId) const
{
    RemoveFile(instances_.StatePath(vpnId, kKind));
    ForgetBefore(vpnId);
}

void InForceFiles::KeepBefore(std::uint32_t vpnId) const
{
    const std::string path = instances_.StatePath(vpnId, kKind);
    std::string text;
    if (IdentityOfFile(path).inode != 0) {
        const InForceContent content = ReadContentOf(path);
        const auto facts = ReadFacts(vpnId, path);
        if (!facts) {
            ThrowErrno(EINVAL, path);
        }
        text = FileText(*facts, content);
    }
    ReplaceFile(instances_.StatePath(vpnId, kBeforeKind), text, kPrivate);
}

std::optional<BeforeUnconfirmed> InForceFiles::ReadBefore(std::uint32_t vpnId) const
{
    const std::string path = instances_.StatePath(vpnId, kBeforeKind);
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        ThrowLastErrno(path);
    }
    if (info.st_size == 0) {
        return std::nullopt;
    }
    auto facts = ReadFacts(vpnId, path);
    if (!facts) {
        ThrowErrno(EINVAL, path);
    }
    return BeforeUnconfirmed{*std::move(facts), ReadContentOf(path)};
}

void InForceFiles::ForgetBefore(std::uint32_t vpnId) const
{
    RemoveFile(instances_.StatePath(vpnId, kBeforeKind));
}

void InForceFiles::Write(std::uint32_t vpnId, const InForce &facts) const
{
    Write(vpnId, facts, ReadContent(vpnId));
}

} // namespace kavel::agent
