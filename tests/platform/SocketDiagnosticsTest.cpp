#include "platform/SocketDiagnostics.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "platform/FileDescriptor.hpp"

namespace quillfort {
namespace {

IpEndpoint endpointOf(int socket, bool peer = false) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    peer ? ::getpeername(socket, reinterpret_cast<sockaddr*>(&address), &length)
         : ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length);
    return {*IpAddress::fromBytes(std::span(reinterpret_cast<const std::uint8_t*>(&address.sin_addr), 4)),
            ntohs(address.sin_port)};
}

std::uint64_t inodeOf(int socket) {
    struct stat status {};
    ::fstat(socket, &status);
    return status.st_ino;
}

// Loopback sockets of this test process, looked up the way the filter looks up
// a flow's socket and the agent a client's.
TEST(SocketDiagnostics, FindsConnectedListeningAndDatagramSocketsOfThisProcess) {
    auto diagnostics = SocketDiagnostics::open();
    ASSERT_TRUE(diagnostics) << diagnostics.error().description;

    FileDescriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    ASSERT_EQ(::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener.get(), 1), 0);
    const IpEndpoint listening = endpointOf(listener.get());
    FileDescriptor client(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    address.sin_port = htons(listening.port);
    ASSERT_EQ(::connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);

    auto found = diagnostics->lookup(SocketDiagnostics::Protocol::tcp, endpointOf(client.get()), listening);
    ASSERT_TRUE(found && *found);
    EXPECT_EQ((*found)->uid, ::getuid());
    EXPECT_EQ((*found)->inode, inodeOf(client.get()));

    auto server = diagnostics->lookup(SocketDiagnostics::Protocol::tcp, listening, IpEndpoint{});
    ASSERT_TRUE(server && *server);
    EXPECT_EQ((*server)->inode, inodeOf(listener.get()));
    EXPECT_EQ((*server)->state, 10);  // listening

    FileDescriptor datagram(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in target{AF_INET, htons(9), {htonl(INADDR_LOOPBACK)}, {}};
    ASSERT_EQ(::sendto(datagram.get(), "x", 1, 0, reinterpret_cast<sockaddr*>(&target), sizeof target), 1);
    IpEndpoint sender = endpointOf(datagram.get());
    sender.address = *IpAddress::parse("127.0.0.1");  // bound to any address, sending from loopback
    auto udp = diagnostics->lookup(SocketDiagnostics::Protocol::udp, sender, {*IpAddress::parse("127.0.0.1"), 9});
    ASSERT_TRUE(udp && *udp);
    EXPECT_EQ((*udp)->inode, inodeOf(datagram.get()));

    auto nobody = diagnostics->lookup(SocketDiagnostics::Protocol::tcp, {*IpAddress::parse("127.0.0.1"), 1}, listening);
    ASSERT_TRUE(nobody);
    EXPECT_FALSE(*nobody);
}

TEST(SocketDiagnostics, ReplyParserRefusesTruncatedAndForeignAnswers) {
    const std::uint8_t tooShort[] = {40, 0, 0, 0, 2, 0};
    EXPECT_FALSE(SocketDiagnostics::parseReply(tooShort, 1));
    // A header that claims more bytes than arrived.
    std::uint8_t overlong[16] = {200, 0, 0, 0, 20, 0, 0, 0, 1, 0, 0, 0};
    EXPECT_FALSE(SocketDiagnostics::parseReply(overlong, 1));
    // A well-formed answer to another request is not taken as this one's.
    std::uint8_t other[16] = {16, 0, 0, 0, 3, 0, 0, 0, 7, 0, 0, 0};
    auto stale = SocketDiagnostics::parseReply(other, 1);
    ASSERT_FALSE(stale);
    EXPECT_EQ(stale.error().code, std::errc::operation_canceled);
}

}  // namespace
}  // namespace quillfort
