#include "event_loop.h"

#include <cerrno>
#include <utility>

#include "failure.h"

namespace kavel {
namespace {

// Timers fire at most this much late.
constexpr std::chrono::microseconds kTimerAccuracy{1000};

void Check(int result, const char *what)
{
    if (result < 0) {
        ThrowErrno(-result, what);
    }
}

std::uint64_t Microseconds(std::chrono::steady_clock::time_point when)
{
    const auto since = std::chrono::ceil<std::chrono::microseconds>(when.time_since_epoch()).count();
    return static_cast<std::uint64_t>(since > 0 ? since : 0);
}

} // namespace

// What sd-event hands back to a callback. A handler may destroy its own source: the callback keeps this object.
struct EventSource::Handler : std::enable_shared_from_this<Handler> {
    explicit Handler(EventLoop &owner) : loop(owner) {}

    static int OnIo(sd_event_source * /*source*/, int /*fd*/, std::uint32_t events, void *self)
    {
        const auto handler = static_cast<Handler *>(self)->shared_from_this();
        return handler->loop.Dispatch([&] { handler->onIo(events); });
    }
    static int OnSignal(sd_event_source * /*source*/, const signalfd_siginfo * /*info*/, void *self)
    {
        return OnEvent(self);
    }
    static int OnTimer(sd_event_source * /*source*/, std::uint64_t /*microseconds*/, void *self)
    {
        return OnEvent(self);
    }
    static int OnInotify(sd_event_source * /*source*/, const inotify_event *event, void *self)
    {
        const auto handler = static_cast<Handler *>(self)->shared_from_this();
        return handler->loop.Dispatch([&] { handler->onInotify(*event); });
    }

    EventLoop &loop;
    std::function<void(std::uint32_t)> onIo;
    std::function<void(const inotify_event &)> onInotify;
    std::function<void()> onEvent;
    bool runsOnce = false; // of a timer

  private:
    static int OnEvent(void *self)
    {
        const auto handler = static_cast<Handler *>(self)->shared_from_this();
        return handler->loop.Dispatch([&] { handler->onEvent(); });
    }
};

void EventSource::SetIoEvents(std::uint32_t events)
{
    Check(sd_event_source_set_io_events(source_.get(), events), "event source");
}

void EventSource::ArmTimer(std::chrono::steady_clock::time_point when)
{
    Check(sd_event_source_set_time(source_.get(), Microseconds(when)), "timer");
    Enable();
}

void EventSource::Enable()
{
    Check(sd_event_source_set_enabled(source_.get(), handler_->runsOnce ? SD_EVENT_ONESHOT : SD_EVENT_ON),
          "event source");
}

void EventSource::Disable()
{
    Check(sd_event_source_set_enabled(source_.get(), SD_EVENT_OFF), "event source");
}

EventLoop::EventLoop()
{
    sd_event *event = nullptr;
    Check(sd_event_new(&event), "event loop");
    event_.reset(event);
}

std::shared_ptr<EventSource::Handler> EventLoop::NewHandler()
{
    return std::make_shared<EventSource::Handler>(*this);
}

EventSource EventLoop::AddIo(int fd, std::uint32_t events, std::function<void(std::uint32_t events)> handler)
{
    EventSource added;
    added.handler_ = NewHandler();
    added.handler_->onIo = std::move(handler);
    sd_event_source *source = nullptr;
    Check(sd_event_add_io(event_.get(), &source, fd, events, EventSource::Handler::OnIo, added.handler_.get()),
          "event source");
    added.source_.reset(source);
    return added;
}

EventSource EventLoop::AddSignal(int signal, std::function<void()> handler)
{
    EventSource added;
    added.handler_ = NewHandler();
    added.handler_->onEvent = std::move(handler);
    sd_event_source *source = nullptr;
    Check(sd_event_add_signal(event_.get(), &source, signal, EventSource::Handler::OnSignal, added.handler_.get()),
          "signal");
    added.source_.reset(source);
    Check(sd_event_source_set_priority(source, SD_EVENT_PRIORITY_IMPORTANT), "signal");
    return added;
}

EventSource EventLoop::AddTimer(std::function<void()> handler)
{
    EventSource added;
    added.handler_ = NewHandler();
    added.handler_->onEvent = std::move(handler);
    sd_event_source *source = nullptr;
    Check(sd_event_add_time(event_.get(), &source, CLOCK_MONOTONIC, 0,
                            static_cast<std::uint64_t>(kTimerAccuracy.count()), EventSource::Handler::OnTimer,
                            added.handler_.get()),
          "timer");
    added.source_.reset(source);
    added.handler_->runsOnce = true;
    added.Disable();
    return added;
}

std::optional<EventSource> EventLoop::AddInotify(const std::string &path, std::uint32_t mask,
                                                 std::function<void(const inotify_event &event)> handler)
{
    EventSource added;
    added.handler_ = NewHandler();
    added.handler_->onInotify = std::move(handler);
    sd_event_source *source = nullptr;
    if (sd_event_add_inotify(event_.get(), &source, path.c_str(), mask, EventSource::Handler::OnInotify,
                             added.handler_.get()) < 0) {
        return std::nullopt;
    }
    added.source_.reset(source);
    return added;
}

// A timer whose time has passed. sd-event's own deferred sources are always dispatched before the others of their
// priority: one that enables itself again would starve them.
EventSource EventLoop::AddDeferred(std::function<void()> handler)
{
    return AddTimer(std::move(handler));
}

template <typename Work>
int EventLoop::Dispatch(const Work &work)
{
    busySince_ = Clock::now();
    try {
        work();
    } catch (...) {
        failure_ = std::current_exception();
    }
    busy_ += Clock::now() - *busySince_;
    busySince_.reset();
    return 0;
}

void EventLoop::RunOnce()
{
    Check(sd_event_run(event_.get(), UINT64_MAX), "event loop");
    if (failure_) {
        std::rethrow_exception(std::exchange(failure_, nullptr));
    }
}

void EventLoop::SendWatchdog()
{
    (void)sd_event_set_watchdog(event_.get(), 1);
}

void EventLoop::Run()
{
    (void)RunUntil([] { return false; });
}

bool EventLoop::RunUntil(const std::function<bool()> &isDone)
{
    while (!isDone()) {
        if (exits_) {
            return false;
        }
        RunOnce();
    }
    return true;
}

EventLoop::Clock::time_point EventLoop::IdleTime() const
{
    return busySince_.value_or(Clock::now()) - busy_;
}

} // namespace kavel
