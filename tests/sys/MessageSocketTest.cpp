// The message sockets over real Unix sockets: framing at its edges, a server that survives bad
// peers, replies matched to their callers, calls pushed to a client, and the peer's identity.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/ChildProcess.h"
#include "support/TestEnvironment.h"
#include "sys/MessageClient.h"
#include "sys/MessageFrame.h"
#include "sys/MessageServer.h"
#include "sys/UnixSocket.h"

namespace morvane::sys {
namespace {

using namespace std::chrono_literals;

std::string lengthPrefix(std::uint32_t length) {
    return {static_cast<char>(length >> 24), static_cast<char>((length >> 16) & 0xff),
            static_cast<char>((length >> 8) & 0xff), static_cast<char>(length & 0xff)};
}

std::string frameOf(const std::string& body) {
    return lengthPrefix(static_cast<std::uint32_t>(body.size())) + body;
}

TEST(MessageFrameTest, AFrameFedOneByteAtATimeComesOutWhole) {
    const auto frame = encodeFrame({{"id", 7}, {"message", "status"}, {"arguments", {{"é", "ü"}}}});
    ASSERT_TRUE(frame);
    FrameDecoder decoder;
    nlohmann::json object;
    for (std::size_t i = 0; i + 1 < frame->size(); ++i) {
        decoder.feed(frame->substr(i, 1));
        ASSERT_EQ(decoder.next(object), FrameDecoder::Status::NeedMore) << "at byte " << i;
    }
    decoder.feed(frame->substr(frame->size() - 1));
    ASSERT_EQ(decoder.next(object), FrameDecoder::Status::Message);
    EXPECT_EQ(object["arguments"]["é"], "ü");
    EXPECT_EQ(decoder.next(object), FrameDecoder::Status::NeedMore);
    EXPECT_EQ(decoder.pending(), 0u);
}

TEST(MessageFrameTest, TwoFramesInOneReadAreTwoMessages) {
    FrameDecoder decoder;
    decoder.feed(*encodeFrame({{"a", 1}}) + *encodeFrame({{"b", 2}}));
    nlohmann::json object;
    ASSERT_EQ(decoder.next(object), FrameDecoder::Status::Message);
    EXPECT_EQ(object["a"], 1);
    ASSERT_EQ(decoder.next(object), FrameDecoder::Status::Message);
    EXPECT_EQ(object["b"], 2);
}

TEST(MessageFrameTest, OversizedNonJsonAndNonObjectFramesFailTheStream) {
    nlohmann::json object;
    {
        FrameDecoder decoder;
        decoder.feed(lengthPrefix(0x80000000u));  // 2 GB announced, nothing allocated for it
        EXPECT_EQ(decoder.next(object), FrameDecoder::Status::Failed);
        EXPECT_NE(decoder.error().find("over the limit"), std::string::npos);
        decoder.feed(*encodeFrame({{"a", 1}}));
        EXPECT_EQ(decoder.next(object), FrameDecoder::Status::Failed)
            << "a failed stream stays failed";
    }
    {
        FrameDecoder decoder;
        decoder.feed(lengthPrefix(static_cast<std::uint32_t>(kMaxMessageBytes)));
        EXPECT_EQ(decoder.next(object), FrameDecoder::Status::NeedMore)
            << "exactly the limit is allowed";
    }
    for (const std::string body : {"{not json", "[1,2]", "42"}) {
        FrameDecoder decoder;
        decoder.feed(frameOf(body));
        EXPECT_EQ(decoder.next(object), FrameDecoder::Status::Failed) << body;
    }
    EXPECT_FALSE(encodeFrame({{"big", std::string(kMaxMessageBytes, 'x')}}));
}

TEST(MessageFrameTest, RequestsRepliesAndCallsAreToldApart) {
    std::string error;
    auto request = Message::fromJson({{"id", 3}, {"message", "load"}}, error);
    ASSERT_TRUE(request);
    EXPECT_EQ(*request->id, 3);
    EXPECT_TRUE(request->arguments.is_object());
    auto call = Message::fromJson(
        {{"message", "proxyStoppedWithReason:"}, {"arguments", {{"reason", 1}}}}, error);
    ASSERT_TRUE(call);
    EXPECT_FALSE(call->id);
    auto reply = Message::fromJson({{"id", 3}, {"reply", {{"text", "x"}}}}, error);
    ASSERT_TRUE(reply);
    EXPECT_TRUE(reply->isReply);
    EXPECT_FALSE(Message::fromJson({{"id", "3"}, {"message", "load"}}, error));
    EXPECT_FALSE(Message::fromJson({{"id", 3}}, error));
    EXPECT_FALSE(Message::fromJson({{"message", "load"}, {"arguments", 5}}, error));
    EXPECT_FALSE(Message::fromJson({{"reply", {}}}, error)) << "a reply without id";
}

class MessageSocketTest : public ::testing::Test {
protected:
    void SetUp() override {
        path_ = home_.path() / "run" / "test.sock";
        MessageServer::Options options;
        options.path = path_;
        options.mode = 0666;
        options.acceptPeer = [this](const PeerCredentials& peer) {
            std::lock_guard lock(mutex_);
            peers_.push_back(peer);
            return refusedUid_ < 0 || peer.uid != static_cast<uid_t>(refusedUid_);
        };
        options.handler = [this](const MessageServer::Connection& connection,
                                 const Message& message) {
            if (message.message == "echo") {
                return MessageServer::Outcome::replyWith(
                    {{"echo", message.arguments}, {"uid", connection.peer.uid}});
            }
            return MessageServer::Outcome::refuse();
        };
        options.log = [this](const std::string& line) {
            std::lock_guard lock(mutex_);
            log_.push_back(line);
        };
        server_ = std::make_unique<MessageServer>(std::move(options));
        std::string error;
        ASSERT_TRUE(server_->start(error)) << error;
    }

