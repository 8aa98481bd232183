// Netbase against a plain-socket peer that writes crafted bytes: each half
// of the handshake with its deliberate check order and leniency, and the
// header checks, extension, limits and truncation of ordinary packets.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>

#include "ostrel_error.h"
#include "test_netbase_util.h"

using namespace nbtest;

namespace {

// The server side of one connection from a raw peer that sent `bytes`
// (handshake first, then anything else). Returns the handshake's code.
struct RawClient {
    uint32_t port = 0;
    NetbaseCtx *listen = make_listen(&port);
    NetbaseCtx *server = nullptr;
    int fd = -1;
    uint32_t handshake(const std::string &bytes, bool close_after = false) {
        fd = raw_connect(port);
        EXPECT_TRUE(send_all(fd, bytes));
        if (close_after) {
            close(fd);
            fd = -1;
        }
        EXPECT_EQ(netbase_accept(listen, &server, kTimeout), 0u);
        return netbase_server_handshake(server, kTimeout);
    }
    ~RawClient() {
        if (fd >= 0) close(fd);
        if (server) netbase_close(server);
        netbase_close(listen);
    }
};

TEST(NetbaseWireServerHandshake, ChecksLengthsThenReservedBytesThenMagic) {
    struct Case {
        std::string bytes;
        uint32_t code;
        std::string message;
    };
    // The server logs the length fields as received, not converted: the
    // little-endian bytes of 1 and 2 read in this host's byte order.
    const std::string withLengths = header(0x12, 1, 2);
    uint32_t rawExLen = 0, rawDataLen = 0;
    memcpy(&rawExLen, withLengths.data() + 4, 4);
    memcpy(&rawDataLen, withLengths.data() + 8, 4);
    const Case cases[] = {
        {withLengths, OSL_ERR_INVALID_DATA,
         "Invalid netbase handshake packet: ex_len = " + std::to_string(static_cast<int32_t>(rawExLen)) +
             ", data_len = " + std::to_string(static_cast<int32_t>(rawDataLen)) + "."},
        {header(0x12, 0, 0, 1, 0), OSL_ERR_INVALID_DATA,
         "Invalid netbase handshake packet(reserve field are not empty with version 0)."},
        {header(0xA6, 0, 0, 0, 7), OSL_ERR_INVALID_DATA,
         "Invalid netbase handshake packet(reserve field are not empty with version 0)."},
        {header(0x12, 0, 0, 1, 1, 1), OSL_ERR_INVALID_DATA, "Invalid netbase handshake packet(invalid magic number: 18)."},
        {header(0xA6, 0, 0, 9, 9, 1), 0, "Finish handshake with client(little endian)."},
        {header(0xA7, 0, 0), 0, "Finish handshake with client(big endian)."},
        {header(0xA6, 0, 0).substr(0, 5), OSL_ERR_UNKNOWN,
         "Receive netbase packet basic CTX failed: recv: Connection closed by peer."},
    };
    for (const Case &c : cases) {
        LogCapture cap;
        RawClient peer;
        EXPECT_EQ(peer.handshake(c.bytes, c.code == OSL_ERR_UNKNOWN), c.code) << c.message;
        EXPECT_TRUE(cap.has(c.code ? LOG_LEVEL_ERROR : LOG_LEVEL_TRACE, kPath, c.message)) << c.message;
        if (c.code == OSL_ERR_INVALID_DATA) {
            EXPECT_TRUE(has_prefix(cap, LOG_LEVEL_TRACE, "(unsigned char *)&packet_ctx (12 bytes)")) << c.message;
        } else if (c.code == 0) {
            // The reply is an empty little-endian header.
            EXPECT_EQ(recv_n(peer.fd, 12), header(0xA6, 0, 0));
        }
    }
}

// The client half against a raw server that answers with `reply` (or
// closes without answering when it is empty).
uint32_t connect_to_raw_server(const std::string &reply, std::string *hello) {
    uint32_t port = 0;
    int lfd = raw_listen(&port);
    std::thread server([&] {
        int fd = accept(lfd, nullptr, nullptr);
        *hello = recv_n(fd, 12);
        if (!reply.empty()) send_all(fd, reply);
        close(fd);
    });
    NetbaseCtx *h = nullptr;
    uint32_t rc = netbase_client_tcp_connect("localhost", static_cast<int32_t>(port), &kTimeout, &h);
    server.join();
    close(lfd);
    if (h != nullptr) netbase_close(h);
    return rc;
}

TEST(NetbaseWireClientHandshake, AcceptsAnyMagicButNotLengths) {
    LogCapture cap;
    std::string hello;
    EXPECT_EQ(connect_to_raw_server(header(0x00, 0, 0, 5, 5), &hello), 0u);
    EXPECT_EQ(hello, header(0xA6, 0, 0));
    EXPECT_TRUE(cap.has(LOG_LEVEL_TRACE, kPath, "Finish handshake with server"));
    EXPECT_TRUE(cap.texts(LOG_LEVEL_ERROR).empty());

    EXPECT_EQ(connect_to_raw_server(header(0xA6, 0, 4), &hello), OSL_ERR_INVALID_DATA);
    EXPECT_TRUE(cap.texts(LOG_LEVEL_ERROR).empty()); // no message for a reply with lengths
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_INVALID_DATA);

