// The support library's socket layer and worker threads: exact-length
// transfers across partial sends and signals, time-outs, a closed peer
// without SIGPIPE, per-thread error texts, and the once-only detach.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>

#include "zurn_general.h"

namespace {

// Two connected records over loopback TCP made by the layer itself.
struct Conn {
    ZurnSocket listen{}, client{}, server{};
    Conn() {
        EXPECT_EQ(S_Open(&listen, 0, 0, 0), 1);
        EXPECT_EQ(S_Bind(&listen, "127.0.0.1", 0), 1);
        EXPECT_EQ(S_Listen(&listen, 4), 1);
        EXPECT_NE(listen.usLocalPort, 0);
        EXPECT_EQ(S_CanAccept(&listen, 0), ZURN_ACCEPT_IDLE);
        EXPECT_EQ(S_Open(&client, 0, 0, 0), 1);
        EXPECT_EQ(S_Client(&client, "localhost", listen.usLocalPort, 5000), 1);
        EXPECT_EQ(S_CanAccept(&listen, 20), ZURN_ACCEPT_READY);
        EXPECT_EQ(S_Accept(listen, &server, 5000), 1);
        EXPECT_EQ(server.iState, ZURN_SOCKET_CONNECTED);
        EXPECT_EQ(server.usPeerPort, htons(client.usLocalPort));
    }
    ~Conn() {
        S_Close(&client, 1);
        S_Close(&server, 1);
        S_Close(&listen, 0);
    }
};

TEST(Socket, MovesExactlyTheBytesAskedAcrossPartialTransfersAndSignals) {
    Conn c;
    // Far more than the socket buffers hold: the sender waits and resumes
    // many times while the receiver takes odd-sized pieces.
    std::string data(8 << 20, '\0');
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 131 + (i >> 12));
    struct sigaction sa {};
    sa.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &sa, nullptr), 0); // no SA_RESTART: waits see EINTR
    std::atomic<bool> done{false};
    std::thread sender([&] { EXPECT_EQ(S_SendEx(&c.client, data.data(), static_cast<uint32_t>(data.size()), 0), 1); });
    pthread_t sender_id = sender.native_handle();
    std::thread poker([&] {
        while (!done) {
            pthread_kill(sender_id, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    std::string got(data.size(), '\0');
    size_t off = 0;
    for (uint32_t piece = 1; off < got.size(); piece = piece * 3 + 7) {
        uint32_t n = static_cast<uint32_t>(std::min<size_t>(piece % 300000 + 1, got.size() - off));
        ASSERT_EQ(S_ReceiveEx(&c.server, &got[off], n, 5000), 1);
        off += n;
    }
    done = true; // the sender stays joinable, so poking it until here is safe
    poker.join();
    sender.join();
    EXPECT_TRUE(got == data);
    EXPECT_EQ(S_SendEx(&c.client, nullptr, 0, 0), 1); // nothing to do
}

TEST(Socket, TimeOutsClosedPeersAndBadRecordsFailWithATextPerThread) {
    Conn c;
    char buf[16];
    EXPECT_EQ(S_ReceiveEx(&c.server, buf, 4, 30), 0);
    EXPECT_STREQ(NetWork_GetErrorText(), "recv: Timed out after 30 ms");
    std::string other;
    std::thread([&] { other = NetWork_GetErrorText(); }).join();
    EXPECT_EQ(other, "Success"); // another thread's text is its own

    ASSERT_EQ(S_SendEx(&c.client, "ab", 2, 0), 1);
    ASSERT_EQ(S_Close(&c.client, 1), 1);
    EXPECT_EQ(c.client.iFd, -1);
    EXPECT_EQ(S_Close(&c.client, 1), 1); // a closed record stays harmlessly closed
    EXPECT_EQ(S_ReceiveEx(&c.server, buf, 4, 1000), 0); // two bytes, then the end
    EXPECT_STREQ(NetWork_GetErrorText(), "recv: Connection closed by peer");
    // Writing to a connection the peer closed fails without SIGPIPE.
    std::string big(1 << 20, 'x');
    int rc = 1;
    for (int i = 0; i < 4 && rc == 1; ++i) rc = S_SendEx(&c.server, big.data(), static_cast<uint32_t>(big.size()), 1000);
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(std::string(NetWork_GetErrorText()).rfind("send: ", 0) == 0) << NetWork_GetErrorText();

    EXPECT_EQ(S_SendEx(&c.client, "a", 1, 0), 0);
    EXPECT_STREQ(NetWork_GetErrorText(), "send: Bad file descriptor");
    ZurnSocket s{};
    EXPECT_EQ(S_Open(&s, 1, 0, 0), 0);
    EXPECT_STREQ(NetWork_GetErrorText(), "socket: Invalid argument");
    ASSERT_EQ(S_Open(&s, 0, 0, 0), 1);
    EXPECT_EQ(S_Bind(&s, "127.0.0.1", 70000), 0);
    EXPECT_STREQ(NetWork_GetErrorText(), "bind: Invalid argument");
    EXPECT_EQ(S_Client(&s, "127.0.0.1", c.listen.usLocalPort, 1000), 1); // still listening
    struct sockaddr_in local {};
    EXPECT_EQ(S_GetSocketInfo(s, &local), 1);
    EXPECT_EQ(ntohs(local.sin_port), s.usLocalPort);
    S_Close(&s, 0);
}

TEST(WorkerThread, IdentifierIsStoredBeforeTheThreadRunsAndOnlyTheFirstDetachActs) {
    struct Seen {
        uint64_t *slot;
        uint64_t stored_at_start;
        uint64_t self;
        std::atomic<bool> done{false};
    };
    uint64_t id = 0;
    Seen seen{&id, 0, 0};
    auto entry = [](void *p) -> void * {
        auto *s = static_cast<Seen *>(p);
        s->stored_at_start = *s->slot;
        pthread_t self = pthread_self();
        memcpy(&s->self, &self, sizeof self);
        s->done = true;
        return nullptr;
    };
    ASSERT_EQ(ZurnGeneral_CreateWorkingThread(entry, &seen, &id), 1);
    while (!seen.done) std::this_thread::yield();
    EXPECT_NE(id, 0u);
    EXPECT_EQ(seen.stored_at_start, id);
    EXPECT_EQ(seen.self, id);
    EXPECT_EQ(ZurnGeneral_DetachWorkingThread(id), 1);
    EXPECT_EQ(ZurnGeneral_DetachWorkingThread(id), 0); // e.g. through a second handle
    EXPECT_EQ(ZurnGeneral_DetachWorkingThread(12345), 0);
    EXPECT_EQ(ZurnGeneral_CreateWorkingThread(nullptr, nullptr, &id), 0);
    EXPECT_EQ(errno, EINVAL);
}

} // namespace
