// The ostrel-kvd request/reply protocol: serializer packets in unordered mode
// carried by netbase.
//
// Request items:                        Reply items:
//   1  int32   operation (KV_OP_*)        1  int32   result code (0: done)
//   2  string  key                        2  string  error text (NULL when 0)
//   3  string  value (put only)           3  string  value (get)
//                                         4  int32   count (count; list: entries)
//                                         5  packets entries in key order (list);
//                                                    each: 1 string key, 2 string value
#ifndef OSTREL_KV_PROTOCOL_H
#define OSTREL_KV_PROTOCOL_H

#include <cstdint>
#include <string>
#include <vector>

#include "ostrel_error.h"
#include "ostrel_netbase.h"
#include "ostrel_serializer.h"

namespace kv {

enum Op : int32_t { KV_OP_PUT = 1, KV_OP_GET = 2, KV_OP_DEL = 3, KV_OP_COUNT = 4, KV_OP_LIST = 5 };

constexpr int kDefaultPort = 27800;
constexpr uint32_t kTimeoutMs = 10000;

// Configuration of every packet the service and its client write.
inline Ostrel_SerializerConfig packet_config() {
    Ostrel_SerializerConfig c{};
    c.iExtended = 0;
    c.uEndian = 0;
    c.uAlign = 4;
    c.uOrder = 0; // unordered: items are found by index
    c.bPointer32 = 0;
    return c;
}

struct Reply {
    uint32_t code = 0;
    std::string text;
    std::string value;
    int32_t count = 0;
    std::vector<std::pair<std::string, std::string>> entries;
};

// A client connection: one request, one reply at a time.
class Client {
public:
    Client() = default;
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;
    ~Client() { close(); }

    uint32_t connect(const char *host, int port) {
        uint32_t timeout = kTimeoutMs;
        return netbase_client_tcp_connect(host, port, &timeout, &conn_);
    }
    void close() {
        if (conn_ != nullptr) netbase_close(conn_);
        conn_ = nullptr;
    }

    // Sends one request and reads its reply. A transport or packet failure is
    // returned; the service's own verdict is in reply.code.
    uint32_t call(int32_t op, const char *key, const char *value, Reply &reply) {
        Ostrel_SerializerConfig cfg = packet_config();
        Ostrel_Serializer *req = nullptr;
        uint32_t rc = Ostrel_Serializer_SerializeInit(&cfg, &req);
        if (rc != 0) return rc;
        rc = Ostrel_Serializer_Serialize(req, OSL_SLZ_MODE_APPEND, "%1.d %2.s %3.s", op, key, value);
        unsigned char *buf = nullptr;
        int len = 0;
        if (rc == 0) rc = Ostrel_Serializer_GetBuffer(req, &buf, &len);
        if (rc == 0) rc = netbase_send_packet(conn_, buf, len, kTimeoutMs);
        Ostrel_Serializer_Destroy(req);
        if (rc != 0) return rc;
        void *in = nullptr;
        int32_t in_len = 0;
        rc = netbase_receive_packet(conn_, &in, &in_len, kTimeoutMs);
        if (rc != 0) return rc;
        return parse_reply(static_cast<unsigned char *>(in), in_len, op, reply);
    }

    NetbaseCtx *handle() const { return conn_; }

private:
    static uint32_t parse_reply(unsigned char *pkt, int len, int32_t op, Reply &reply) {
        reply = Reply{};
        Ostrel_Serializer *h = nullptr;
        uint32_t rc = Ostrel_Serializer_DeserializeInit(pkt, len, &h);
        if (rc != 0) return rc;
        int32_t code = 0;
        char *text = nullptr;
        rc = Ostrel_Serializer_Deserialize(h, "%1.d @2.s", &code, &text);
        if (rc == 0) {
            reply.code = static_cast<uint32_t>(code);
            if (text != nullptr) reply.text = text;
        }
        if (rc == 0 && code == 0) {
            if (op == KV_OP_GET) {
                char *v = nullptr;
                rc = Ostrel_Serializer_Deserialize(h, "@3.s", &v);
                if (rc == 0 && v != nullptr) reply.value = v;
            } else if (op == KV_OP_COUNT) {
                rc = Ostrel_Serializer_Deserialize(h, "%4.d", &reply.count);
            } else if (op == KV_OP_LIST) {
                // The entry count comes first so the handle array can be sized.
                rc = Ostrel_Serializer_Deserialize(h, "%4.d", &reply.count);
                unsigned int n = rc == 0 && reply.count > 0 ? static_cast<unsigned int>(reply.count) : 0;
                std::vector<Ostrel_Serializer *> items(n, nullptr);
                if (rc == 0) rc = Ostrel_Serializer_Deserialize(h, "@5.ab", items.data(), &n);
                for (Ostrel_Serializer *e : items) {
                    char *k = nullptr, *v = nullptr;
                    if (rc == 0 && e != nullptr) rc = Ostrel_Serializer_Deserialize(e, "@1.s @2.s", &k, &v);
                    if (rc == 0) reply.entries.emplace_back(k ? k : "", v ? v : "");
                    if (e != nullptr) Ostrel_Serializer_Destroy(e);
                }
            }
        }
        Ostrel_Serializer_Destroy(h);
        return rc;
    }

    NetbaseCtx *conn_ = nullptr;
};

} // namespace kv

#endif
