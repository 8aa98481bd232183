// Netbase: length-framed packets over TCP through the support library's
// socket layer. One file holds the handle, the wire header and handshake,
// connections and the servers.
#define OSL_SRC_PATH "src/netbase_api"
#include <netinet/in.h>
#include <sys/select.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "osl_frame.h"
#include "ostrel_netbase.h"

// Byte order of the lengths in every header this process sends (0 little,
// 1 big); set once at start-up, read by every sender.
uint32_t g_netbase_endian = 0;

struct NetbaseCtx {
    uint32_t magic;
    ZurnSocket socket;
    NetbaseConnectedCallback cb;
    void *arg;
    char *addr;          // listen address, in this block's tail
    uint32_t addr_size;  // bytes of addr with its terminating zero
    uint32_t port;
    uint32_t peer_endian;
    uint8_t *recv_buf;
    uint32_t recv_cap;
    uint32_t status;     // the one field two threads share: use load_status/store_status
    uint64_t worker;
    // listen handles and their accepted copies: the address text follows
};

static_assert(sizeof(ZurnSocket) == NETBASE_SOCKET_INFO_SIZE, "netbase_get_info copies the whole socket record");

namespace {

constexpr uint32_t kNetbaseMagic = 0xD0845C00u;
constexpr uint32_t kMagicMask = 0xFFFFFF00u;
constexpr uint8_t kPacketMagic = 0xA6;
constexpr uint32_t kStagingSize = 1440;
constexpr uint32_t kHeaderSize = 12;
constexpr uint32_t kFirstChunk = kStagingSize - kHeaderSize; // 1,428 data bytes ride with the header
constexpr uint32_t kSmallExtension = 16;
constexpr uint32_t kLargeAlloc = 8388608;
// The largest block an extended context is read through.
constexpr uint32_t kExtensionBlock = 65536;
constexpr int kListenBacklog = 128;
constexpr int kCanAcceptWait = 2;
constexpr uint32_t kLoopAcceptTimeout = 5;

// The basic packet context: the 12 header bytes as they travel.
struct NetbasePacketCtx {
    uint8_t magic; // 0xA6 | byte order
    uint8_t reserved1;
    uint8_t reserved2;
    uint8_t version;
    uint32_t ex_len;
    uint32_t data_len;
};
static_assert(sizeof(NetbasePacketCtx) == kHeaderSize, "the header is 12 bytes");

// The status is written by netbase_close on one thread while an accept loop
// reads it on another; release/acquire also hands the handle over to the
// loop that releases it.
uint32_t load_status(const NetbaseCtx *c) { return __atomic_load_n(&c->status, __ATOMIC_ACQUIRE); }
void store_status(NetbaseCtx *c, uint32_t v) { __atomic_store_n(&c->status, v, __ATOMIC_RELEASE); }

// A wrong magic is reported and the call goes on: only the upper 24 bits
// count, and a mismatch never refuses the handle.
#define NB_CHECK_MAGIC(h)                                      \
    do {                                                       \
        if (((h)->magic & kMagicMask) != kNetbaseMagic)        \
            OSL_LOG_ERRNO(OSL_ERR_INVALID_HANDLE);             \
    } while (0)

// Exit of an internal step: traced, not stored (the exported caller stores).
#define NB_EXIT(code)                 \
    do {                              \
        uint32_t nb_rc_ = (code);     \
        OSL_TRACE_EXIT(nb_rc_);       \
        return nb_rc_;                \
    } while (0)

void release_handle(NetbaseCtx *h) {
    h->magic = 0;
    free(h);
}

// A handle whose socket is open and which nobody else holds.
void close_and_release(NetbaseCtx *h) {
    (void)S_Close(&h->socket, 0);
    release_handle(h);
}

void fill_basic_ctx(NetbasePacketCtx *p, uint32_t data_len) {
    p->magic = static_cast<uint8_t>(kPacketMagic | g_netbase_endian);
    p->reserved1 = 0;
    p->reserved2 = 0;
    p->version = 0;
    p->ex_len = 0;
    p->data_len = data_len;
}

uint32_t misc_get_byte_order(void) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    return 1;
#else
    return 0;
#endif
}

uint32_t misc_byte_order_transfer(uint32_t value) { return __builtin_bswap32(value); }

// ---------------------------------------------------------------------------
// Header and handshake
// ---------------------------------------------------------------------------

uint32_t local_netbase_serialize_packet_ctx(NetbaseCtx *sock, NetbasePacketCtx *ctx) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != sock);
    NB_CHECK_MAGIC(sock);
    OSL_ASSERT_ARG(NULL != ctx);
    if (misc_get_byte_order() != g_netbase_endian) {
        if (ctx->ex_len != 0) ctx->ex_len = misc_byte_order_transfer(ctx->ex_len);
        if (ctx->data_len != 0) ctx->data_len = misc_byte_order_transfer(ctx->data_len);
    }
    NB_EXIT(0);
}

