// A box's link with its connections: the broker's, the agent's, and the time.
#ifndef KAVEL_LINK_BOX_LINK_H
#define KAVEL_LINK_BOX_LINK_H

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "event_loop.h"
#include "link.h"
#include "ports.h"
#include "session.h"

namespace kavel::link {

class BoxLink {
  public:
    struct Options {
        std::string box; // its name
        std::string version;
        broker::Endpoint broker;
    };

    // `onState`, which may be empty, is given Link::StateText() when it has changed. `loop` must outlive this object.
    // Nothing happens before Start(). Throws broker::SessionError.
    BoxLink(EventLoop &loop, const Options &options, std::unique_ptr<AgentPort> agent,
            std::function<void(const std::string &state)> onState = {});

    void Start();
    // Says goodbye at the broker. `onDone` is called in the loop, after 4 s at the latest.
    void Stop(std::function<void()> onDone);

  private:
    // The session as the link needs it.
    class SessionPort : public BrokerPort {
      public:
        explicit SessionPort(broker::Session &session) : session_(session) {}
        [[nodiscard]] std::optional<std::uint64_t> Publish(const broker::Message &message) override
        {
            return session_.Publish(message);
        }
        void AskAgain(const std::string &topic) override;

      private:
        broker::Session &session_;
    };

    // An event of a connection, and what follows from it.
    template <typename... Argument>
    std::function<void(Argument...)> Event(void (Link::*handle)(Argument...));
    [[nodiscard]] broker::Session::Events SessionEvents();
    void AfterEvent();
    void StopSession();

    std::unique_ptr<AgentPort> agent_;
    std::function<void(const std::string &state)> onState_;
    broker::Session session_;
    SessionPort port_{session_};
    Link link_;
    std::string state_;
    EventSource timer_;
    EventSource stopTimer_;
    std::function<void()> onStopped_;
    bool isStoppingSession_ = false;
};

} // namespace kavel::link

#endif
