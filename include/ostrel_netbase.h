/**
 * @file ostrel_netbase.h
 *
 * Ostrel netbase: length-framed binary packets over TCP.
 *
 * Every packet starts with a 12-byte header:
 *
 *   byte 0     0xA6 | byte order (bit 0: 0 little-endian, 1 big-endian)
 *   bytes 1-2  reserved, 0 (checked only when the version is 0)
 *   byte 3     version, written as 0
 *   bytes 4-7  ex_len: length of an extension that follows the header
 *   bytes 8-11 data_len: length of the packet data after the extension
 *
 * The two lengths are written in the byte order of bit 0. Before packets
 * flow, each end sends one empty header (the handshake), from which the
 * other end learns the byte order its peer writes in; every later header
 * from that peer must carry the same bit. Extensions are read and dropped.
 * Data is limited to NETBASE_PACKET_LENGTH_MAX bytes; a packet of 0 bytes
 * cannot be sent (sending one succeeds and puts nothing on the wire).
 *
 * Handles are opaque and owned by the application from their creation to
 * netbase_close. They are not locked: one thread uses a handle at a time,
 * except that netbase_close may stop a serving listen from any thread.
 *
 * Every function returns 0 or an error code and logs entry and exit traces.
 * Failed argument checks return 0x9000F without storing it as the last
 * error; every other result is stored. Socket failures are logged with the
 * socket layer's text and returned as 0x90001. Time-outs are milliseconds;
 * 0 means no limit.
 */
#ifndef OSTREL_NETBASE_H
#define OSTREL_NETBASE_H

#include "ostrel_common.h"

OSTREL_EXTERN_C_BEGIN

#define NETBASE_PACKET_LENGTH_MAX 0x10000000

/** Handle statuses. */
#define NETBASE_STATUS_NEW 0       /**< client handle, not yet connected */
#define NETBASE_STATUS_LISTEN 1    /**< listen established, not serving */
#define NETBASE_STATUS_SERVING 2   /**< an accept loop runs on the listen */
#define NETBASE_STATUS_ACCEPTED 3  /**< server side of a connection */
#define NETBASE_STATUS_CONNECTED 4 /**< client side of a connection */
#define NETBASE_STATUS_STOP 5      /**< stop requested on a serving listen */

/** Information types of netbase_get_info. */
#define NETBASE_INFO_SOCKET 1  /**< the whole socket record (NETBASE_SOCKET_INFO_SIZE bytes) */
#define NETBASE_INFO_ADDRESS 2 /**< the listen address text pointer (const char *) */
#define NETBASE_INFO_PORT 3    /**< the listening port (uint32_t) */

/** Size of the socket record; its first field is the system's int descriptor. */
#define NETBASE_SOCKET_INFO_SIZE 48

typedef struct NetbaseCtx NetbaseCtx;

/** Called for every accepted connection with the new handle (in the accepted
 * status, owned by the callback from then on) and the user argument.
 * A non-zero result stops the serving loop that called it. */
typedef uint32_t (*NetbaseConnectedCallback)(NetbaseCtx *handle, void *arg);

/** One listen of netbase_tcp_server_multi. */
typedef struct NetbaseServerInfo {
    const char *address;               /**< local address to listen on */
    int32_t port;                      /**< local port; 0 lets the system choose */
    NetbaseConnectedCallback callback; /**< may be null: the listen is then dropped at its first connection */
    void *arg;                         /**< passed to the callback */
} NetbaseServerInfo;

/** Byte order of the lengths in every header this process sends from now on,
 * on every connection: 1 big-endian, 0 little-endian; other values are
 * refused with 0x9000F. */
OSTREL_API uint32_t netbase_set_big_endian(int32_t flag);

/** Connects to addr:port (dotted IPv4 or host name), runs the client half of
 * the handshake and stores a connected handle. *timeout bounds the connect
 * and each half of the handshake. */
