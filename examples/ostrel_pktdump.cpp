// ostrel-pktdump: prints a serialized packet as an indented tree.
//
//   ostrel-pktdump [--hex | --raw] [--log-dir DIR] [FILE | -]
//
// The packet is read from FILE or standard input, as raw bytes or as hex text
// (detected automatically unless --hex or --raw is given). It is first opened
// with the library's own reader, so a packet the library would refuse is
// reported with the library's reason and a non-zero exit status; a valid one
// is then walked item by item, nested packets recursively. No log file is
// written unless --log-dir names a directory.
#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "ostrel_serializer.h"
#include "tool_log.h"
#include "zurn_general.h"

namespace {

std::vector<std::string> g_reasons;

void capture(void *, const char *, int level, const char *path, int, const char *text) {
    if (level == LOG_LEVEL_ERROR && path != nullptr && strcmp(path, "src/serializer") == 0) g_reasons.push_back(text);
}

bool read_all(FILE *f, std::vector<unsigned char> &out) {
    unsigned char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) out.insert(out.end(), buf, buf + n);
    return !ferror(f);
}

bool looks_like_hex(const std::vector<unsigned char> &in) {
    if (in.empty()) return false;
    for (unsigned char c : in)
        if (!isxdigit(c) && !isspace(c)) return false;
    return true;
}

bool decode_hex(const std::vector<unsigned char> &in, std::vector<unsigned char> &out) {
    int hi = -1;
    for (unsigned char c : in) {
        if (isspace(c)) continue;
        if (!isxdigit(c)) return false;
        int v = isdigit(c) ? c - '0' : (tolower(c) - 'a' + 10);
        if (hi < 0) {
            hi = v;
        } else {
            out.push_back(static_cast<unsigned char>(hi << 4 | v));
            hi = -1;
        }
    }
    return hi < 0;
}

// Reads the packet's multi-byte values in the packet's own byte order.
struct Reader {
    const unsigned char *p;
    bool big;
    uint64_t get(size_t off, int size) const {
        uint64_t v = 0;
        for (int i = 0; i < size; ++i) {
            int k = big ? i : size - 1 - i;
            v = v << 8 | p[off + static_cast<size_t>(k)];
        }
        return v;
    }
};

size_t round_up(size_t n, size_t a) { return (n + a - 1) / a * a; }

const char *type_name(unsigned type) {
    switch (type) {
    case 1: return "int8";
    case 2: return "int16";
    case 4: return "int32";
    case 8: return "int64";
    case 20: return "pointer32";
    case 24: return "pointer64";
    case 32: return "string";
    case 48: return "packet";
    default: return "unknown";
    }
}

void print_string(const unsigned char *s, size_t len) {
    putchar('"');
    for (size_t i = 0; i + 1 < len; ++i) {
        unsigned char c = s[i];
        if (c == '"' || c == '\\')
            printf("\\%c", c);
        else if (isprint(c))
            putchar(c);
        else
            printf("\\x%02x", c);
    }
    putchar('"');
}

bool dump_packet(const unsigned char *pkt, size_t len, int depth);

void indent(int depth) { printf("%*s", depth * 2, ""); }

void print_scalar(const Reader &r, size_t off, unsigned type) {
    int size = (type == 20) ? 4 : (type == 24) ? 8 : static_cast<int>(type);
    uint64_t v = r.get(off, size);
    if (type == 20 || type == 24) {
        printf("0x%" PRIx64, v);
        return;
    }
    int64_t s = size == 8 ? static_cast<int64_t>(v) : size == 4 ? static_cast<int32_t>(v)
                          : size == 2 ? static_cast<int16_t>(v) : static_cast<int8_t>(v);
    printf("%" PRId64, s);
}

