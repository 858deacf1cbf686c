// The one event loop of a program: signals, sockets, timers and file events. A thin layer over sd-event that takes C++
// callables and passes their exceptions on.
#ifndef KAVEL_COMMON_EVENT_LOOP_H
#define KAVEL_COMMON_EVENT_LOOP_H

#include <sys/inotify.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kavel {

class EventLoop;

// A registration with the loop. Destroying it ends the registration, also from its own handler.
class EventSource {
  public:
    EventSource() = default;
    explicit operator bool() const { return source_ != nullptr; }

    // For a source from AddIo: the epoll events that it waits for.
    void SetIoEvents(std::uint32_t events);
    // For a source from AddTimer: it fires once at `when`, and not before it is armed again.
    void ArmTimer(std::chrono::steady_clock::time_point when);
    // Any source. A deferred one runs once after it is enabled.
    void Enable();
    void Disable();

  private:
    friend class EventLoop;
    struct Handler;
    struct Unref {
        void operator()(sd_event_source *source) const { sd_event_source_disable_unref(source); }
    };

    // The handler is destroyed after the source that calls it.
    std::shared_ptr<Handler> handler_;
    std::unique_ptr<sd_event_source, Unref> source_;
};

// Signals are dispatched before other sources. The others take turns: none of them can starve another. Functions that
// register a source throw std::system_error. A handler may register and destroy sources; an exception
// that leaves it ends the loop and is thrown by Run() or RunUntil().
class EventLoop {
  public:
    using Clock = std::chrono::steady_clock;

    EventLoop();
    EventLoop(const EventLoop &) = delete;
    EventLoop &operator=(const EventLoop &) = delete;
    ~EventLoop() = default;

    // Calls `handler` with the epoll events that have occurred. `fd` stays the caller's and must outlive the source.
    [[nodiscard]] EventSource AddIo(int fd, std::uint32_t events, std::function<void(std::uint32_t events)> handler);
    // The signal must be blocked in the calling thread.
    [[nodiscard]] EventSource AddSignal(int signal, std::function<void()> handler);
    // The timer is disarmed.
    [[nodiscard]] EventSource AddTimer(std::function<void()> handler);
    // Watches a directory, with a mask of inotify(7). Nothing when the user has no inotify instance or watch left, or
    // when the directory does not exist.
    [[nodiscard]] std::optional<EventSource> AddInotify(const std::string &path, std::uint32_t mask,
                                                        std::function<void(const inotify_event &event)> handler);
    // Runs `handler` once in a later iteration, each time that it is enabled. It is disabled now.
    [[nodiscard]] EventSource AddDeferred(std::function<void()> handler);

    // Tells the service manager that the loop runs, as often as it wants to know. Nothing without such a manager.
    void SendWatchdog();

    // Dispatches until Exit() is called.
    void Run();
    // Dispatches until `isDone` is true, which is checked after each iteration. False when Exit() came first.
    [[nodiscard]] bool RunUntil(const std::function<bool()> &isDone);
    // Ends Run() or RunUntil(), the current one or the next.
    void Exit() { exits_ = true; }

    // The time without the time that handlers took: it stands still while a handler runs. A deadline of a peer in this
    // time is not shortened by the work that is done for other peers.
    [[nodiscard]] Clock::time_point IdleTime() const;

  private:
    friend struct EventSource::Handler;
    struct Unref {
        void operator()(sd_event *event) const { sd_event_unref(event); }
    };

    [[nodiscard]] std::shared_ptr<EventSource::Handler> NewHandler();
    // Runs `work` as a handler, and keeps what it throws for Run(). Returns 0 for sd-event.
    template <typename Work>
    int Dispatch(const Work &work);
    void RunOnce();

    std::unique_ptr<sd_event, Unref> event_;
    std::exception_ptr failure_;
    bool exits_ = false;
    Clock::duration busy_{};                     // the sum of the handlers' times
    std::optional<Clock::time_point> busySince_; // when the handler that runs now was called
};

} // namespace kavel

#endif
