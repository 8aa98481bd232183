// libFuzzer target: any bytes are opened as a received packet and, when they
// validate, every item found in them is taken out with copy, reference and
// allocate descriptors, recursing into nested packets. The reader must never
// touch a byte outside the input, loop without end, leak, or allocate more
// than the input's size justifies.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz_serializer_reader.h"
#include "zurn_general.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    ZurnGeneral_SetLogLevel(16); // nothing is logged: the messages are tested elsewhere
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 0x7FFFFFFF) return 0;
    for (int f = 0; f < 3; ++f) {
        // Reference reads of a foreign-order packet convert it in place, so
        // each pass reads its own exact-size copy of the input.
        std::vector<unsigned char> packet(data, data + size);
        Ostrel_Serializer *h = nullptr;
        uint32_t rc;
        if (f == slz_reader::kCopy) {
            // The copy pass also reads pointer items as 32-bit values.
            const Ostrel_SerializerConfig c32 = {1, 0, 1, 1, 1};
            rc = Ostrel_Serializer_DeserializeInit_Ex(&c32, packet.data(), static_cast<int>(size), &h);
        } else {
            rc = Ostrel_Serializer_DeserializeInit(packet.data(), static_cast<int>(size), &h);
        }
        if (rc != 0) return 0;
        slz_reader::Stats st;
        slz_reader::read_all(h, static_cast<slz_reader::Flavour>(f), 0, st);
        Ostrel_Serializer_Destroy(h);
    }
    return 0;
}
