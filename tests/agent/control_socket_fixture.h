// A control socket, its clients, and a handler that notes the requests.
#ifndef KAVEL_TESTS_AGENT_CONTROL_SOCKET_FIXTURE_H
#define KAVEL_TESTS_AGENT_CONTROL_SOCKET_FIXTURE_H

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "frame.h"
#include "socket/control_socket.h"
#include "test_box.h"

namespace kavel::agent {

// A client that never blocks: the loop of the test runs both ends.
class TestClient {
  public:
    explicit TestClient(const std::string &path)
        : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(::connect(socket_.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    }

    void Send(const Bytes &bytes) const
    {
        EXPECT_EQ(::send(socket_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }

    // A request of one byte, which says which one it is.
    void SendRequest(std::uint8_t mark) const { Send(FrameOf({mark})); }

    // The results of the replies that have come so far, in their order.
    const std::vector<std::int32_t> &Results()
    {
        Read();
        while (bytes_.size() >= control::kFrameHeaderSize) {
            const std::size_t end = control::kFrameHeaderSize + control::DecodeFrameLength(bytes_.data());
            if (bytes_.size() < end) {
                break;
            }
            Kavel__Reply *const reply =
                kavel__reply__unpack(nullptr, end - control::kFrameHeaderSize, &bytes_[control::kFrameHeaderSize]);
            if (reply == nullptr) {
                ADD_FAILURE() << "not a reply";
                break;
            }
            results_.push_back(reply->result);
            text_ = reply->text != nullptr ? reply->text : "";
            kavel__reply__free_unpacked(reply, nullptr);
            bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(end));
        }
        return results_;
    }

    // Of the last reply.
    [[nodiscard]] const std::string &Text() const { return text_; }

    bool HasEnded()
    {
        Read();
        return hasEnded_;
    }

    void EndSending() const { ::shutdown(socket_.Get(), SHUT_WR); }

  private:
    void Read()
    {
        std::array<std::uint8_t, 65536> bytes{};
        ssize_t size = 0;
        while ((size = ::recv(socket_.Get(), bytes.data(), bytes.size(), 0)) > 0) {
            bytes_.insert(bytes_.end(), bytes.begin(), bytes.begin() + size);
        }
        hasEnded_ = hasEnded_ || size == 0 || errno != EAGAIN;
    }

    UniqueFd socket_;
    Bytes bytes_;
    std::vector<std::int32_t> results_;
    std::string text_;
    bool hasEnded_ = false;
};

// A socket whose handler notes the requests. It answers each with its mark, at once or when the test says so.
class ControlSocketTest : public testing::Test {
  protected:
    struct Request {
        std::uint8_t mark;
        Respond respond;
    };

    ControlSocketTest() : socket_(std::make_unique<ControlSocket>(loop_, path_, Handler())) {}

    ControlSocket::Handler Handler()
    {
        return [this](const ReceivedFrame &frame, const Respond &respond) {
            const std::uint8_t mark = frame.Content().empty() ? std::uint8_t{0} : frame.Content().front();
            marks_.push_back(mark);
            if (frame.access == Access::kRead) {
                readerMarks_.push_back(mark);
            }
            if (answersAtOnce_) {
                respond(AnswerTo(mark));
            } else {
                requests_.push_back({mark, respond});
            }
        };
    }

    [[nodiscard]] Answer AnswerTo(std::uint8_t mark) const
    {
        Answer answer;
        answer.result = mark;
        if (padding_ > 0) {
            answer.storedText = std::string(padding_, 'x');
        }
        return answer;
    }

    // Answers the request with this mark, which was kept.
    void AnswerKept(std::uint8_t mark)
    {
        const auto found = std::ranges::find(requests_, mark, &Request::mark);
        ASSERT_NE(found, requests_.end());
        const Request request = *found;
        requests_.erase(found);
        request.respond(AnswerTo(mark));
    }

    TestClient &Connect() { return clients_.emplace_back(path_); }

    // Clients that are admitted in their order.
    void ConnectAndAdmit(std::size_t count)
    {
        for (std::size_t i = 0; i < count; ++i) {
            Connect();
            DispatchReady(loop_);
        }
    }

    TestClient &Client(std::size_t at) { return *std::next(clients_.begin(), static_cast<std::ptrdiff_t>(at)); }

    void AwaitReplies(TestClient &client, std::size_t count)
    {
        EXPECT_TRUE(RunUntil(loop_, [&] { return client.Results().size() >= count; }));
    }

    TestBox box_;
    std::string path_ = box_.Path("/agent.sock");
    EventLoop loop_;
    bool answersAtOnce_ = true;
    std::size_t padding_ = 0;
    std::vector<int> marks_; // of the requests, in the order in which they were handled
    std::vector<int> readerMarks_;
    std::vector<Request> requests_;
    std::unique_ptr<ControlSocket> socket_;
    std::list<TestClient> clients_;
};

} // namespace kavel::agent

#endif