OSTREL_API uint32_t netbase_client_tcp_connect(const char *addr, int32_t port, const uint32_t *timeout,
                                               NetbaseCtx **phandle);

/** Server half of the handshake, on a handle from an accept. */
OSTREL_API uint32_t netbase_server_handshake(NetbaseCtx *handle, uint32_t timeout);

/** Sends one packet of size bytes (0 .. NETBASE_PACKET_LENGTH_MAX). */
OSTREL_API uint32_t netbase_send_packet(NetbaseCtx *handle, const void *buffer, int32_t size, uint32_t timeout);

/** Receives one packet into the caller's buffer. *size is the capacity on
 * entry and the packet's length on success. A packet longer than the
 * buffer fails with 0x90006, leaves *size alone and stays unread. */
OSTREL_API uint32_t netbase_receive_packet_buf(NetbaseCtx *handle, void *buffer, int32_t *size, uint32_t timeout);

/** Receives one packet into memory owned by the handle, valid until the next
 * receive on the handle or netbase_close; the caller never frees it. */
OSTREL_API uint32_t netbase_receive_packet(NetbaseCtx *handle, void **buffer, int32_t *size, uint32_t timeout);

/** Closes a connection or a listen and releases the handle. On a serving
 * listen it only requests the stop and returns: the accept loop notices it
 * within a fifth of a second and then releases the listen itself. */
OSTREL_API uint32_t netbase_close(NetbaseCtx *pCtx);

/** Copies one item (NETBASE_INFO_*) to out; a null out is skipped. */
OSTREL_API uint32_t netbase_get_info(NetbaseCtx *handle, int32_t type, void *out);

/** The listen address (pointing into the handle) and port; either output may
 * be null. */
OSTREL_API uint32_t netbase_get_listening_info(NetbaseCtx *handle, const char **address, uint32_t *port);

/** Kept for compatibility: no effect, arguments not read, always 0. */
OSTREL_API uint32_t netbase_duplicate_handle(NetbaseCtx *handle, void *reserved);
/** Kept for compatibility: no effect, arguments not read, always 0. */
OSTREL_API uint32_t netbase_get_duplicated_handle(void *reserved, NetbaseCtx **phandle);

/** The text of an error code (as Ostrel_GetErrorText). */
OSTREL_API const char *netbase_get_error_text(uint32_t code);
/** Always "Success". */
OSTREL_API const char *netbase_get_last_error_text(void);

/** Listens on ip_addr:ip_port and serves connections on the calling thread
 * until accepting or a callback fails; returns that failure's code. */
OSTREL_API uint32_t netbase_tcp_server(const char *ip_addr, int32_t ip_port, NetbaseConnectedCallback cb, void *arg);

/** Listens on `number` addresses and serves them all on the calling thread
 * with select(). A listen whose accept or callback fails is dropped; the
 * call returns 0 when none is left. If any listen cannot be made, those
 * already made are closed and the failure's code is returned. */
OSTREL_API uint32_t netbase_tcp_server_multi(const NetbaseServerInfo *info, int32_t number);

/** Makes a listen (port 0 lets the system choose; netbase_get_listening_info
 * tells which) to be served by netbase_wait_connection or netbase_accept. */
OSTREL_API uint32_t netbase_tcp_establish_listen(const char *ip_addr, int32_t ip_port, NetbaseCtx **sock);

/** Serves an established listen: flag 1 on a new worker thread (returns at
 * once; a worker-start failure returns the system's errno value), any other
 * value on the calling thread until serving ends (then returns 0). Stop it
 * with netbase_close on the listen. */
OSTREL_API uint32_t netbase_wait_connection(NetbaseCtx *ctx, NetbaseConnectedCallback cb, void *arg, int32_t flag);

/** Accepts one connection on an established listen within timeout. */
OSTREL_API uint32_t netbase_accept(NetbaseCtx *handle, NetbaseCtx **new_handle, uint32_t timeout);

OSTREL_EXTERN_C_END

#endif /* OSTREL_NETBASE_H */
