#include "watch_command.h"

#include <algorithm>
#include <iterator>
#include <ostream>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

#include "fleet_errors.h"
#include "fleet_view.h"

namespace kavel::fleet {

namespace {

using WatchClock = std::chrono::steady_clock;

constexpr std::chrono::seconds kTableInterval{1};
constexpr const char *kClearScreen = "\033[H\033[2J";

// The row of a VPN that is as wanted again; nothing if it is not known any more.
std::optional<Row> CurrentRow(const std::vector<Row> &rows, std::optional<std::uint32_t> vpn)
{
    const auto found = std::ranges::find(rows, vpn, &Row::vpn);
    return found != rows.end() ? std::optional(*found) : std::nullopt;
}

std::string GoneText(const Row &row)
{
    return (row.vpn ? row.box + " vpn " + std::to_string(*row.vpn) : row.box) + ": gone";
}

winsize TerminalSize()
{
    winsize size{};
    return ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 && size.ws_row > 0
               ? size
               : winsize{.ws_row = 24, .ws_col = 80, .ws_xpixel = 0, .ws_ypixel = 0};
}

} // namespace

std::vector<std::string> ShownRows::Update(const std::string &box, const BoxState *state)
{
    const std::vector<Row> everything = state != nullptr ? RowsOf(box, *state, true) : std::vector<Row>();
    std::vector<Row> now = state != nullptr ? RowsOf(box, *state, all_) : std::vector<Row>();
    const std::vector<Row> before = std::exchange(shown_[box], now);
    std::vector<std::string> lines;
    for (const Row &row : now) {
        if (std::ranges::find(before, row) == before.end()) {
            lines.push_back(LineOf(row));
        }
    }
    for (const Row &row : before) {
        if (!CurrentRow(now, row.vpn)) {
            const std::optional<Row> current = CurrentRow(everything, row.vpn);
            lines.push_back(current ? LineOf(*current) : GoneText(row));
        }
    }
    if (now.empty()) {
        shown_.erase(box);
    }
    return lines;
}

std::vector<std::string> ShownRows::UpdateAll(const FleetState &state)
{
    std::vector<std::string> lines;
    std::vector<std::string> gone;
    for (const auto &[name, rows] : shown_) {
        if (state.Find(name) == nullptr) {
            gone.push_back(name);
        }
    }
    for (const std::string &name : gone) {
        std::ranges::move(Update(name, nullptr), std::back_inserter(lines));
    }
    for (const auto &[name, box] : state.Boxes()) {
        std::ranges::move(Update(name, &box), std::back_inserter(lines));
    }
    return lines;
}

namespace {

class Watcher {
  public:
    Watcher(const Console &console, const Settings &settings, const WatchOptions &options,
            const std::vector<std::string> &boxes)
        : console_(console), options_(options), connection_(console, settings, options.patience), rows_(options.all),
          view_(connection_, boxes,
                {.complete = [this] { OnComplete(); }, .changed = [this](const std::string &box) { OnChange(box); }}),
          end_(connection_.Loop().AddTimer([this] { isOver_ = true; })),
          table_(connection_.Loop().AddTimer([this] { PrintScreen(); }))
    {
        if (options.duration) {
            end_.ArmTimer(WatchClock::now() + *options.duration);
        }
    }

    void Run()
    {
        view_.Run([this] { return isOver_; });
    }

  private:
    void OnComplete()
    {
        if (console_.outIsTerminal) {
            PrintScreen();
            return;
        }
        Print(rows_.UpdateAll(view_.State()));
        console_.out << SummaryOf(CountsOf(view_.State())) << std::endl;
        CountOutput();
    }

    void OnChange(const std::string &box)
    {
        if (!console_.outIsTerminal) {
            Print(rows_.Update(box, view_.State().Find(box)));
        } else if (!isTableDue_) {
            isTableDue_ = true;
            table_.ArmTimer(lastTable_ + kTableInterval);
        }
    }

    void Print(const std::vector<std::string> &lines)
    {
        for (const std::string &line : lines) {
            if (!isOver_) {
                console_.out << line << std::endl;
                CountOutput();
            }
        }
    }

    // As many rows as fit below each other.
    void PrintScreen()
    {
        isTableDue_ = false;
        lastTable_ = WatchClock::now();
        const winsize size = TerminalSize();
        const std::size_t fitting = std::max<std::size_t>(size.ws_row, 6) - 4;
        std::vector<Row> rows = RowsOf(view_.State(), options_.all);
        const std::size_t hidden = rows.size() - std::min(rows.size(), fitting);
        rows.resize(rows.size() - hidden);
        console_.out << kClearScreen;
        PrintTable(console_.out, rows, size.ws_col);
        console_.out << SummaryOf(CountsOf(view_.State()))
                     << (hidden > 0 ? "; " + std::to_string(hidden) + " more rows" : "") << std::endl;
        CountOutput();
    }

    void CountOutput()
    {
        ++outputs_;
        isOver_ = isOver_ || !console_.out || (options_.count && outputs_ >= *options_.count);
    }

    const Console &console_;
    const WatchOptions &options_;
    Connection connection_;
    ShownRows rows_;
    FleetView view_;
    EventSource end_;
    EventSource table_;
    WatchClock::time_point lastTable_;
    bool isTableDue_ = false;
    bool isOver_ = false;
    std::uint32_t outputs_ = 0;
};

} // namespace

int Watch(const Console &console, const BrokerOptions &broker, const WatchOptions &options)
{
    const std::vector<std::string> boxes = SelectedBoxes(options.selection);
    Watcher(console, LoadSettings(broker), options, boxes).Run();
    return kDone;
}

} // namespace kavel::fleet