    // The server's thread uses the members below: it goes first.
    void TearDown() override { server_.reset(); }

    bool logMentions(const std::string& text) {
        std::lock_guard lock(mutex_);
        for (const auto& line : log_) {
            if (line.find(text) != std::string::npos) {
                return true;
            }
        }
        return false;
    }

    // A raw connection for sending what no well-behaved client sends.
    FileDescriptor raw() {
        std::string error;
        auto fd = connectUnix(path_, 2s, error);
        EXPECT_TRUE(fd.valid()) << error;
        return fd;
    }

    // True when the server closed the raw connection.
    static bool closedByServer(int fd) {
        char byte;
        for (int i = 0; i < 100; ++i) {
            const ssize_t got = ::recv(fd, &byte, 1, MSG_DONTWAIT);
            if (got == 0 || (got < 0 && errno != EAGAIN)) {
                return true;
            }
            std::this_thread::sleep_for(50ms);
        }
        return false;
    }

    test::TempDir home_;
    std::filesystem::path path_;
    std::unique_ptr<MessageServer> server_;
    std::mutex mutex_;
    std::vector<PeerCredentials> peers_;
    std::vector<std::string> log_;
    int refusedUid_ = -1;
};

TEST_F(MessageSocketTest, ARequestGetsItsReplyAndTheServerKnowsWhoAsked) {
    MessageClient client(path_);
    std::string error;
    auto reply = client.call("echo", {{"x", 1}}, 5s, error);
    ASSERT_TRUE(reply) << error;
    EXPECT_EQ((*reply)["echo"]["x"], 1);
    EXPECT_EQ((*reply)["uid"], ::getuid());
    EXPECT_EQ(std::filesystem::status(path_).permissions() & std::filesystem::perms::all,
              std::filesystem::perms(0666));
}

TEST_F(MessageSocketTest, ConcurrentCallersEachGetTheirOwnReply) {
    MessageClient client(path_);
    std::atomic<int> wrong{0};
    std::vector<std::thread> callers;
    for (int t = 0; t < 4; ++t) {
        callers.emplace_back([&, t] {
            for (int i = 0; i < 50; ++i) {
                std::string error;
                auto reply = client.call("echo", {{"n", t * 1000 + i}}, 10s, error);
                if (!reply || (*reply)["echo"]["n"] != t * 1000 + i) {
                    ++wrong;
                }
            }
        });
    }
    for (auto& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(wrong, 0);
}

TEST_F(MessageSocketTest, TheServerPushesCallsToAClient) {
    MessageClient client(path_);
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<std::pair<std::string, nlohmann::json>> calls;
    client.setUpwardHandler([&](const std::string& message, const nlohmann::json& arguments) {
        std::lock_guard lock(mutex);
        calls.emplace_back(message, arguments);
        arrived.notify_all();
    });
    std::string error;
    ASSERT_TRUE(client.call("echo", {}, 5s, error)) << error;
    const auto connections = server_->connections();
    ASSERT_EQ(connections.size(), 1u);
    ASSERT_TRUE(server_->send(connections[0].id, "proxyStoppedWithReason:", {{"reason", 1}}));
    std::unique_lock lock(mutex);
    ASSERT_TRUE(arrived.wait_for(lock, 10s, [&] { return !calls.empty(); }));
    EXPECT_EQ(calls[0].first, "proxyStoppedWithReason:");
    EXPECT_EQ(calls[0].second["reason"], 1);
    EXPECT_FALSE(server_->send(connections[0].id + 100, "x", {})) << "no such connection";
}

TEST_F(MessageSocketTest, BadPeersAreCutOffWhileOthersAreServed) {
    MessageClient good(path_);
    std::string error;
    ASSERT_TRUE(good.call("echo", {}, 5s, error)) << error;

    auto garbage = raw();
    ASSERT_TRUE(writeAll(garbage.get(), frameOf("this is not json"), 2s));
    EXPECT_TRUE(closedByServer(garbage.get()));

    auto huge = raw();
    ASSERT_TRUE(writeAll(huge.get(), lengthPrefix(0x7fffffffu) + "{", 2s));
    EXPECT_TRUE(closedByServer(huge.get()));

    auto unknown = raw();
    ASSERT_TRUE(writeAll(unknown.get(), *encodeFrame({{"id", 1}, {"message", "format-disk"}}), 2s));
    EXPECT_TRUE(closedByServer(unknown.get()));

    {
        auto half = raw();
        const auto frame = *encodeFrame({{"id", 1}, {"message", "echo"}});
        ASSERT_TRUE(writeAll(half.get(), frame.substr(0, frame.size() / 2), 2s));
    }  // and gone

    auto reply = good.call("echo", {{"still", true}}, 5s, error);
    ASSERT_TRUE(reply) << error;
    EXPECT_EQ((*reply)["echo"]["still"], true);
    EXPECT_TRUE(logMentions("over the limit"));
    EXPECT_TRUE(logMentions("\"format-disk\" refused"));
    EXPECT_TRUE(logMentions("not JSON"));
}

TEST_F(MessageSocketTest, ACallerLearnsThatTheConnectionEndedAndTheNextCallReconnects) {
    MessageClient client(path_);
    std::atomic<int> ends{0};
    client.setDisconnectHandler([&](const std::string&) { ++ends; });
    std::string error;
    ASSERT_TRUE(client.call("echo", {}, 5s, error)) << error;
    EXPECT_FALSE(client.call("format-disk", {}, 5s, error))
        << "the server closes on an unknown selector";
    EXPECT_NE(error.find("ended"), std::string::npos) << error;
    // The handler runs on the reader's thread, just after the caller was woken.
    for (int i = 0; i < 500 && ends == 0; ++i) {
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_FALSE(client.connected());
    EXPECT_EQ(ends, 1);
    auto reply = client.call("echo", {{"again", 1}}, 5s, error);
    ASSERT_TRUE(reply) << error;
    client.close();
    EXPECT_EQ(ends, 1) << "a close of our own is not an end to be told of";
}

TEST_F(MessageSocketTest, AServerThatNeverAnswersGivesATimeOut) {
    std::string error;
    const auto silentPath = home_.path() / "run" / "silent.sock";
    auto silent = listenUnix(silentPath, 0600, error);
    ASSERT_TRUE(silent.valid()) << error;
    MessageClient client(silentPath);
    EXPECT_FALSE(client.call("echo", {}, 300ms, error));
    EXPECT_NE(error.find("in time"), std::string::npos) << error;
}

TEST_F(MessageSocketTest, ASecondServerCannotStealALiveSocketButReplacesADeadOne) {
    std::string error;
    EXPECT_FALSE(listenUnix(path_, 0600, error).valid());
    EXPECT_NE(error.find("in use"), std::string::npos) << error;

    const auto stalePath = home_.path() / "run" / "stale.sock";
    {
        auto first = listenUnix(stalePath, 0600, error);
        ASSERT_TRUE(first.valid()) << error;
    }  // closed without unlinking, as a killed process leaves it
    ASSERT_TRUE(std::filesystem::exists(stalePath));
    EXPECT_TRUE(listenUnix(stalePath, 0600, error).valid()) << error;

    const auto plainFile = home_.path() / "run" / "plain";
    test::writeFile(plainFile, "data");
    EXPECT_FALSE(listenUnix(plainFile, 0600, error).valid());
    EXPECT_EQ(test::readFile(plainFile), "data") << "a file that is no socket is never removed";
}

// Runs as a second process that gives up root before it connects.
MORVANE_CHILD_ROLE(connectAsNobody) {
    const uid_t nobody = 65534;
    if (::setresgid(nobody, nobody, nobody) != 0 || ::setresuid(nobody, nobody, nobody) != 0) {
        return 3;
    }
    MessageClient client(std::getenv("MORVANE_TEST_SOCKET"));
    std::string error;
    return client.call("echo", {}, std::chrono::seconds(5), error) ? 0 : 1;
}

TEST_F(MessageSocketTest, AnotherUserIsSeenByUidAndCanBeRefused) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to run a process as another user";
    }
    std::error_code ec;
    for (auto dir = path_.parent_path(); dir != home_.path().parent_path();
         dir = dir.parent_path()) {
        std::filesystem::permissions(dir, std::filesystem::perms(0755), ec);
    }
    const std::map<std::string, std::string> env{{"MORVANE_TEST_SOCKET", path_.string()}};
    ASSERT_EQ(test::runChild("connectAsNobody", env), 0) << "accepted while not refused";
    {
        std::lock_guard lock(mutex_);
        refusedUid_ = 65534;
    }
    EXPECT_EQ(test::runChild("connectAsNobody", env), 1);
    std::lock_guard lock(mutex_);
    ASSERT_GE(peers_.size(), 2u);
    EXPECT_EQ(peers_.back().uid, 65534u);
    EXPECT_TRUE(std::any_of(log_.begin(), log_.end(), [](const std::string& line) {
        return line.find("refused a connection from uid 65534") != std::string::npos;
    }));
}

}  // namespace
}  // namespace morvane::sys
