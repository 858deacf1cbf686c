#include "fleet_samples.h"

#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <stdexcept>

#include "topics.h"

namespace kavel::fleet {

namespace {

broker::Message TextMessage(broker::TopicKind kind, const std::string &box, std::uint32_t vpn, const std::string &text)
{
    return {.topic = broker::TopicText({kind, box, vpn}), .payload = {text.begin(), text.end()}, .isRetained = true};
}

} // namespace

broker::Message Wanted(const std::string &box, std::uint32_t vpn, const std::string &revision)
{
    broker::Message message = TextMessage(broker::TopicKind::kDesired, box, vpn, "packed");
    message.properties = {{broker::kRevisionProperty, revision}, {broker::kPlatformProperty, "cpe"}};
    return message;
}

broker::Message ReportText(const std::string &box, std::uint32_t vpn, const std::string &text)
{
    return TextMessage(broker::TopicKind::kReported, box, vpn, text);
}

broker::Message Applied(const std::string &box, std::uint32_t vpn, broker::Revision revision)
{
    return ReportText(box, vpn,
                      broker::ReportText({.revision = revision,
                                          .result = broker::Result::kApplied,
                                          .reason = {},
                                          .time = 1780000000,
                                          .inForce = revision,
                                          .enabled = true,
                                          .running = true,
                                          .problem = {}}));
}

broker::Message Refused(const std::string &box, std::uint32_t vpn, broker::Revision revision, const std::string &reason)
{
    return ReportText(box, vpn,
                      broker::ReportText({.revision = revision,
                                          .result = broker::Result::kRefused,
                                          .reason = reason,
                                          .time = 1780000001,
                                          .inForce = revision - 1,
                                          .enabled = true,
                                          .running = true,
                                          .problem = {}}));
}

broker::Message Online(const std::string &box)
{
    return PresenceText(box, R"({"schema": 1, "online": true, "agent": true, "version": "0.1.0", "time": 1780000000})");
}

broker::Message Offline(const std::string &box)
{
    return PresenceText(box, R"({"schema": 1, "online": false})");
}

broker::Message PresenceText(const std::string &box, const std::string &text)
{
    return TextMessage(broker::TopicKind::kOnline, box, 0, text);
}

Verdict VerdictOf(const FleetState &state, const std::string &box, std::uint32_t vpn)
{
    const BoxState *const found = state.Find(box);
    if (found == nullptr || !found->vpns.contains(vpn)) {
        throw std::logic_error("nothing is known about " + box + ", vpn " + std::to_string(vpn));
    }
    return Judge(*found, found->vpns.at(vpn));
}

ScratchDir::ScratchDir()
{
    std::string name = testing::TempDir() + "fleet.XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("mkdtemp");
    }
    path_ = name;
}

ScratchDir::~ScratchDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string ScratchDir::Write(const std::string &name, const std::string &content) const
{
    std::ofstream(path_ / name) << content;
    return path_ / name;
}

std::string ContentOf(const std::string &file)
{
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

} // namespace kavel::fleet