uint32_t local_netbase_deserialize_packet_ctx(NetbaseCtx *sock, NetbasePacketCtx *ctx) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != sock);
    NB_CHECK_MAGIC(sock);
    OSL_ASSERT_ARG(NULL != ctx);
    if (ctx->version == 0 && (ctx->reserved2 != 0 || ctx->reserved1 != 0)) {
        OSL_LOG(LOG_LEVEL_ERROR, "Invalid netbase handshake packet(reserve field are not empty with version 0).");
        OSL_LOG_BIN(LOG_LEVEL_TRACE, "(unsigned char *)&ctx", ctx, kHeaderSize);
        NB_EXIT(OSL_ERR_INVALID_DATA);
    }
    if ((ctx->magic & 0xFE) != kPacketMagic) {
        OSL_LOG(LOG_LEVEL_ERROR, "Invalid netbase handshake packet(invalid magic number: %d).", ctx->magic & 0xFE);
        OSL_LOG_BIN(LOG_LEVEL_TRACE, "(unsigned char *)&ctx", ctx, kHeaderSize);
        NB_EXIT(OSL_ERR_INVALID_DATA);
    }
    if (static_cast<uint32_t>(ctx->magic & 1u) != sock->peer_endian) {
        OSL_LOG(LOG_LEVEL_ERROR, "Received packet endian error, expect %s endian.",
                sock->peer_endian == 1 ? "big" : "little");
        NB_EXIT(OSL_ERR_INVALID_FORMAT);
    }
    if (misc_get_byte_order() != sock->peer_endian) {
        if (ctx->ex_len != 0) ctx->ex_len = misc_byte_order_transfer(ctx->ex_len);
        if (ctx->data_len != 0) ctx->data_len = misc_byte_order_transfer(ctx->data_len);
    }
    NB_EXIT(0);
}

// The client half: send an empty header, read the server's. The reply's
// magic, reserved bytes and version are deliberately not checked.
uint32_t local_netbase_client_handshake(NetbaseCtx *handle, uint32_t timeout) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != handle);
    NB_CHECK_MAGIC(handle);
    OSL_LOG(LOG_LEVEL_TRACE, "Begin handshake with server");
    NetbasePacketCtx packet_ctx;
    fill_basic_ctx(&packet_ctx, 0);
    if (S_SendEx(&handle->socket, &packet_ctx, kHeaderSize, timeout) != 1) {
        OSL_LOG(LOG_LEVEL_ERROR, "Send netbase packet basic CTX failed: %s.", NetWork_GetErrorText());
        NB_EXIT(OSL_ERR_UNKNOWN);
    }
    if (S_ReceiveEx(&handle->socket, &packet_ctx, kHeaderSize, timeout) != 1) {
        OSL_LOG(LOG_LEVEL_ERROR, "Receive netbase packet basic CTX failed: %s.", NetWork_GetErrorText());
        NB_EXIT(OSL_ERR_UNKNOWN);
    }
    if (packet_ctx.ex_len != 0 || packet_ctx.data_len != 0) NB_EXIT(OSL_ERR_INVALID_DATA);
    handle->peer_endian = packet_ctx.magic & 1u;
    OSL_LOG(LOG_LEVEL_TRACE, "Finish handshake with server");
    NB_EXIT(0);
}

} // namespace

extern "C" {

OSTREL_API uint32_t netbase_set_big_endian(int32_t flag) {
    OSL_TRACE_ENTER();
    if (flag == 1) {
        g_netbase_endian = 1;
        OSL_LOG(LOG_LEVEL_TRACE, "Set netbase to big endian");
    } else if (flag == 0) {
        g_netbase_endian = 0;
        OSL_LOG(LOG_LEVEL_TRACE, "Set netbase to little endian");
    } else {
        // Refused like a failed argument check: traced, not stored.
        NB_EXIT(OSL_ERR_INVALID_PARAMETER);
    }
    OSL_TRACED_RETURN(0);
}

// The server half: its checks run lengths, reserved bytes, magic — in that
// order, which decides the message a malformed first packet produces.
OSTREL_API uint32_t netbase_server_handshake(NetbaseCtx *handle, uint32_t timeout) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != handle);
    NB_CHECK_MAGIC(handle);
    if (load_status(handle) != NETBASE_STATUS_ACCEPTED) {
        OSL_LOG(LOG_LEVEL_ERROR, "Error handle status, expect handle in accepted status.");
        OSL_TRACED_RETURN(OSL_ERR_INVALID_STATUS);
    }
    OSL_LOG(LOG_LEVEL_TRACE, "Begin handshake with client");
    NetbasePacketCtx packet_ctx;
    if (S_ReceiveEx(&handle->socket, &packet_ctx, kHeaderSize, timeout) != 1) {
        OSL_LOG(LOG_LEVEL_ERROR, "Receive netbase packet basic CTX failed: %s.", NetWork_GetErrorText());
        OSL_TRACED_RETURN(OSL_ERR_UNKNOWN);
    }
    if (packet_ctx.ex_len != 0 || packet_ctx.data_len != 0) {
        OSL_LOG(LOG_LEVEL_ERROR, "Invalid netbase handshake packet: ex_len = %d, data_len = %d.",
                static_cast<int>(packet_ctx.ex_len), static_cast<int>(packet_ctx.data_len));
        OSL_LOG_BIN(LOG_LEVEL_TRACE, "(unsigned char *)&packet_ctx", &packet_ctx, kHeaderSize);
        OSL_TRACED_RETURN(OSL_ERR_INVALID_DATA);
    }
    if (packet_ctx.version == 0 && (packet_ctx.reserved2 != 0 || packet_ctx.reserved1 != 0)) {
        OSL_LOG(LOG_LEVEL_ERROR, "Invalid netbase handshake packet(reserve field are not empty with version 0).");
        OSL_LOG_BIN(LOG_LEVEL_TRACE, "(unsigned char *)&packet_ctx", &packet_ctx, kHeaderSize);
        OSL_TRACED_RETURN(OSL_ERR_INVALID_DATA);
    }
    if ((packet_ctx.magic & 0xFE) != kPacketMagic) {
        OSL_LOG(LOG_LEVEL_ERROR, "Invalid netbase handshake packet(invalid magic number: %d).",
                packet_ctx.magic & 0xFE);
        OSL_LOG_BIN(LOG_LEVEL_TRACE, "(unsigned char *)&packet_ctx", &packet_ctx, kHeaderSize);
        OSL_TRACED_RETURN(OSL_ERR_INVALID_DATA);
    }
    handle->peer_endian = packet_ctx.magic & 1u;
    fill_basic_ctx(&packet_ctx, 0);
    if (S_SendEx(&handle->socket, &packet_ctx, kHeaderSize, timeout) != 1) {
        OSL_LOG(LOG_LEVEL_ERROR, "Send netbase packet basic CTX failed: %s.", NetWork_GetErrorText());
        OSL_TRACED_RETURN(OSL_ERR_UNKNOWN);
    }
    OSL_LOG(LOG_LEVEL_TRACE, "Finish handshake with client(%s endian).", handle->peer_endian == 1 ? "big" : "little");
    OSL_TRACED_RETURN(0);
}

} // extern "C"

