/* A tour of Ostrel's C++ layer (ostrel.hpp). The README shows the regions
 * between the "tour:" markers verbatim (a test checks that), and the test
 * suite builds and runs this program, so the samples cannot go stale. It
 * exits 0 only if every check held. */
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "ostrel.hpp"

using namespace std::chrono_literals;

static int failures;
#define CHECK(cond)                                                                      \
    do {                                                                                 \
        if (!(cond)) {                                                                   \
            fprintf(stderr, "tour.cpp: check failed at line %d: %s\n", __LINE__, #cond); \
            ++failures;                                                                  \
        }                                                                                \
    } while (0)

static void tour_table() {
    /* tour: cpp-table */
    auto made = ostrel::table<ostrel::string_key>::create(64); // a table, or the code why not
    ostrel::table<ostrel::string_key> &fruit = *made;          // the owner destroys it
    fruit.sort_by_key();                                       // walks can go in key order
    fruit.put("pear", "green");                                // adds, or replaces the value
    fruit.put("apple", "red");
    std::error_code missing = fruit.erase("plum");             // errors are values: not_found
    std::string listed;
    for (const auto &e : fruit.walk(ostrel::order::forward))
        listed += std::string(e.key) + "=" + std::string(e.value.str()) + " ";
    /* tour end */
    CHECK(made);
    CHECK(missing == ostrel::errc::not_found);
    CHECK(missing.message() == "Can not find specified item(node,element).");
    CHECK(listed == "apple=red pear=green ");
}

static void tour_serializer() {
    /* tour: cpp-serializer */
    using ostrel::at;
    auto out = ostrel::writer::create(ostrel::layout{false});     // unordered: items found by index
    std::vector<int64_t> values{1, 2, 3};
    out->write(at(1, int32_t(7)), at(2, "seven"), at(3, values)); // the types make "%1.d %2.s %3.al"
    auto in = ostrel::reader::open(*out->buffer());               // validates the whole packet
    int32_t id = 0;
    std::string_view name;    // a view into the packet
    std::vector<int64_t> back; // a copy of the array
    std::error_code e = in->read(at(1, id), at(2, name), at(3, back));
    /* tour end */
    CHECK(!e);
    CHECK(id == 7 && name == "seven" && back == values);
}

static void tour_netbase() {
    std::string echoed;
    /* tour: cpp-netbase */
    auto server = ostrel::listener::establish("127.0.0.1", 0); // port 0: any free port
    server->serve_in_background([](ostrel::connection c) {     // for each accepted connection
        std::error_code e = c.handshake(5s);
        auto got = e ? ostrel::result<ostrel::byte_view>(e) : c.receive(5s);
        if (got) c.send(*got, 5s);
    });                                                        // c is closed as the handler returns
    auto client = ostrel::connection::connect("127.0.0.1", int32_t(server->port()), 5s); // with the handshake
    client->send("ping", 5s);
    auto reply = client->receive(5s); // "ping", in memory of the connection
    /* tour end */
    CHECK(server && client);
    CHECK(reply && reply->str() == "ping");
}

static void tour_threads() {
    /* tour: cpp-threads */
    std::atomic<int> finished{0};
    {
        auto group = ostrel::thread_group::create();
        for (int i = 0; i < 4; ++i)
            group->spawn([&finished](ostrel::thread_node node) {
                while (!node.sleep(1s).value_or(true)) { // true once the group asks it to close
                }
                ++finished;
            });
    } // the owner cancels every thread and waits until all have ended
    /* tour end */
    CHECK(finished == 4);
}

int main() {
    tour_table();
    tour_serializer();
    tour_netbase();
    tour_threads();
    if (failures == 0) printf("tour.cpp: every check held\n");
    return failures == 0 ? 0 : 1;
}
