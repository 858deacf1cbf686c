// What the box has to say at the broker: per topic the newest text, and one publication of it at a time.
#ifndef KAVEL_LINK_REPORT_QUEUE_H
#define KAVEL_LINK_REPORT_QUEUE_H

#include <cstdint>
#include <map>
#include <string>

#include "ports.h"

namespace kavel::link {

class ReportQueue {
  public:
    // `broker` must outlive this object.
    explicit ReportQueue(BrokerPort &broker) : broker_(broker) {}

    // The text for the topic from now on. Publishes it, unless it is what the topic has, or as soon as the broker has
    // acknowledged the one before.
    void Put(const std::string &topic, const std::string &text);

    // There is a connection, a new one: all texts are published.
    void Connected();
    // There is none any more, or none could be made.
    void Closed();
    // The broker has acknowledged a publication, or refused it: `problem` is not empty then.
    void Published(std::uint64_t publication, const std::string &problem);
    // Publishes once more what the broker has refused.
    void TryRefusedAgain();

    // Whether the broker has the newest text of the topic.
    [[nodiscard]] bool IsPublished(const std::string &topic) const;

  private:
    struct Entry {
        std::string text;
        bool isDue = false;
        bool isUnderWay = false;
        bool isRefused = false;
    };
    using Entries = std::map<std::string, Entry>;

    void Publish(Entries::iterator position);

    BrokerPort &broker_;
    Entries entries_; // by topic
    std::map<std::uint64_t, Entries::iterator> underWay_;
};

} // namespace kavel::link

#endif
