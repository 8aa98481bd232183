// A C++ program outside the source tree, built against an installed Ostrel.
#include <cstdio>

#include "ostrel.hpp"

int main() {
    auto list = ostrel::list::create();
    if (!list) return 1;
    for (const char *word : {"alpha", "beta", "gamma"})
        if (list->push_back(word)) return 2;
    std::string joined;
    for (const auto &e : list->walk()) joined += e.value.str();
    if (joined != "alphabetagamma") return 3;
    const std::error_code e = list->at(7).error();
    if (e != ostrel::errc::not_found || e.message() != "Can not find specified item(node,element).") return 4;
    std::printf("consumer_cpp: %s, error text checked\n", joined.c_str());
    return 0;
}
