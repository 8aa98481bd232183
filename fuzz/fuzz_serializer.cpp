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

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const int previous = ZurnGeneral_SetLogLevel(16); // nothing is logged: the messages are tested elsewhere
    (void)previous;
    if (size > 0x7FFFFFFF) return 0;
    for (int f = slz_reader::kCopy; f <= slz_reader::kAllocate; ++f) {
        // Reference reads of a foreign-order packet convert it in place, so
        // each pass reads its own exact-size copy of the input.
        std::vector<unsigned char> packet(data, data + size);
        Ostrel_Serializer *h = nullptr;
        const Ostrel_SerializerConfig c = {1, 0, 1, 1, f == slz_reader::kCopy}; // copies read 32-bit pointer items
        if (Ostrel_Serializer_DeserializeInit_Ex(&c, packet.data(), static_cast<int>(size), &h) != 0) return 0;
        unsigned items = 0;
        slz_reader::read_all(h, static_cast<slz_reader::Flavour>(f), 0, items);
        Ostrel_Serializer_Destroy(h);
    }
    return 0;
}
