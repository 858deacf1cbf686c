#include "status_command.h"

#include <algorithm>
#include <csignal>
#include <ostream>
#include <thread>
#include <unistd.h>
#include <vector>

#include "json_output.h"
#include "output.h"
#include "status_output.h"

namespace kavel::ctl {

namespace {

// Lines of the default table are not longer.
constexpr std::size_t kTableWidth = 80;

constexpr const char *kClear = "\033[H\033[2J";

// What the options ask for, checked before anything is sent.
struct Layout {
    FieldList columns;
    FieldList members; // of the JSON objects
    std::optional<StatusOrder> order;
};

Layout LayoutOf(const StatusOptions &options)
{
    Layout layout{DefaultFields(), AllFields(), std::nullopt};
    if (options.columns) {
        layout.columns = layout.members = FieldsNamed(*options.columns, "--columns");
    }
    if (options.sort) {
        layout.order = OrderNamed(*options.sort, "--sort");
    }
    return layout;
}

int PrintColumns(const Session &session)
{
    for (const StatusField *field : AllFields()) {
        if (session.json) {
            AddElement(ArrayOf(DocumentOf(session), "columns"), JsonText(std::string(field->name)));
        } else {
            session.out << field->name << '\n';
        }
    }
    return kDone;
}

std::vector<const VpnStatus *> Selected(StatusList all, const StatusOptions &options, const Layout &layout)
{
    std::vector<const VpnStatus *> vpns(all.begin(), all.end());
    if (options.problemsOnly) {
        std::erase_if(vpns, [](const VpnStatus *vpn) { return vpn->n_problems == 0; });
    }
    if (layout.order) {
        SortBy(vpns, *layout.order);
    }
    return vpns;
}

void PrintText(const Session &session, StatusList all, StatusList shown, const StatusOptions &options,
               const Layout &layout)
{
    const StatusView view{.now = Now(),
                          .withRevisions = options.vpn.has_value(),
                          .colour = session.colour,
                          .fields = layout.columns,
                          .widest = options.columns ? 0 : kTableWidth};
    const char *gap = "";
    const auto print = [&](const std::string &text) {
        session.out << (text.empty() ? "" : gap) << text;
        gap = text.empty() ? gap : "\n";
    };
    print(shown.empty() && options.problemsOnly ? "" : StatusTable(shown, view));
    print(StatusLines(shown, view));
    print(options.vpn ? "" : SummaryLine(all));
}

int ShowStatus(const Session &session, const StatusOptions &options, const Layout &layout)
{
    const ReplyPtr reply = ExchangeOne(session, NewRequest(KAVEL__REQUEST__VERB__STATUS, options.vpn), "status");
    const bool isStarting = reply->start != nullptr;
    if (isStarting && !session.json) {
        session.out << StartText(*reply->start);
    }
    if (reply->result < 0) {
        const int refused = ReportRefusal(session, options.vpn ? SubjectText(options.vpn) : "status", *reply);
        return isStarting ? kStarting : refused;
    }
    const StatusList all(reply->vpns, reply->n_vpns);
    const std::vector<const VpnStatus *> shown = Selected(all, options, layout);
    if (session.json) {
        AddStatus(DocumentOf(session), *reply, shown, layout.members);
    } else {
        PrintText(session, all, shown, options, layout);
    }
    if (isStarting) {
        return kStarting;
    }
    return AnyProblem(all) ? kRefused : kDone;
}

volatile std::sig_atomic_t lastCode = kNoAgent;

// A status changes nothing: it can be ended at any time.
void EndWatch(int)
{
    ::_exit(lastCode);
}

void EndWatchOn(int signal)
{
    struct sigaction action {};
    action.sa_handler = EndWatch;
    ::sigaction(signal, &action, nullptr);
}

// An agent that cannot be reached is reported and asked again: it may be restarting.
int WatchStatus(const Session &session, const StatusOptions &options, const Layout &layout)
{
    EndWatchOn(SIGINT);
    EndWatchOn(SIGTERM);
    for (bool isFirst = true; session.out; isFirst = false) {
        session.out << (options.isTerminal ? kClear : isFirst ? "" : "\n");
        lastCode = Run(session, [&] { return ShowStatus(session, options, layout); });
        std::this_thread::sleep_for(*options.watch);
    }
    return lastCode;
}

} // namespace

int Status(const Session &session, const StatusOptions &options)
{
    if (options.columns == "help") {
        return PrintColumns(session);
    }
    const Layout layout = LayoutOf(options);
    return options.watch ? WatchStatus(session, options, layout) : ShowStatus(session, options, layout);
}

} // namespace kavel::ctl
