#include "console.h"

#include <exception>
#include <ostream>
#include <utility>

#include "fleet_errors.h"
#include "json_writer.h"
#include "printable.h"
#include "session.h"

namespace kavel::fleet {

namespace {

constexpr int kSignalBase = 128; // as shells count

int ReportError(const Console &console, const std::exception &error, int code)
{
    console.out.flush();
    Tell(console, error.what());
    if (console.json) {
        const JsonPtr document = NewJsonDocument();
        JsonPtr member = NewJsonObject();
        AddMember(member.get(), "exit", JsonNumber(code));
        AddMember(member.get(), "text", JsonText(error.what()));
        AddMember(document.get(), "error", std::move(member));
        console.out << JsonDocument(document.get());
    }
    return code;
}

int RunCommand(const Console &console, const std::function<int()> &command)
{
    try {
        return command();
    } catch (const InputError &error) {
        return ReportError(console, error, kBadInput);
    } catch (const broker::SessionError &error) {
        return ReportError(console, error, kBadInput);
    } catch (const RefusedError &error) {
        return ReportError(console, error, kBehind);
    } catch (const BrokerError &error) {
        return ReportError(console, error, kNoBroker);
    } catch (const Interrupted &error) {
        return ReportError(console, error, kSignalBase + error.Signal());
    }
}

} // namespace

void Tell(const Console &console, const std::string &text)
{
    constexpr const char *kEraseLine = "\r\033[K";
    console.err << (console.errIsTerminal ? kEraseLine : "") << "vqfleet: " << Printable(text) << std::endl;
}

int Run(const Console &console, const std::function<int()> &command)
{
    const int code = RunCommand(console, command);
    if (!console.out.flush()) {
        Tell(console, "standard output: cannot be written");
        return kBadInput;
    }
    return code;
}

} // namespace kavel::fleet
