#include "bundle.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <ostream>
#include <span>
#include <string_view>
#include <sys/utsname.h>
#include <unistd.h>
#include <vector>

#include "bundle_archive.h"
#include "bundle_collector.h"
#include "bundle_content.h"
#include "bundle_redactor.h"
#include "errors.h"
#include "json_output.h"
#include "output.h"
#include "status_output.h"

namespace kavel::ctl {

namespace {

// "20260501T123000Z"
std::string UtcText(std::uint64_t time)
{
    const auto seconds = static_cast<std::time_t>(time);
    std::tm parts{};
    std::array<char, sizeof "20260501T123000Z "> text{};
    ::gmtime_r(&seconds, &parts);
    return {text.data(), std::strftime(text.data(), text.size(), "%Y%m%dT%H%M%SZ", &parts)};
}

utsname SystemNames()
{
    utsname names{};
    ::uname(&names);
    return names;
}

// As a part of a file's name.
std::string SafeHostName(const std::string &name)
{
    std::string safe = name.empty() ? "box" : name;
    std::ranges::replace_if(
        safe, [](char letter) { return std::string_view("/ \t\n").find(letter) != std::string_view::npos; }, '_');
    return safe;
}

std::string AboutText(const BundleOptions &options, const utsname &names, std::uint64_t time)
{
    return "vqctl " + options.version + "\ntime " + UtcText(time) + "\nhost " + names.nodename + "\nkernel " +
           names.sysname + ' ' + names.release + ' ' + names.version + ' ' + names.machine + "\nuser " +
           std::to_string(::geteuid()) + (options.redact ? "\nredacted\n" : "\n");
}

// The whole lines before the first character that a text does not have.
std::string TextPart(const std::string &content)
{
    const auto isBinary = [](unsigned char letter) {
        constexpr unsigned char kDelete = 0x7F;
        return (letter < ' ' && letter != '\n' && letter != '\t' && letter != '\r') || letter == kDelete;
    };
    const auto at = static_cast<std::size_t>(std::ranges::find_if(content, isBinary) - content.begin());
    const std::size_t end = at < content.size() ? content.rfind('\n', at) : at;
    return content.substr(0, end == std::string::npos ? 0 : std::min(content.size(), end + 1));
}

void LearnNames(Redactor &redactor, const BundleFile &file)
{
    const std::string_view name = file.name;
    if (name.ends_with("/hosts")) {
        redactor.LearnHosts(file.content);
    } else if (name.ends_with(".conf")) {
        redactor.LearnOptions(file.content);
    } else if (name.ends_with("/stored.json")) {
        redactor.LearnJson(file.content);
    }
}

void RedactFile(Redactor &redactor, BundleFile &file)
{
    if (file.isPublic) {
        return;
    }
    if (file.isOpaque) {
        file.content = "left out: it cannot be redacted\n";
        return;
    }
    std::string text = TextPart(file.content);
    const bool isCut = text.size() < file.content.size();
    file.name = redactor.Redact(file.name);
    file.content = redactor.Redact(text) + (isCut ? "(the rest is left out: it cannot be redacted)\n" : "");
}

void RedactAll(std::vector<BundleFile> &files, const std::string &host)
{
    Redactor redactor;
    redactor.Learn(host);
    redactor.Learn(host.substr(0, host.find('.')));
    std::ranges::for_each(files, [&](const BundleFile &file) { LearnNames(redactor, file); });
    std::ranges::for_each(files, [&](BundleFile &file) { RedactFile(redactor, file); });
}

void PrintOutcome(const Session &session, const BundleOptions &options, const std::string &path, std::size_t files,
                  std::uint64_t bytes, std::span<const std::string> notes)
{
    if (!session.json) {
        session.out << Printable(path) << ": " << Counted(files, "file") << ", " << MemoryText(bytes) << "; "
                    << (options.redact ? "names and addresses are replaced" : "it holds names, addresses and the log")
                    << '\n';
        if (!notes.empty()) {
            session.out << "notes.txt in it: what could not be collected (" << Counted(notes.size(), "line") << ")\n";
        }
        return;
    }
    const JsonPtr document = NewJsonDocument();
    AddMember(document.get(), "file", JsonText(path));
    AddMember(document.get(), "files", JsonNumber(files));
    AddMember(document.get(), "bytes", JsonNumber(bytes));
    AddMember(document.get(), "redacted", JsonBool(options.redact));
    JsonPtr lines = NewJsonArray();
    std::ranges::for_each(notes, [&](const std::string &note) { AddElement(lines.get(), JsonText(note)); });
    AddMember(document.get(), "notes", std::move(lines));
    session.out << JsonDocument(document.get());
}

} // namespace

int Bundle(const Session &session, const BundleOptions &options)
{
    const std::uint64_t time = Now();
    const utsname names = SystemNames();
    const std::string directory =
        "vqbundle-" + (options.redact ? std::string("redacted") : SafeHostName(names.nodename)) + "-" + UtcText(time);
    const std::string path = options.output.value_or(directory + ".tar.gz");
    try {
        CheckNewFile(path);
        BundleContent content;
        content.Add({"about.txt", AboutText(options, names, time)});
        const bool answers = CollectFromAgent(session, content);
        CollectFromBox({}, !answers, content);
        const std::vector<std::string> notes = content.Notes();
        std::vector<BundleFile> files = content.Take();
        if (options.redact) {
            RedactAll(files, names.nodename);
        }
        const std::uint64_t bytes = WriteArchive(path, directory, files, time);
        PrintOutcome(session, options, path, files.size(), bytes, notes);
    } catch (const InputError &error) {
        throw InputError(path + ": " + error.what());
    }
    return kDone;
}

} // namespace kavel::ctl