// ---------------------------------------------------------------------------
// Connections
// ---------------------------------------------------------------------------

namespace {

uint32_t local_netbase_client_init(NetbaseCtx **handle) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != handle);
    auto *ctx = static_cast<NetbaseCtx *>(calloc(1, sizeof(NetbaseCtx)));
    if (ctx == nullptr) OSL_ALLOC_FAILED(sizeof(NetbaseCtx));
    ctx->magic = kNetbaseMagic;
    *handle = ctx;
    NB_EXIT(0);
}

// Reads one packet's basic context and its extension (which is dropped) and
// yields the data length, in host order.
uint32_t local_netbase_receive_packet_ctx(NetbaseCtx *handle, uint32_t timeout, uint32_t *data_len) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != handle);
    NB_CHECK_MAGIC(handle);
    NetbasePacketCtx packet_ctx;
    if (S_ReceiveEx(&handle->socket, &packet_ctx, kHeaderSize, timeout) != 1) {
        OSL_LOG(LOG_LEVEL_ERROR, "Receive netbase packet basic CTX failed: %s.", NetWork_GetErrorText());
        NB_EXIT(OSL_ERR_UNKNOWN);
    }
    uint32_t rc = local_netbase_deserialize_packet_ctx(handle, &packet_ctx);
    if (rc != 0) {
        OSL_LOG(LOG_LEVEL_ERROR, "Deserialize packet ctx failed.");
        NB_EXIT(rc);
    }
    int received;
    if (packet_ctx.ex_len <= kSmallExtension) {
        if (packet_ctx.data_len > NETBASE_PACKET_LENGTH_MAX) {
            OSL_LOG(LOG_LEVEL_ERROR, "Packet data length: %d exceed limit.", static_cast<int>(packet_ctx.data_len));
            NB_EXIT(OSL_ERR_INVALID_LENGTH);
        }
        uint8_t ex_ctx[kSmallExtension];
        received = S_ReceiveEx(&handle->socket, ex_ctx, packet_ctx.ex_len, timeout);
    } else {
        if (packet_ctx.ex_len >= kLargeAlloc)
            OSL_LOG(LOG_LEVEL_WARN, "Large malloc in %s, size=%d.", __func__, static_cast<int>(packet_ctx.ex_len));
        // The extension is dropped, so it goes through one block of at most
        // kExtensionBlock bytes, reused for each chunk: what a header
        // announces (up to 4 GiB) does not decide how much memory is taken.
        // Each chunk's receive waits up to the time-out.
        const uint32_t block = packet_ctx.ex_len < kExtensionBlock ? packet_ctx.ex_len : kExtensionBlock;
        void *ex_ctx = calloc(1, block);
        if (ex_ctx == nullptr) OSL_ALLOC_FAILED(block);
        if (packet_ctx.data_len > NETBASE_PACKET_LENGTH_MAX) {
            free(ex_ctx);
            OSL_LOG(LOG_LEVEL_ERROR, "Packet data length: %d exceed limit.", static_cast<int>(packet_ctx.data_len));
            NB_EXIT(OSL_ERR_INVALID_LENGTH);
        }
        received = 1;
        for (uint32_t left = packet_ctx.ex_len; left > 0 && received == 1;) {
            const uint32_t chunk = left < block ? left : block;
            received = S_ReceiveEx(&handle->socket, ex_ctx, chunk, timeout);
            left -= chunk;
        }
        free(ex_ctx);
    }
    if (received != 1) {
        OSL_LOG(LOG_LEVEL_ERROR, "Receive netbase packet extended CTX failed: %s.", NetWork_GetErrorText());
        NB_EXIT(OSL_ERR_UNKNOWN);
    }
    *data_len = packet_ctx.data_len;
    NB_EXIT(0);
}

} // namespace