    EXPECT_EQ(connect_to_raw_server("", &hello), OSL_ERR_UNKNOWN);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Receive netbase packet basic CTX failed: recv: Connection closed by peer."));
}

// One packet from a raw peer that announced `hello`; returns the receive's
// code and what arrived in a buffer of `capacity` bytes.
uint32_t receive_crafted(const std::string &hello, const std::string &packet, std::string *got,
                         int32_t capacity = 256, bool close_after = false) {
    RawClient peer;
    EXPECT_EQ(peer.handshake(hello + packet, close_after), 0u);
    std::string buf(static_cast<size_t>(capacity), '\0');
    int32_t size = capacity;
    uint32_t rc = netbase_receive_packet_buf(peer.server, &buf[0], &size, kTimeout);
    *got = rc == 0 ? buf.substr(0, static_cast<size_t>(size)) : std::to_string(size);
    return rc;
}

TEST(NetbaseWirePacket, HeaderChecksRunReservedMagicThenByteOrder) {
    const std::string le = header(0xA6, 0, 0), be = header(0xA7, 0, 0);
    struct Case {
        std::string hello, packet;
        uint32_t code;
        const char *message;
    };
    const Case cases[] = {
        {le, header(0xA7, 0, 5) + "hello", OSL_ERR_INVALID_FORMAT, "Received packet endian error, expect little endian."},
        {be, header(0xA6, 0, 5) + "hello", OSL_ERR_INVALID_FORMAT, "Received packet endian error, expect big endian."},
        {le, header(0x10, 0, 5, 1) + "hello", OSL_ERR_INVALID_DATA,
         "Invalid netbase handshake packet(reserve field are not empty with version 0)."},
        {le, header(0x11, 0, 5) + "hello", OSL_ERR_INVALID_DATA, "Invalid netbase handshake packet(invalid magic number: 16)."},
        {le, header(0xA6, 0, 0x10000001), OSL_ERR_INVALID_LENGTH, "Packet data length: 268435457 exceed limit."},
        {le, header(0xA6, 40, 0x10000001), OSL_ERR_INVALID_LENGTH, "Packet data length: 268435457 exceed limit."},
    };
    for (const Case &c : cases) {
        LogCapture cap;
        std::string got;
        EXPECT_EQ(receive_crafted(c.hello, c.packet, &got), c.code) << c.message;
        EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, c.message)) << c.message;
        EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Receive packet CTX failed.")) << c.message;
        // Only a rejected header is a deserializing failure.
        EXPECT_EQ(cap.has(LOG_LEVEL_ERROR, kPath, "Deserialize packet ctx failed."), c.code != OSL_ERR_INVALID_LENGTH);
        EXPECT_EQ(has_prefix(cap, LOG_LEVEL_TRACE, "(unsigned char *)&ctx (12 bytes)"), c.code == OSL_ERR_INVALID_DATA);
    }
}