// Walks the items of a packet that the library has already validated.
bool dump_items(const unsigned char *pkt, size_t len, int depth) {
    Reader r{pkt, (pkt[2] & 1) != 0};
    const size_t align = pkt[3];
    const size_t slot = round_up(4, align);
    const bool ordered = (pkt[2] & 2) != 0;
    const unsigned count = pkt[8];
    const size_t hlen = pkt[9];
    const size_t items = r.get(10, 2);
    size_t pos = items;
    for (unsigned i = 0; i < count && pos + 4 <= len; ++i) {
        const uint32_t hdr = static_cast<uint32_t>(r.get(pos, 4));
        const size_t rel = pos - items;
        int index = -1;
        if (!ordered)
            for (unsigned k = 0; k < count; ++k) {
                uint32_t e = static_cast<uint32_t>(r.get(hlen + k * slot, 4));
                if ((e & 0xFFFFFFu) == rel) index = static_cast<int>(e >> 24);
            }
        const bool array = (hdr & 0x80000000u) != 0;
        const bool null_array = array && (hdr & 0x40000000u) != 0;
        const unsigned type = (hdr >> 24) & 0x3Fu;
        const size_t field = hdr & 0xFFFFFFu;
        indent(depth);
        printf("item %u", i);
        if (index >= 0) printf(" (index %d)", index);
        printf(": ");
        pos += slot;
        if (null_array) {
            printf("%s[] null array, count %" PRIu64 "\n", type_name(type), r.get(pos, 4));
            pos += slot;
        } else if (array && type == 48) {
            printf("packet[%zu]\n", field);
            for (size_t k = 0; k < field; ++k) {
                size_t plen = r.get(pos, 4) & 0xFFFFFFu;
                pos += slot;
                indent(depth + 1);
                printf("packet %zu (%zu bytes)\n", k, plen);
                if (!dump_packet(pkt + pos, plen, depth + 2)) return false;
                pos += round_up(plen, align);
            }
        } else if (array) {
            int size = (type == 20) ? 4 : (type == 24) ? 8 : static_cast<int>(type);
            size_t n = field / static_cast<size_t>(size);
            printf("%s[%zu] {", type_name(type), n);
            for (size_t k = 0; k < n; ++k) {
                printf(k ? ", " : " ");
                print_scalar(r, pos + k * static_cast<size_t>(size), type);
            }
            printf(n ? " }\n" : "}\n");
            pos += round_up(field, align);
        } else if (type == 32) {
            printf("string ");
            if (field == 0)
                printf("NULL");
            else
                print_string(pkt + pos, field);
            printf("\n");
            pos += round_up(field, align);
        } else if (type == 48) {
            printf("packet (%zu bytes)\n", field);
            if (!dump_packet(pkt + pos, field, depth + 1)) return false;
            pos += round_up(field, align);
        } else {
            printf("%s ", type_name(type));
            print_scalar(r, pos, type);
            printf("\n");
            pos += round_up(field, align);
        }
    }
    return true;
}

bool dump_packet(const unsigned char *pkt, size_t len, int depth) {
    g_reasons.clear();
    Ostrel_Serializer *h = nullptr;
    uint32_t rc = Ostrel_Serializer_DeserializeInit(pkt, static_cast<int>(len), &h);
    if (rc != 0) {
        indent(depth);
        printf("invalid packet (0x%x):", rc);
        for (const auto &r : g_reasons) printf(" %s", r.c_str());
        printf("\n");
        return false;
    }
    Ostrel_Serializer_Destroy(h);
    Reader r{pkt, (pkt[2] & 1) != 0};
    indent(depth);
    printf("packet: %s-endian, align %u, %s, length %" PRIu64 ", %u items, header %u, items at %" PRIu64 "\n",
           r.big ? "big" : "little", pkt[3], (pkt[2] & 2) ? "ordered" : "unordered", r.get(4, 4), pkt[8], pkt[9],
           r.get(10, 2));
    return dump_items(pkt, len, depth + 1);
}

int usage() {
    fprintf(stderr, "usage: ostrel-pktdump [--hex | --raw] [--log-dir DIR] [FILE | -]\n");
    return 2;
}

} // namespace

int main(int argc, char **argv) {
    int format = 0; // 0 auto, 1 hex, 2 raw
    const char *path = nullptr, *log_dir = nullptr;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--hex") == 0)
            format = 1;
        else if (strcmp(argv[i], "--raw") == 0)
            format = 2;
        else if (strcmp(argv[i], "--log-dir") == 0 && i + 1 < argc)
            log_dir = argv[++i];
        else if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0)
            return usage(), 0;
        else if (path == nullptr)
            path = argv[i];
        else
            return usage();
    }
    if (int st = tool_log::start("ostrel-pktdump", log_dir, argv)) return st;
    FILE *f = (path == nullptr || strcmp(path, "-") == 0) ? stdin : fopen(path, "rb");
    if (f == nullptr) {
        fprintf(stderr, "ostrel-pktdump: cannot open %s: %s\n", path, strerror(errno));
        return 2;
    }
    std::vector<unsigned char> in, pkt;
    bool ok = read_all(f, in);
    const int err = errno;
    if (f != stdin) fclose(f);
    if (!ok) {
        fprintf(stderr, "ostrel-pktdump: cannot read %s: %s\n", f == stdin ? "standard input" : path, strerror(err));
        return 2;
    }
    if (format == 1 || (format == 0 && looks_like_hex(in))) {
        if (!decode_hex(in, pkt)) {
            fprintf(stderr, "ostrel-pktdump: the hex text has a character that is no hex digit, or an odd number of "
                            "digits (--raw reads the bytes as they are)\n");
            return 2;
        }
    } else {
        pkt.swap(in);
    }
    if (pkt.size() > 0x7FFFFFFFu) {
        fprintf(stderr, "ostrel-pktdump: input too large (a packet holds at most 2 GiB)\n");
        return 2;
    }
    ZurnGeneral_SetLogSink(capture, nullptr, log_dir != nullptr ? ZURN_LOG_SINK_AND_FILE : ZURN_LOG_SINK_ONLY);
    if (ZurnGeneral_GetLogLevel() > LOG_LEVEL_ERROR) ZurnGeneral_SetLogLevel(LOG_LEVEL_ERROR);
    bool valid = dump_packet(pkt.data(), pkt.size(), 0);
    ZurnGeneral_SetLogSink(nullptr, nullptr, ZURN_LOG_SINK_AND_FILE);
    return valid ? 0 : 1;
}