extern "C" {

OSTREL_API uint32_t netbase_client_tcp_connect(const char *addr, int32_t port, const uint32_t *timeout,
                                               NetbaseCtx **phandle) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != addr);
    OSL_ASSERT_ARG('\0' != *addr);
    OSL_ASSERT_ARG(NULL != timeout);
    OSL_ASSERT_ARG(NULL != phandle);
    OSL_LOG(LOG_LEVEL_TRACE, "Connect to %s:%d, timeout=%d.", addr, port, static_cast<int>(*timeout));
    NetbaseCtx *handle = nullptr;
    uint32_t rc = local_netbase_client_init(&handle);
    if (handle == nullptr) {
        OSL_LOG(LOG_LEVEL_ERROR, "Create socket failed.");
        OSL_TRACED_RETURN(rc);
    }
    if (S_Open(&handle->socket, 0, 0, 0) != 1) {
        OSL_LOG(LOG_LEVEL_ERROR, "Invoke S_Open failed: %s", NetWork_GetErrorText());
        release_handle(handle);
        OSL_TRACED_RETURN(OSL_ERR_UNKNOWN);
    }
    if (S_Client(&handle->socket, addr, port, *timeout) != 1) {
        OSL_LOG(LOG_LEVEL_ERROR, "Invoke S_Client failed: %s", NetWork_GetErrorText());
        close_and_release(handle);
        OSL_TRACED_RETURN(OSL_ERR_UNKNOWN);
    }
    rc = local_netbase_client_handshake(handle, *timeout);
    if (rc != 0) {
        close_and_release(handle);
        OSL_TRACED_RETURN(rc);
    }
    *phandle = handle;
    store_status(handle, NETBASE_STATUS_CONNECTED);
    OSL_LOG(LOG_LEVEL_TRACE, "Connection established.");
    OSL_TRACED_RETURN(0);
}

// One packet is one socket-layer send of the header and up to 1,428 data
// bytes, plus one more send straight from the caller's buffer for the rest.
OSTREL_API uint32_t netbase_send_packet(NetbaseCtx *handle, const void *buffer, int32_t size, uint32_t timeout) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != handle);
    NB_CHECK_MAGIC(handle);
    OSL_ASSERT_ARG(NULL != buffer);
    OSL_ASSERT_ARG(size >= 0);
    OSL_ASSERT_ARG(size <= NETBASE_PACKET_LENGTH_MAX);
    // A zero-length packet cannot be sent: nothing goes on the wire.
    if (size == 0) OSL_TRACED_RETURN(0);
    OSL_LOG(LOG_LEVEL_TRACE, "Begin send packet, length=%d, timeout=%d.", size, static_cast<int>(timeout));
    OSL_LOG_BIN(LOG_LEVEL_TRACE, "buffer", buffer, size);
    NetbasePacketCtx packet_ctx;
    fill_basic_ctx(&packet_ctx, static_cast<uint32_t>(size));
    uint32_t rc = local_netbase_serialize_packet_ctx(handle, &packet_ctx);
    if (rc != 0) OSL_TRACED_RETURN(rc);
    uint8_t staging[kStagingSize];
    uint32_t first = static_cast<uint32_t>(size) < kFirstChunk ? static_cast<uint32_t>(size) : kFirstChunk;
    memcpy(staging, &packet_ctx, kHeaderSize);
    memcpy(staging + kHeaderSize, buffer, first);
    if (S_SendEx(&handle->socket, staging, kHeaderSize + first, timeout) != 1) {
        OSL_LOG(LOG_LEVEL_ERROR, "Send netbase packet failed: %s.", NetWork_GetErrorText());
        OSL_TRACED_RETURN(OSL_ERR_UNKNOWN);
    }
    if (static_cast<uint32_t>(size) > kFirstChunk) {
        const auto *rest = static_cast<const uint8_t *>(buffer) + kFirstChunk;
        if (S_SendEx(&handle->socket, rest, static_cast<uint32_t>(size) - kFirstChunk, timeout) != 1) {
            OSL_LOG(LOG_LEVEL_ERROR, "Send netbase packet data failed: %s.", NetWork_GetErrorText());
            OSL_TRACED_RETURN(OSL_ERR_UNKNOWN);
        }
    }
    OSL_LOG(LOG_LEVEL_TRACE, "Send packet complete.");
    OSL_TRACED_RETURN(0);
}

OSTREL_API uint32_t netbase_receive_packet_buf(NetbaseCtx *handle, void *buffer, int32_t *size, uint32_t timeout) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != buffer);
    OSL_ASSERT_ARG(NULL != size);
    OSL_ASSERT_ARG(*size >= 0);
    OSL_LOG(LOG_LEVEL_TRACE, "Begin receive packet using specific buffer(length=%d), timeout=%d.", *size,
            static_cast<int>(timeout));
    uint32_t data_len = 0;
    uint32_t rc = local_netbase_receive_packet_ctx(handle, timeout, &data_len);
    if (rc != 0) {
        OSL_LOG(LOG_LEVEL_ERROR, "Receive packet CTX failed.");
        OSL_TRACED_RETURN(rc);
    }
    // Too long for the caller's buffer: "not enough memory", the packet data
    // left unread.
    if (data_len > static_cast<uint32_t>(*size)) {
        OSL_LOG(LOG_LEVEL_ERROR, "Packet data length: %d exceed buffer length: %d.", static_cast<int>(data_len),
                *size);
        OSL_TRACED_RETURN(OSL_ERR_NO_MEMORY);
    }
    if (S_ReceiveEx(&handle->socket, buffer, data_len, timeout) != 1) {
        OSL_LOG(LOG_LEVEL_ERROR, "Receive netbase packet data failed: %s.", NetWork_GetErrorText());
        OSL_TRACED_RETURN(OSL_ERR_UNKNOWN);
    }
    *size = static_cast<int32_t>(data_len);
    OSL_LOG(LOG_LEVEL_TRACE, "Receive packet complete.");
    OSL_LOG_BIN(LOG_LEVEL_TRACE, "buffer", buffer, static_cast<int>(data_len));
    OSL_TRACED_RETURN(0);
}

