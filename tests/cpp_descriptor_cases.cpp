// Descriptor literals checked at compile time (C++20): check_cpp_descriptors.sh
// compiles this file once per CASE. CASE 0 must compile; every other CASE
// pairs a descriptor with values it does not describe and must not.
#include "ostrel.hpp"

void cases(ostrel::writer &w, ostrel::reader &r) {
    int32_t i = 0;
    int64_t l = 0;
    char buf[8];
    std::string s;
    int32_t arr[4] = {};
#if CASE == 0
    (void)w.writef("%d %l %s %ad #ad", i, l, "text", arr, ostrel::null_array<int32_t>{2});
    (void)r.readf("%1.d %2.l %3.s @4.s %5.ad", i, l, buf, s, arr);
#elif CASE == 1
    (void)w.writef("%l", i); // a 32-bit value where the descriptor says 64 bits
#elif CASE == 2
    (void)w.writef("%d", arr); // an array without 'a'
#elif CASE == 3
    (void)r.readf("%s", s); // a copy needs room and its size: a std::string reads by reference
#elif CASE == 4
    (void)w.writef("%d %d", i); // an item without its value
#elif CASE == 5
    (void)r.readf("%1.d %l", i, l); // indexes on some items only
#elif CASE == 6
    (void)w.writef("%ad", ostrel::null_array<int32_t>{2}); // a null array needs '#'
#endif
}

int main() {}
