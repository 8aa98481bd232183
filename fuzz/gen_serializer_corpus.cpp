// Writes the serializer fuzz target's seed corpus: small valid packets in
// every alignment, byte order and mode, with every kind of item.
//   g++ -std=c++17 -Iinclude fuzz/gen_serializer_corpus.cpp -L<build> -lOstrel -o gen
//   ./gen fuzz/corpus/serializer
#include <cstdio>
#include <string>

#include "ostrel_serializer.h"

static void save(const std::string &dir, const std::string &name, Ostrel_Serializer *h) {
    unsigned char *p = nullptr;
    int n = 0;
    if (Ostrel_Serializer_GetBuffer(h, &p, &n) != 0) return;
    FILE *f = fopen((dir + "/" + name).c_str(), "wb");
    if (!f) return;
    fwrite(p, 1, static_cast<size_t>(n), f);
    fclose(f);
}

static Ostrel_Serializer *make(unsigned endian, unsigned align, unsigned order, bool ptr32 = false) {
    Ostrel_SerializerConfig c = {ptr32 ? 1 : 0, endian, align, order, ptr32 ? 1u : 0u};
    Ostrel_Serializer *h = nullptr;
    Ostrel_Serializer_SerializeInit(&c, &h);
    return h;
}

int main(int argc, char **argv) {
    if (argc != 2) return 2;
    const std::string dir = argv[1];
    const unsigned char bytes[] = {1, 2, 3};
    const unsigned short shorts[] = {0x102, 0x304};
    const int ints[] = {-1, 0x12345678, 7};
    const long long longs[] = {-5, 0x1122334455667788};
    void *ptrs[] = {nullptr, reinterpret_cast<void *>(0x7fff0000)};
    for (unsigned endian = 0; endian < 2; ++endian)
        for (unsigned align : {1u, 2u, 4u, 8u})
            for (unsigned order = 0; order < 2; ++order) {
                const std::string tag = std::string(endian ? "be" : "le") + "_a" + std::to_string(align) +
                                        (order ? "_ordered" : "_unordered");
                Ostrel_Serializer *leaf = make(endian ^ 1, align == 8 ? 1 : align * 2, order ^ 1);
                Ostrel_Serializer_Serialize(leaf, 1, order ? "%3.d %9.s" : "%d %s", 42, "leaf");
                Ostrel_Serializer *members[] = {leaf, leaf};
                Ostrel_Serializer *h = make(endian, align, order);
                if (order)
                    Ostrel_Serializer_Serialize(h, 1, "%c%h%d%l%p%s%s%ac%ah%ad%al%ap#ad%b%ab", 0x41, 0x4243, 0x44454647,
                                                0x48494a4b4c4d4e4fLL, ptrs[1], "string", nullptr, bytes, 3, shorts, 2,
                                                ints, 3, longs, 2, ptrs, 2, nullptr, 9, leaf, members, 2);
                else
                    Ostrel_Serializer_Serialize(h, 1,
                                                "%1.c%2.h%3.d%4.l%5.p%6.s%7.s%8.ac%9.ah%10.ad%11.al%12.ap#13.ad%14.b"
                                                "%255.ab",
                                                0x41, 0x4243, 0x44454647, 0x48494a4b4c4d4e4fLL, ptrs[1], "string",
                                                nullptr, bytes, 3, shorts, 2, ints, 3, longs, 2, ptrs, 2, nullptr, 9,
                                                leaf, members, 2);
                save(dir, "full_" + tag, h);
                Ostrel_Serializer_Serialize(h, 2, "");
                save(dir, "empty_" + tag, h);
                Ostrel_Serializer_Destroy(h);
                Ostrel_Serializer_Destroy(leaf);
            }
    Ostrel_Serializer *p32 = make(0, 4, 1, true);
    Ostrel_Serializer_Serialize(p32, 1, "%p%p", reinterpret_cast<void *>(0x1234), nullptr);
    save(dir, "pointer32", p32);
    Ostrel_Serializer_Destroy(p32);
    return 0;
}