OSTREL_API uint32_t netbase_receive_packet(NetbaseCtx *handle, void **buffer, int32_t *size, uint32_t timeout) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != buffer);
    OSL_ASSERT_ARG(NULL != size);
    OSL_LOG(LOG_LEVEL_TRACE, "Begin receive packet using dynamic memory, timeout=%d.", static_cast<int>(timeout));
    uint32_t data_len = 0;
    uint32_t rc = local_netbase_receive_packet_ctx(handle, timeout, &data_len);
    if (rc != 0) {
        OSL_LOG(LOG_LEVEL_ERROR, "Receive packet CTX failed.");
        OSL_TRACED_RETURN(rc);
    }
    if (handle->recv_buf == nullptr) {
        if (data_len >= kLargeAlloc)
            OSL_LOG(LOG_LEVEL_WARN, "Large malloc in %s, size=%d.", __func__, static_cast<int>(data_len));
        // At least one byte, so an empty packet still gets a buffer.
        auto *buf = static_cast<uint8_t *>(calloc(1, data_len != 0 ? data_len : 1));
        if (buf == nullptr) OSL_ALLOC_FAILED(data_len);
        // The capacity stays 0: the next non-empty packet resizes once.
        handle->recv_buf = buf;
    } else if (handle->recv_cap < data_len) {
        if (data_len >= kLargeAlloc)
            OSL_LOG(LOG_LEVEL_WARN, "Large realloc in %s, size=%d.", __func__, static_cast<int>(data_len));
        auto *buf = static_cast<uint8_t *>(realloc(handle->recv_buf, data_len));
        if (buf == nullptr) {
            OSL_LOG(LOG_LEVEL_ERROR, "Error in %s, realloc(%d) failed.", __func__, static_cast<int>(data_len));
            OSL_TRACE_EXIT(OSL_ERR_NO_MEMORY);
            return OSL_ERR_NO_MEMORY;
        }
        handle->recv_buf = buf;
        handle->recv_cap = data_len;
    }
    uint8_t *tmp_buf = handle->recv_buf;
    if (S_ReceiveEx(&handle->socket, tmp_buf, data_len, timeout) != 1) {
        OSL_LOG(LOG_LEVEL_ERROR, "Receive netbase packet data failed: %s.", NetWork_GetErrorText());
        OSL_TRACED_RETURN(OSL_ERR_UNKNOWN);
    }
    *buffer = tmp_buf;
    *size = static_cast<int32_t>(data_len);
    OSL_LOG(LOG_LEVEL_TRACE, "Receive packet complete.");
    OSL_LOG_BIN(LOG_LEVEL_TRACE, "*tmp_buf", tmp_buf, static_cast<int>(data_len));
    OSL_TRACED_RETURN(0);
}

// On a serving listen only the stop is requested; the accept loop serving it
// notices and releases the listen. Anything else is released here.
OSTREL_API uint32_t netbase_close(NetbaseCtx *pCtx) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != pCtx);
    NB_CHECK_MAGIC(pCtx);
    uint32_t expected = NETBASE_STATUS_SERVING;
    if (__atomic_compare_exchange_n(&pCtx->status, &expected, static_cast<uint32_t>(NETBASE_STATUS_STOP), false,
                                    __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
        OSL_TRACED_RETURN(0);
    // Accepted copies carry their listen's worker too; only the first detach
    // of a worker acts.
    if (pCtx->worker != 0) (void)ZurnGeneral_DetachWorkingThread(pCtx->worker);
    (void)S_Close(&pCtx->socket, 1);
    if (pCtx->recv_buf != nullptr)
        free(pCtx->recv_buf);
    else
        OSL_LOG(LOG_LEVEL_WARN, "Free null in %s.", __func__);
    memset(pCtx, 0, sizeof(NetbaseCtx));
    free(pCtx);
    OSL_LOG(LOG_LEVEL_TRACE, "Connection closed.");
    OSL_TRACED_RETURN(0);
}

OSTREL_API uint32_t netbase_get_info(NetbaseCtx *handle, int32_t type, void *out) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != handle);
    NB_CHECK_MAGIC(handle);
    switch (type) {
    case NETBASE_INFO_SOCKET:
        if (out != nullptr) memcpy(out, &handle->socket, sizeof handle->socket);
        break;
    case NETBASE_INFO_ADDRESS:
        if (out != nullptr) memcpy(out, &handle->addr, sizeof handle->addr);
        break;
    case NETBASE_INFO_PORT:
        if (out != nullptr) memcpy(out, &handle->port, sizeof handle->port);
        break;
    default:
        // An argument check without a message: traced, not stored.
        NB_EXIT(OSL_ERR_INVALID_PARAMETER);
    }
    OSL_TRACED_RETURN(0);
}

OSTREL_API uint32_t netbase_get_listening_info(NetbaseCtx *handle, const char **address, uint32_t *port) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != handle);
    NB_CHECK_MAGIC(handle);
    if (address != nullptr) *address = handle->addr;
    if (port != nullptr) *port = handle->port;
    OSL_TRACED_RETURN(0);
}

OSTREL_API uint32_t netbase_duplicate_handle(NetbaseCtx *handle, void *reserved) {
    (void)handle;
    (void)reserved;
    OSL_TRACE_EXIT(0);
    return 0;
}

OSTREL_API uint32_t netbase_get_duplicated_handle(void *reserved, NetbaseCtx **phandle) {
    (void)reserved;
    (void)phandle;
    OSL_TRACE_EXIT(0);
    return 0;
}

OSTREL_API const char *netbase_get_error_text(uint32_t code) { return Ostrel_GetErrorText(code); }

OSTREL_API const char *netbase_get_last_error_text(void) { return "Success"; }

} // extern "C"

// ---------------------------------------------------------------------------
// Servers
// ---------------------------------------------------------------------------