TEST(NetbaseWirePacket, AcceptsVersionOneExtensionsAndBigEndianLengths) {
    std::string got;
    // Version 1: the reserved bytes are not looked at.
    EXPECT_EQ(receive_crafted(header(0xA6, 0, 0), header(0xA6, 0, 3, 8, 9, 1) + "abc", &got), 0u);
    EXPECT_EQ(got, "abc");
    // Extensions of 40 (heap) and 16 (stack) bytes are read and dropped.
    EXPECT_EQ(receive_crafted(header(0xA6, 0, 0), header(0xA6, 40, 5) + std::string(40, 'X') + "hello", &got), 0u);
    EXPECT_EQ(got, "hello");
    EXPECT_EQ(receive_crafted(header(0xA6, 0, 0), header(0xA6, 16, 2) + std::string(16, 'Y') + "ok", &got), 0u);
    EXPECT_EQ(got, "ok");
    // A big-endian peer: 0xA7 and byte-reversed lengths, 300 data bytes.
    std::string data(300, 'b');
    EXPECT_EQ(receive_crafted(header(0xA7, 0, 0), header(0xA7, 20, 300) + std::string(20, 'e') + data, &got, 512), 0u);
    EXPECT_EQ(got, data);
}

TEST(NetbaseWirePacket, TooSmallBufferAndTruncatedPacketFailCleanly) {
    LogCapture cap;
    std::string got;
    EXPECT_EQ(receive_crafted(header(0xA6, 0, 0), header(0xA6, 0, 100) + std::string(100, 'z'), &got, 64),
              OSL_ERR_NO_MEMORY);
    EXPECT_EQ(got, "64"); // *size unchanged
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Packet data length: 100 exceed buffer length: 64."));

    EXPECT_EQ(receive_crafted(header(0xA6, 0, 0), header(0xA6, 0, 100) + "only ten b", &got, 256, true), OSL_ERR_UNKNOWN);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Receive netbase packet data failed: recv: Connection closed by peer."));
    EXPECT_EQ(receive_crafted(header(0xA6, 0, 0), header(0xA6, 30, 1) + "ext", &got, 256, true), OSL_ERR_UNKNOWN);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath,
                        "Receive netbase packet extended CTX failed: recv: Connection closed by peer."));
    EXPECT_EQ(receive_crafted(header(0xA6, 0, 0), header(0xA6, 0, 1).substr(0, 7), &got, 256, true), OSL_ERR_UNKNOWN);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Receive netbase packet basic CTX failed: recv: Connection closed by peer."));
}

TEST(NetbaseWirePacket, LargeExtensionIsReadAndDroppedBeforeThePacket) {
    // 1 MiB and a few bytes of extension, so that it is read in more than
    // one piece with a short last one; its bytes vary, so a receiver that
    // read too little or too much would deliver the wrong bytes next.
    const uint32_t exLen = (1u << 20) + 7;
    std::string extension(exLen, '\0');
    for (uint32_t i = 0; i < exLen; ++i) extension[i] = static_cast<char>(i * 7 % 251);
    RawClient peer;
    ASSERT_EQ(peer.handshake(header(0xA6, 0, 0)), 0u);
    const std::string stream = header(0xA6, exLen, 5) + extension + "hello" + header(0xA6, 0, 3) + "xyz";
    // More than the socket buffers hold: written while the receiver reads.
    bool sent = false;
    std::thread writer([&] { sent = send_all(peer.fd, stream); });
    std::string buf(256, '\0');
    int32_t size = 256;
    EXPECT_EQ(netbase_receive_packet_buf(peer.server, &buf[0], &size, kTimeout), 0u);
    EXPECT_EQ(buf.substr(0, static_cast<size_t>(size)), "hello");
    size = 256;
    EXPECT_EQ(netbase_receive_packet_buf(peer.server, &buf[0], &size, kTimeout), 0u);
    EXPECT_EQ(buf.substr(0, static_cast<size_t>(size)), "xyz");
    writer.join();
    EXPECT_TRUE(sent);
}

TEST(NetbaseWirePacket, HandleMemoryGrowsAndIsReusedAcrossPackets) {
    RawClient peer;
    std::string big(5000, 'B');
    ASSERT_EQ(peer.handshake(header(0xA6, 0, 0) + header(0xA6, 0, 10) + "0123456789" + header(0xA6, 0, 5) + "abcde" +
                             header(0xA6, 0, 5000) + big + header(0xA6, 0, 3) + "xyz"),
              0u);
    std::string expect[] = {"0123456789", "abcde", big, "xyz"};
    for (const std::string &e : expect) {
        void *mem = nullptr;
        int32_t size = 0;
        ASSERT_EQ(netbase_receive_packet(peer.server, &mem, &size, kTimeout), 0u);
        EXPECT_EQ(std::string(static_cast<char *>(mem), static_cast<size_t>(size)), e);
    }
}

} // namespace
