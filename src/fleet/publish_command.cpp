#include "publish_command.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <memory>
#include <ostream>
#include <span>
#include <utility>

#include "fleet_errors.h"
#include "journal.h"
#include "outgoing.h"
#include "printable.h"
#include "progress.h"
#include "publisher.h"
#include "revision_survey.h"

namespace kavel::fleet {

namespace {

std::string BoxesText(std::size_t count)
{
    return std::to_string(count) + (count == 1 ? " box" : " boxes");
}

std::optional<std::string> JournalName(const PublishOptions &options)
{
    if (options.journal || options.selection.list.empty() || options.selection.list == "-") {
        return options.journal;
    }
    return options.selection.list + ".journal";
}

// One run of the command, once its input is checked.
class Publishing {
  public:
    Publishing(const Console &console, const PublishOptions &options, std::vector<Outgoing> messages,
               std::vector<std::string> boxes)
        : console_(console), options_(options), messages_(std::move(messages)), boxes_(std::move(boxes)), left_(boxes_),
          progress_(console.err, console.errIsTerminal, boxes_.size())
    {
    }

    // Takes over what an interrupted command has done.
    void OpenJournal();
    int Run(const Settings &settings);

  private:
    void Survey();
    void BeginToPublish();
    void CheckRevision(const HighestRevision &highest) const;
    void OnBox(const std::string &box, const std::string &problem);
    [[nodiscard]] broker::Revision RevisionAbove(const HighestRevision &highest) const;
    [[nodiscard]] bool IsResumed() const { return journal_ && journal_->Earlier(); }
    [[nodiscard]] std::size_t Done() const { return boxes_.size() - left_.size() + published_; }
    void RunConnected();
    void TellInterruption() const;
    int Finish();

