// Error texts, module names and the last error.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "osl_internal.h"
#include "ostrel_error.h"
#include "ostrel_list.h"

namespace {

std::string text(uint32_t code) { return Ostrel_GetErrorText(code); }

TEST(ErrorText, GenericTextsIgnoreModuleAndBits14To8) {
    EXPECT_EQ(text(0x9000F), "Invalid parameter.");
    EXPECT_EQ(text(0x0000F), "Invalid parameter.");
    EXPECT_EQ(text(0xA000F), "Invalid parameter.");
    EXPECT_EQ(text(0x9010F), "Invalid parameter.");
    EXPECT_EQ(text(0x97F10), "Invalid handle.");
    EXPECT_EQ(text(0x90001), "Unknown error.");
    EXPECT_EQ(text(0x90034), "Invalid serial no.");
    EXPECT_EQ(text(0x90018), "Can not find specified item(node,element).");
    EXPECT_EQ(text(0x9002B), "Async worker is busy, can not start more task.");
}

TEST(ErrorText, CodesWithoutTextAreUnregistered) {
    for (uint32_t code : {0x0u, 0x90000u, 0x90035u, 0x900FFu, 0x90100u, 0x4000000Fu, 0xFFFFFFFFu, 0x3FF8004u,
                          0x98001u, 0x3FF8000u})
        EXPECT_EQ(text(code), "Unregisted errno.") << std::hex << code;
}

TEST(ErrorText, EveryGenericNumberHasItsOwnText) {
    // 1..52 all have distinct, non-empty texts; the table has no gaps or repeats.
    std::set<std::string> seen;
    for (uint32_t n = 1; n <= 52; ++n) {
        std::string t = text(0x90000 | n);
        EXPECT_NE(t, "Unregisted errno.") << n;
        EXPECT_FALSE(t.empty());
        EXPECT_EQ(t.back(), '.') << n;
        seen.insert(t);
    }
    EXPECT_EQ(seen.size(), 52u);
}

TEST(ErrorText, ModuleSpecificTextsNeedTheWholeCode) {
    EXPECT_EQ(text(0x3FF8001), "[demo]TEST1.");
    EXPECT_EQ(text(0x3FF8002), "[demo]TEST2.");
    EXPECT_EQ(text(0x3FF8003), "[demo]TEST3.");
    EXPECT_EQ(text(0x3FF8102), "Unregisted errno."); // bits 14..8 matter here
    EXPECT_EQ(text(0x0008002), "Unregisted errno.");
}

TEST(ErrorText, ModuleNames) {
    EXPECT_STREQ(Local_GetErrModule(0x9000F), "ostrel");
    EXPECT_STREQ(Local_GetErrModule(0xA0001), "netbase");
    EXPECT_STREQ(Local_GetErrModule(0x0000F), "base");
    EXPECT_STREQ(Local_GetErrModule(0x3FF0000), "demo");
    EXPECT_STREQ(Local_GetErrModule(0x3FFFFFF), "demo");
    EXPECT_STREQ(Local_GetErrModule(0x3FE0000), "???");
    EXPECT_STREQ(Local_GetErrModule(0xFFFF0000), "???");
}

TEST(ErrorText, LastErrorTextFollowsTheLastCall) {
    OstrelListHandle list = nullptr;
    ASSERT_EQ(Ostrel_List_Create(&list, NODE_STORAGE_REFERENCE), 0u);
    EXPECT_EQ(Ostrel_List_GetNode(list, 0, nullptr, nullptr), OSL_ERR_NOT_FOUND);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_NOT_FOUND);
    EXPECT_STREQ(Ostrel_GetLastErrorText(), "Can not find specified item(node,element).");
    // Reading the text does not change the last error.
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_NOT_FOUND);
    ASSERT_EQ(Ostrel_List_Destroy(list), 0u);
    EXPECT_EQ(Ostrel_GetLastError(), 0u);
    EXPECT_STREQ(Ostrel_GetLastErrorText(), "Unregisted errno.");
}

} // namespace