namespace {

using ServeStep = uint32_t (*)(NetbaseCtx *);

// A listen handle: the fixed fields, then the address text in the tail.
uint32_t local_netbase_create_ctx(const char *ip_addr, NetbaseCtx **out) {
    OSL_TRACE_ENTER();
    size_t text_size = strlen(ip_addr) + 1;
    size_t total = sizeof(NetbaseCtx) + text_size;
    auto *ctx = static_cast<NetbaseCtx *>(calloc(1, total));
    if (ctx == nullptr) {
        OSL_LOG(LOG_LEVEL_ERROR, "Alloc memory (size=%d) failed.", static_cast<int>(total));
        NB_EXIT(OSL_ERR_NO_MEMORY);
    }
    ctx->magic = kNetbaseMagic;
    ctx->addr = reinterpret_cast<char *>(ctx) + sizeof(NetbaseCtx);
    memcpy(ctx->addr, ip_addr, text_size);
    ctx->addr_size = static_cast<uint32_t>(text_size);
    *out = ctx;
    NB_EXIT(0);
}

// An accepted connection's handle: a copy of its listen (callback, argument,
// port, worker and address text), without the receive buffer.
uint32_t local_netbase_duplicate_ctx(const NetbaseCtx *listen, NetbaseCtx **out) {
    OSL_TRACE_ENTER();
    size_t total = sizeof(NetbaseCtx) + listen->addr_size;
    auto *ctx = static_cast<NetbaseCtx *>(calloc(1, total));
    if (ctx == nullptr) {
        OSL_LOG(LOG_LEVEL_ERROR, "Alloc memory (size=%d) failed.", static_cast<int>(total));
        NB_EXIT(OSL_ERR_NO_MEMORY);
    }
    // Field by field: the listen's status may be written by netbase_close on
    // another thread meanwhile, and the copy does not take it anyway.
    ctx->magic = listen->magic;
    ctx->socket = listen->socket;
    ctx->cb = listen->cb;
    ctx->arg = listen->arg;
    ctx->addr_size = listen->addr_size;
    ctx->port = listen->port;
    ctx->peer_endian = listen->peer_endian;
    ctx->worker = listen->worker;
    ctx->status = NETBASE_STATUS_ACCEPTED;
    if (listen->addr != nullptr && listen->addr_size != 0) {
        ctx->addr = reinterpret_cast<char *>(ctx) + sizeof(NetbaseCtx);
        memcpy(ctx->addr, listen->addr, listen->addr_size);
    }
    *out = ctx;
    NB_EXIT(0);
}

uint32_t local_netbase_tcp_create_listen(const char *ip_addr, int32_t ip_port, NetbaseCtx **sock) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != ip_addr);
    OSL_ASSERT_ARG('\0' != *ip_addr);
    OSL_ASSERT_ARG(NULL != sock);
    OSL_ASSERT_ARG(ip_port >= 0);
    NetbaseCtx *ctx = nullptr;
    if (local_netbase_create_ctx(ip_addr, &ctx) != 0) {
        OSL_LOG(LOG_LEVEL_ERROR, "Create netbase CTX failed.");
        OSL_TRACED_RETURN(OSL_ERR_NO_MEMORY);
    }
    if (S_Open(&ctx->socket, 0, 0, 0) != 1) {
        OSL_LOG(LOG_LEVEL_ERROR, "Invoke S_Open failed: %s", NetWork_GetErrorText());
        release_handle(ctx);
        OSL_TRACED_RETURN(OSL_ERR_UNKNOWN);
    }
    if (S_Bind(&ctx->socket, ip_addr, ip_port) != 1) {
        OSL_LOG(LOG_LEVEL_ERROR, "Invoke S_Bind failed: %s", NetWork_GetErrorText());
        close_and_release(ctx);
        OSL_TRACED_RETURN(OSL_ERR_UNKNOWN);
    }
    if (S_Listen(&ctx->socket, kListenBacklog) != 1) {
        OSL_LOG(LOG_LEVEL_ERROR, "Invoke S_Listen failed: %s", NetWork_GetErrorText());
        close_and_release(ctx);
        OSL_TRACED_RETURN(OSL_ERR_UNKNOWN);
    }
    if (ip_port == 0) {
        struct sockaddr_in local;
        memset(&local, 0, sizeof local);
        if (S_GetSocketInfo(ctx->socket, &local) != 1) {
            OSL_LOG(LOG_LEVEL_ERROR, "Invoke S_GetSocketInfo failed: %s", NetWork_GetErrorText());
            close_and_release(ctx);
            OSL_TRACED_RETURN(OSL_ERR_UNKNOWN);
        }
        ctx->port = ntohs(local.sin_port);
    } else {
        ctx->port = static_cast<uint32_t>(ip_port);
    }
    *sock = ctx;
    store_status(ctx, NETBASE_STATUS_LISTEN);
    OSL_LOG(LOG_LEVEL_TRACE, "Establish TCP listen @%s:%d.", ctx->addr, static_cast<int>(ctx->port));
    OSL_TRACED_RETURN(0);
}

