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

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "ostrel.hpp"

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
    uint32_t connect(const char *host, int port) {
        auto c = ostrel::connection::connect(host, port, std::chrono::milliseconds(kTimeoutMs));
        if (c) conn_ = std::move(*c);
        return ostrel::to_code(c.error());
    }
    void close() { conn_ = ostrel::connection(); }

    // Sends one request and reads its reply. A transport or packet failure is
    // returned; the service's own verdict is in reply.code.
    uint32_t call(int32_t op, const char *key, const char *value, Reply &reply) {
        using ostrel::at;
        const std::chrono::milliseconds timeout(kTimeoutMs);
        std::error_code e;
        {
            auto req = ostrel::writer::create(packet_config());
            if (!req) return ostrel::to_code(req.error());
            if (!(e = req->write(at(1, op), at(2, key), at(3, value)))) {
                auto buf = req->buffer();
                e = buf ? conn_.send(*buf, timeout) : buf.error();
            }
        }
        auto in = e ? ostrel::result<ostrel::byte_view>(e) : conn_.receive(timeout);
        if (!in) return ostrel::to_code(in.error());
        reply = Reply{};
        auto rd = ostrel::reader::open(*in);
        if (!rd) return ostrel::to_code(rd.error());
        int32_t code = 0;
        std::string_view text, v;
        if ((e = rd->read(at(1, code), at(2, text)))) return ostrel::to_code(e);
        reply.code = static_cast<uint32_t>(code);
        reply.text = text;
        if (code != 0) return 0;
        if (op == KV_OP_GET && !(e = rd->read(at(3, v)))) reply.value = v;
        if (op == KV_OP_COUNT) e = rd->read(at(4, reply.count));
        if (op == KV_OP_LIST) {
            // The entry count comes first so the room for the entries can be sized.
            e = rd->read(at(4, reply.count));
            std::vector<ostrel::reader> items(!e && reply.count > 0 ? size_t(reply.count) : 0);
            if (!e) e = rd->read(at(5, items));
            for (auto &item : items) {
                std::string_view k;
                if (!e) e = item.read(at(1, k), at(2, v));
                if (!e) reply.entries.emplace_back(k, v);
            }
        }
        return ostrel::to_code(e);
    }

    NetbaseCtx *handle() const { return conn_.get(); }

private:
    ostrel::connection conn_;
};

} // namespace kv

#endif
