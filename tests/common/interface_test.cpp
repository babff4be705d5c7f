// Runs what interface_in_c.c does with the header as a C program sees it.

#include "support.h"

extern "C" int zorvan_test_interface_in_c(void);

namespace {

class InterfaceTest : public zorvan::test::CommonTest {};

TEST_F(InterfaceTest, WorksFromC) {
    EXPECT_EQ(zorvan_test_interface_in_c(), 0);
}

TEST_F(InterfaceTest, TheRecordsHaveTheFieldsThatBackEndsFill) {
    EXPECT_EQ(ZORVAN_SUCCESS, 0U);
    EXPECT_EQ(ZORVAN_FAILURE, 0xffffffffU);
    EXPECT_EQ(sizeof(zorvan_result_t), 4U);
    EXPECT_EQ(ZORVAN_ERROR_TYPE_GENERIC, 6);
}

}  // namespace