// Accepts one connection on a listen and hands it to the listen's callback.
uint32_t local_netbase_server_callback(NetbaseCtx *sock) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != sock);
    NB_CHECK_MAGIC(sock);
    OSL_LOG(LOG_LEVEL_TRACE, "Receive connection request.");
    if (sock->cb == nullptr) {
        OSL_LOG(LOG_LEVEL_ERROR, "No callback function to process incoming connection");
        NB_EXIT(OSL_ERR_UNIMPLEMENTED);
    }
    NetbaseCtx *conn = nullptr;
    if (local_netbase_duplicate_ctx(sock, &conn) != 0) {
        OSL_LOG(LOG_LEVEL_ERROR, "Duplicate netbase CTX failed.");
        NB_EXIT(OSL_ERR_NO_MEMORY);
    }
    if (S_Accept(sock->socket, &conn->socket, kLoopAcceptTimeout) != 1) {
        release_handle(conn);
        OSL_LOG(LOG_LEVEL_ERROR, "Invoke S_Accept failed: %s", NetWork_GetErrorText());
        NB_EXIT(OSL_ERR_UNKNOWN);
    }
    OSL_LOG(LOG_LEVEL_TRACE, "Connection Accepted.");
    store_status(conn, NETBASE_STATUS_ACCEPTED);
    uint32_t rc = sock->cb(conn, sock->arg);
    if (rc != 0) OSL_LOG(LOG_LEVEL_ERROR, "Call connected callback fail: %d.", static_cast<int>(rc));
    NB_EXIT(rc);
}

// The accept loop of one listen. The socket layer's wait comes back at least
// five times a second, so a stop request is seen promptly; a wait that ends
// with nothing pending just goes round again.
uint32_t local_netbase_io_multiplexing_select(NetbaseCtx *sock, ServeStep cb) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != sock);
    OSL_ASSERT_ARG(NULL != cb);
    NB_CHECK_MAGIC(sock);
    while (load_status(sock) == NETBASE_STATUS_SERVING) {
        int ready = S_CanAccept(&sock->socket, kCanAcceptWait);
        if (ready == 0) {
            OSL_LOG(LOG_LEVEL_ERROR, "Invoke S_CanAccept failed: %s", NetWork_GetErrorText());
            NB_EXIT(OSL_ERR_UNKNOWN);
        }
        if (load_status(sock) != NETBASE_STATUS_SERVING) NB_EXIT(0);
        if (ready != ZURN_ACCEPT_READY) continue;
        uint32_t rc = cb(sock);
        if (rc != 0) NB_EXIT(rc);
    }
    NB_EXIT(0);
}

// Body of a served listen, on a worker thread or the caller's. A listen
// whose stop was requested is released here; one whose serving failed stays
// as it is.
void *local_netbase_worker_thread(void *arg) {
    auto *ctx = static_cast<NetbaseCtx *>(arg);
    OSL_TRACE_ENTER();
    OSL_LOG(LOG_LEVEL_TRACE, "Start waiting for TCP connection.");
    if (local_netbase_io_multiplexing_select(ctx, local_netbase_server_callback) != 0)
        OSL_LOG(LOG_LEVEL_ERROR, "Waiting for connection failed.");
    OSL_LOG(LOG_LEVEL_TRACE, "Shutdown TCP server @%s:%d.", ctx->addr, static_cast<int>(ctx->port));
    if (load_status(ctx) == NETBASE_STATUS_STOP) (void)netbase_close(ctx);
    OSL_TRACE_EXIT(0);
    return nullptr;
}

} // namespace

extern "C" {

// Serves one listen on the calling thread. The listen is never handed out,
// so it is closed and released here when serving ends.
OSTREL_API uint32_t netbase_tcp_server(const char *ip_addr, int32_t ip_port, NetbaseConnectedCallback cb, void *arg) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != ip_addr);
    OSL_ASSERT_ARG('\0' != *ip_addr);
    OSL_ASSERT_ARG(NULL != cb);
    NetbaseCtx *listen = nullptr;
    uint32_t rc = local_netbase_tcp_create_listen(ip_addr, ip_port, &listen);
    if (rc != 0) {
        OSL_LOG(LOG_LEVEL_ERROR, "Create listen failed.");
        OSL_TRACED_RETURN(rc);
    }
    listen->cb = cb;
    listen->arg = arg;
    store_status(listen, NETBASE_STATUS_SERVING);
    OSL_LOG(LOG_LEVEL_TRACE, "Begin moniter port.");
    rc = local_netbase_io_multiplexing_select(listen, local_netbase_server_callback);
    close_and_release(listen);
    if (rc != 0) OSL_TRACED_RETURN(rc);
    OSL_LOG(LOG_LEVEL_TRACE, "Shutdown TCP server @%s:%d.", ip_addr, ip_port);
    OSL_TRACED_RETURN(0);
}

