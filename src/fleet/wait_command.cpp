#include "wait_command.h"

#include <algorithm>
#include <ostream>
#include <utility>

#include "connection.h"
#include "fleet_errors.h"
#include "fleet_view.h"
#include "progress.h"
#include "rows.h"

namespace kavel::fleet {

namespace {

constexpr std::chrono::milliseconds kProgressInterval{200};

std::string MissingText(std::optional<broker::Revision> revision)
{
    return revision ? "revision " + std::to_string(*revision) + " is not published" : "nothing is published";
}

} // namespace

// What cannot be read counts, because its revision is not known.
bool WaitList::Counts(const VpnState &vpn) const
{
    return !vpn.wantedProblem.empty() || (vpn.wanted && *vpn.wanted >= revision_.value_or(0));
}

void WaitList::JudgeAll(const FleetState &state)
{
    behind_.clear();
    open_.clear();
    total_ = boxes_.empty() ? state.Boxes().size() : boxes_.size();
    for (const std::string &box : boxes_) {
        JudgeBox(state, box);
    }
    if (boxes_.empty()) {
        for (const auto &[name, box] : state.Boxes()) {
            JudgeBox(state, name);
        }
    }
}

void WaitList::JudgeBox(const FleetState &state, const std::string &box)
{
    const BoxState *const found = state.Find(box);
    bool isBehind = false;
    bool isOpen = false;
    bool hasAny = false;
    if (found != nullptr) {
        for (const auto &[number, vpn] : found->vpns) {
            const Standing standing = Judge(*found, vpn).standing;
            const bool counts = Counts(vpn);
            hasAny = hasAny || counts;
            isBehind = isBehind || (counts && IsBehind(standing));
            isOpen = isOpen || (counts && IsBehind(standing) && !IsFinal(standing));
        }
    }
    const bool isMissing = !hasAny && (!boxes_.empty() || revision_);
    const auto put = [&box](std::set<std::string> &set, bool isMember) {
        isMember ? (void)set.insert(box) : (void)set.erase(box);
    };
    put(behind_, isBehind || isMissing);
    put(open_, isOpen || isMissing);
}

std::vector<std::string> WaitList::ReasonsOf(const FleetState &state, const std::string &box) const
{
    const BoxState *const found = state.Find(box);
    if (found == nullptr) {
        return {box + ": " + MissingText(revision_)};
    }
    std::vector<std::string> reasons;
    for (const Row &row : RowsOf(box, *found, false)) {
        if (row.vpn && Counts(found->vpns.at(*row.vpn))) {
            reasons.push_back(LineOf(row));
        }
    }
    return reasons.empty() ? std::vector<std::string>{box + ": " + MissingText(revision_)} : reasons;
}

namespace {

class Waiting {
  public:
    Waiting(const Console &console, const Settings &settings, const WaitOptions &options,
            const std::vector<std::string> &boxes)
        : console_(console), connection_(console, settings, {.limit = options.timeout, .alsoAtStart = true}),
          view_(connection_, boxes,
                {.complete = [this] { list_.JudgeAll(view_.State()); },
                 .changed = [this](const std::string &box) { list_.JudgeBox(view_.State(), box); }}),
          list_(boxes, options.revision), timer_(connection_.Loop().AddTimer([this] { OnTimeout(); })),
          progressTimer_(connection_.Loop().AddTimer([this] { ShowProgress(); }))
    {
        const auto now = std::chrono::steady_clock::now();
        timer_.ArmTimer(now + options.timeout);
        progressTimer_.ArmTimer(now + kProgressInterval);
    }

    int Run()
    {
        view_.Run([this] { return isOver_ || (view_.IsComplete() && list_.IsDone()); });
        progress_.reset();
        return Report();
    }

  private:
    // What was known before the connection ended may have changed since.
    void OnTimeout()
    {
        if (!view_.IsComplete() || !connection_.IsConnected()) {
            throw BrokerError(connection_.SilenceText());
        }
        isOver_ = true;
    }

    void ShowProgress()
    {
        if (view_.IsComplete()) {
            if (!progress_) {
                progress_.emplace(console_.err, console_.errIsTerminal, list_.Total());
            }
            progress_->Show(list_.Total() - std::min(list_.Total(), list_.Behind().size()));
        }
        progressTimer_.ArmTimer(std::chrono::steady_clock::now() + kProgressInterval);
    }

    int Report()
    {
        if (list_.IsReached()) {
            console_.out << "all boxes are as wanted: " << list_.Total() << '\n';
            return kDone;
        }
        for (const std::string &box : list_.Behind()) {
            for (const std::string &line : list_.ReasonsOf(view_.State(), box)) {
                console_.out << line << '\n';
            }
        }
        console_.out << "behind: " << list_.Behind().size() << " of " << list_.Total() << '\n';
        return kBehind;
    }

    const Console &console_;
    Connection connection_;
    FleetView view_;
    WaitList list_;
    bool isOver_ = false;
    EventSource timer_;
    EventSource progressTimer_;
    std::optional<ctl::Progress> progress_;
};

} // namespace

int Wait(const Console &console, const BrokerOptions &broker, const WaitOptions &options)
{
    const std::vector<std::string> boxes = SelectedBoxes(options.selection);
    return Waiting(console, LoadSettings(broker), options, boxes).Run();
}

} // namespace kavel::fleet