    const Console &console_;
    const PublishOptions &options_;
    const std::vector<Outgoing> messages_;
    const std::vector<std::string> boxes_;
    std::vector<std::string> left_; // of the boxes: those to which nothing was published before
    std::unique_ptr<Journal> journal_;
    ctl::Progress progress_;
    std::optional<Connection> connection_;
    std::optional<RevisionSurvey> survey_;
    std::optional<Publisher> publisher_;
    broker::Revision revision_ = 0; // 0: not known yet
    std::size_t published_ = 0;     // boxes, by this command
    std::size_t refused_ = 0;       // boxes, by the broker
};

void Publishing::OpenJournal()
{
    const std::optional<std::string> name = JournalName(options_);
    if (!name) {
        return;
    }
    journal_ =
        std::make_unique<Journal>(*name, JournalSubject{ContentHash(messages_), ListHash(boxes_)}, options_.revision);
    if (!IsResumed()) {
        return;
    }
    const auto &done = journal_->Earlier()->done;
    std::erase_if(left_, [&done](const std::string &box) { return done.contains(box); });
    Tell(console_, "resumed: " + std::to_string(boxes_.size() - left_.size()) + " of " + std::to_string(boxes_.size()) +
                       " were published before");
}

broker::Revision Publishing::RevisionAbove(const HighestRevision &highest) const
{
    if (IsResumed()) {
        return journal_->Earlier()->revision;
    }
    if (options_.revision) {
        return *options_.revision;
    }
    if (highest.revision == broker::kRevisionMax) {
        throw RefusedError(highest.box + ", vpn " + std::to_string(highest.vpn) +
                           ": has the highest revision that there is; nothing was published");
    }
    return highest.revision + 1;
}

// The same revision may be published again: an interrupted command has not noted it, or the broker has lost it.
void Publishing::CheckRevision(const HighestRevision &highest) const
{
    if (highest.revision > revision_) {
        throw RefusedError("revision " + std::to_string(revision_) + " is below " + std::to_string(highest.revision) +
                           ", which " + highest.box + " has for vpn " + std::to_string(highest.vpn) + "; nothing " +
                           (IsResumed() ? "more " : "") + "was published");
    }
}

void Publishing::Survey()
{
    std::vector<std::uint32_t> vpns;
    std::ranges::transform(messages_, std::back_inserter(vpns), &Outgoing::vpn);
    survey_.emplace(*connection_, left_, std::move(vpns), [this](const std::string &line) { Tell(console_, line); });
}

void Publishing::BeginToPublish()
{
    revision_ = RevisionAbove(survey_->Highest());
    CheckRevision(survey_->Highest());
    if (journal_) {
        journal_->Begin(revision_);
    }
    publisher_.emplace(*connection_, PublishPlan{left_, messages_, revision_, options_.perSecond},
                       [this](const std::string &box, const std::string &problem) { OnBox(box, problem); });
    publisher_->Pump();
}

void Publishing::OnBox(const std::string &box, const std::string &problem)
{
    if (!problem.empty()) {
        ++refused_;
        Tell(console_, box + ": refused by the broker: " + problem);
        return;
    }
    if (journal_) {
        journal_->Add(box);
    }
    ++published_;
    if (options_.selection.list.empty()) {
        console_.out << box << ": revision " << revision_ << " published" << std::endl;
    }
    progress_.Show(Done());
}

void Publishing::RunConnected()
{
    Survey();
    connection_->Run({.connected = [this] { publisher_ ? publisher_->Pump() : survey_->OnConnected(); },
                      .closed =
                          [this] {
                              if (publisher_) {
                                  publisher_->OnClosed();
                              }
                          },
                      .received =
                          [this](const broker::Message &message) {
                              if (!publisher_) {
                                  survey_->OnReceived(message);
                              }
                          },
                      .arrived =
                          [this] {
                              survey_->OnArrived();
                              if (survey_->IsDone()) {
                                  BeginToPublish();
                              }
                          },
                      .published =
                          [this](std::uint64_t publication, const std::string &problem) {
                              if (publisher_) {
                                  publisher_->OnPublished(publication, problem);
                              }
                          }},
                     [this] { return publisher_ && publisher_->IsDone(); });
}

void Publishing::TellInterruption() const
{
    const std::string count = std::to_string(Done()) + " of " + BoxesText(boxes_.size());
    if (revision_ == 0) {
        Tell(console_, "nothing was published" + std::string(IsResumed() ? " now" : ""));
    } else {
        Tell(console_, "revision " + std::to_string(revision_) + " is published to " + count +
                           (journal_ ? "; the same command goes on from there" : ""));
    }
}

int Publishing::Run(const Settings &settings)
{
    if (left_.empty()) {
        revision_ = journal_->Earlier()->revision;
        return Finish();
    }
    connection_.emplace(console_, settings, options_.patience);
    try {
        RunConnected();
    } catch (const RefusedError &) {
        throw;
    } catch (const std::exception &) {
        progress_.Clear();
        TellInterruption();
        throw;
    }
    return Finish();
}

int Publishing::Finish()
{
    progress_.Clear();
    if (!options_.selection.list.empty()) {
        console_.out << "revision " << revision_ << " is published to " << BoxesText(Done()) << std::endl;
    }
    if (refused_ > 0) {
        Tell(console_, "refused for " + BoxesText(refused_));
        return kBehind;
    }
    if (journal_) {
        journal_->Remove();
    }
    return kDone;
}

// The box knows afterwards that it has handled the revision, and nothing is in force.
void WarnOfForgotten(const Console &console, const std::vector<Outgoing> &messages)
{
    for (const Outgoing &message : messages) {
        if (message.isForgotten) {
            Tell(console, message.file +
                              ": without persistentflag a box does not store the message: after a restart of "
                              "the box the VPN has no service until a newer revision comes");
        }
    }
}

} // namespace

int Publish(const Console &console, const BrokerOptions &broker, const PublishOptions &options)
{
    bool isGood = true;
    std::vector<Outgoing> messages = LoadOutgoing(options.files, [&](const std::string &error) {
        isGood = false;
        Tell(console, error);
    });
    std::vector<std::string> boxes = SelectedBoxes(options.selection);
    if (boxes.empty()) {
        throw InputError("--box or --boxes is missing: to which boxes?");
    }
    const Settings settings = LoadSettings(broker);
    if (!isGood) {
        Tell(console, "nothing was published");
        return kBadInput;
    }
    WarnOfForgotten(console, messages);
    Publishing publishing(console, options, std::move(messages), std::move(boxes));
    publishing.OpenJournal();
    return publishing.Run(settings);
}

} // namespace kavel::fleet