OSTREL_API uint32_t netbase_tcp_server_multi(const NetbaseServerInfo *info, int32_t number) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != info);
    OSL_ASSERT_ARG(number > 0);
    size_t slots_size = static_cast<size_t>(number) * sizeof(NetbaseCtx *);
    if (slots_size >= kLargeAlloc)
        OSL_LOG(LOG_LEVEL_WARN, "Large malloc in %s, size=%d.", __func__, static_cast<int>(slots_size));
    auto **slots = static_cast<NetbaseCtx **>(calloc(static_cast<size_t>(number), sizeof(NetbaseCtx *)));
    if (slots == nullptr) OSL_ALLOC_FAILED(slots_size);

    fd_set read_set;
    FD_ZERO(&read_set);
    int max_fd = -1;
    for (int32_t i = 0; i < number; ++i) {
        const char *address = info[i].address != nullptr ? info[i].address : "(null)";
        OSL_LOG(LOG_LEVEL_TRACE, "Launch TCP server @%s:%d.", address, info[i].port);
        NetbaseCtx *listen = nullptr;
        uint32_t rc = local_netbase_tcp_create_listen(info[i].address, info[i].port, &listen);
        // select() cannot watch a descriptor past its fixed set size.
        if (rc == 0 && listen->socket.iFd >= FD_SETSIZE) {
            close_and_release(listen);
            rc = OSL_ERR_UNKNOWN;
        }
        if (rc != 0) {
            OSL_LOG(LOG_LEVEL_ERROR, "Create listen on %s:%d failed.", address, info[i].port);
            // The listens already made are closed, newest first, and
            // released: nobody else can reach them.
            for (int32_t j = i - 1; j >= 0; --j) {
                if (slots[j] != nullptr) close_and_release(slots[j]);
            }
            free(slots);
            OSL_TRACED_RETURN(rc);
        }
        listen->cb = info[i].callback;
        listen->arg = info[i].arg;
        store_status(listen, NETBASE_STATUS_SERVING);
        slots[i] = listen;
        FD_SET(listen->socket.iFd, &read_set);
        if (listen->socket.iFd > max_fd) max_fd = listen->socket.iFd;
    }
    OSL_LOG(LOG_LEVEL_TRACE, "Begin moniter port.");

    for (;;) {
        fd_set ready = read_set;
        int n = select(max_fd + 1, &ready, nullptr, nullptr, nullptr);
        while (n == -1 && (errno == 4 || errno == 10)) n = select(max_fd + 1, &ready, nullptr, nullptr, nullptr);
        if (n <= 0) {
            OSL_LOG(LOG_LEVEL_ERROR, "Invoke select failed: (%d) errno=%d", n, errno);
            for (int32_t j = number - 1; j >= 0; --j) {
                if (slots[j] != nullptr) close_and_release(slots[j]);
            }
            free(slots);
            OSL_TRACED_RETURN(OSL_ERR_UNKNOWN);
        }
        int live = 0;
        max_fd = -1;
        for (int32_t i = 0; i < number; ++i) {
            NetbaseCtx *listen = slots[i];
            if (listen == nullptr) continue;
            int fd = listen->socket.iFd;
            if (FD_ISSET(fd, &ready) && local_netbase_server_callback(listen) != 0) {
                // Drop the failed listen; its descriptor leaves the set
                // before it is closed, so select never sees it again.
                FD_CLR(fd, &read_set);
                store_status(listen, NETBASE_STATUS_STOP);
                (void)netbase_close(listen);
                slots[i] = nullptr;
                continue;
            }
            ++live;
            if (fd > max_fd) max_fd = fd;
        }
        if (live == 0) break;
    }
    free(slots);
    OSL_LOG(LOG_LEVEL_TRACE, "All the listens terminated.");
    OSL_TRACED_RETURN(0);
}

OSTREL_API uint32_t netbase_tcp_establish_listen(const char *ip_addr, int32_t ip_port, NetbaseCtx **sock) {
    return local_netbase_tcp_create_listen(ip_addr, ip_port, sock);
}

OSTREL_API uint32_t netbase_wait_connection(NetbaseCtx *ctx, NetbaseConnectedCallback cb, void *arg, int32_t flag) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != ctx);
    OSL_ASSERT_ARG(NULL != cb);
    NB_CHECK_MAGIC(ctx);
    if (load_status(ctx) != NETBASE_STATUS_LISTEN) {
        OSL_LOG(LOG_LEVEL_ERROR, "API netbase_tcp_establish_listen() must be invoked before this.");
        OSL_TRACED_RETURN(OSL_ERR_INVALID_STATUS);
    }
    ctx->cb = cb;
    ctx->arg = arg;
    store_status(ctx, NETBASE_STATUS_SERVING);
    if (flag != 1) {
        // Serves here; the listen may be released before this returns.
        (void)local_netbase_worker_thread(ctx);
        OSL_TRACED_RETURN(0);
    }
    OSL_LOG(LOG_LEVEL_TRACE, "Create worker thread.");
    // The identifier lands in the listen before the worker runs, so every
    // accepted copy carries it.
    if (ZurnGeneral_CreateWorkingThread(local_netbase_worker_thread, ctx, &ctx->worker) != 1) {
        uint32_t err = static_cast<uint32_t>(errno);
        OSL_LOG(LOG_LEVEL_ERROR, "Can't create worker thread.");
        OSL_TRACED_RETURN(err);
    }
    OSL_TRACED_RETURN(0);
}

OSTREL_API uint32_t netbase_accept(NetbaseCtx *handle, NetbaseCtx **new_handle, uint32_t timeout) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != handle);
    OSL_ASSERT_ARG(NULL != new_handle);
    NB_CHECK_MAGIC(handle);
    if (load_status(handle) != NETBASE_STATUS_LISTEN) {
        OSL_LOG(LOG_LEVEL_ERROR, "API netbase_tcp_establish_listen() must be invoked before this.");
        OSL_TRACED_RETURN(OSL_ERR_INVALID_STATUS);
    }
    NetbaseCtx *conn = nullptr;
    if (local_netbase_duplicate_ctx(handle, &conn) != 0) {
        OSL_LOG(LOG_LEVEL_ERROR, "Duplicate netbase CTX failed.");
        OSL_TRACED_RETURN(OSL_ERR_NO_MEMORY);
    }
    if (S_Accept(handle->socket, &conn->socket, timeout) != 1) {
        release_handle(conn);
        OSL_LOG(LOG_LEVEL_ERROR, "Invoke S_Accept failed: %s", NetWork_GetErrorText());
        OSL_TRACED_RETURN(OSL_ERR_UNKNOWN);
    }
    OSL_LOG(LOG_LEVEL_TRACE, "Connection Accepted.");
    *new_handle = conn;
    store_status(conn, NETBASE_STATUS_ACCEPTED);
    OSL_TRACED_RETURN(0);
}

} // extern "C"
