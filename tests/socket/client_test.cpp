// The client library's connection against a stand-in server on a socket in a private folder.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include <usbd/client.h>
#include <usbd/unique_fd.h>

using usbd::client::Connection;
using usbd::client::Response;

namespace {

class ClientConnection : public ::testing::Test {
protected:
    void SetUp() override
    {
        char folder[] = "/tmp/usbd-client-test.XXXXXX";
        ASSERT_NE(mkdtemp(folder), nullptr);
        folder_ = folder;
        path_ = folder_ + "/socket";

        listener_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        ASSERT_TRUE(listener_);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path_.copy(address.sun_path, sizeof address.sun_path - 1);
        ASSERT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        ASSERT_EQ(listen(listener_.get(), 1), 0);

        ASSERT_EQ(connection_.connect(path_), 0);
        server_.reset(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        ASSERT_TRUE(server_);
    }

    void TearDown() override
    {
        unlink(path_.c_str());
        rmdir(folder_.c_str());
    }

    void serverWrite(const std::vector<unsigned char> &bytes)
    {
        ASSERT_EQ(write(server_.get(), bytes.data(), bytes.size()), ssize_t(bytes.size()));
    }

    std::string folder_;
    std::string path_;
    usbd::UniqueFd listener_;
    usbd::UniqueFd server_;
    Connection connection_;
};

} // namespace

TEST_F(ClientConnection, ResponsesAreAssembledAcrossPartialReadsAndTimeouts)
{
    Response response;
    EXPECT_EQ(connection_.receive(&response, 0), -ETIMEDOUT);

    // A response split over two writes, with a timeout in between, and a second one behind it.
    serverWrite({0x07, 0x00, 0x00});
    EXPECT_EQ(connection_.receive(&response, 20), -ETIMEDOUT);
    serverWrite({0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0x2A, 0, 0, 0, 0, 0, 0, 0});
    ASSERT_EQ(connection_.receive(&response, 1000), 0);
    EXPECT_EQ(response.requestId, 7u);
    EXPECT_EQ(response.status, -1);
    EXPECT_FALSE(response.sent());
    ASSERT_EQ(connection_.receive(&response, 1000), 0);
    EXPECT_EQ(response.requestId, 42u);
    EXPECT_TRUE(response.sent());

    // The server's request side sees exactly one request per send.
    usbd::client::SendRequest request(5);
    request.addMemory("abc", 3);
    ASSERT_EQ(connection_.send(request.encode()), 0);
    unsigned char got[64];
    EXPECT_EQ(read(server_.get(), got, sizeof got), ssize_t(request.encodedSize()));

    // A closed server ends the wait with an error, and sending to it does not raise SIGPIPE.
    server_.reset();
    EXPECT_EQ(connection_.receive(&response, 1000), -ECONNRESET);
    EXPECT_EQ(connection_.send(usbd::client::encodeInterrupt()), -EPIPE);
}

TEST(ClientSendRequest, MoreSegmentsThanTheDaemonSendsAreRefusedWithTheReason)
{
    // 32 entries without padding, or 16 with, are the most; skipped entry types take none.
    usbd::client::SendRequest plain(1);
    for (int i = 0; i < 32; ++i)
        plain.addHandle(1, 0, 1);
    plain.addOther(3);
    std::vector<std::uint8_t> bytes;
    std::string error;
    EXPECT_TRUE(plain.encode(&bytes, &error));
    plain.addMemory("x", 1);
    EXPECT_FALSE(plain.encode(&bytes, &error));
    EXPECT_TRUE(bytes.empty());
    EXPECT_NE(error.find("33 segments"), std::string::npos) << error;
    EXPECT_NE(error.find("at most 32"), std::string::npos) << error;

    usbd::client::SendRequest padded(2);
    for (int i = 0; i < 15; ++i)
        padded.addMemory("ab", 2, 0, 4);
    padded.addHandle(1, 0, 1, 0, 0).addHandle(1, 0, 1, 0, 0);
    EXPECT_EQ(padded.segmentCount(), 32u);
    EXPECT_FALSE(padded.encode().empty());
    padded.addMemory("", 0, 0, 0);
    EXPECT_TRUE(padded.encode().empty());

    // The byte limit has its own reason.
    usbd::client::SendRequest large(3);
    const std::vector<char> data(4096, 'x');
    large.addMemory(data.data(), 4096);
    EXPECT_FALSE(large.encode(&bytes, &error));
    EXPECT_NE(error.find("at most 4096"), std::string::npos) << error;
}
