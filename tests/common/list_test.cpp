// Lists: order, size, and what is freed.

#include <vector>

#include "support.h"

namespace {

class ListTest : public zorvan::test::CommonTest {
  protected:
    std::vector<int> pop_all() {
        std::vector<int> values;
        while (list_ != nullptr) {
            values.push_back(*static_cast<int*>(zorvan_list_pop(&list_)));
        }
        return values;
    }

    zorvan_list_t* list_ = nullptr;
    int one_ = 1;
    int two_ = 2;
    int three_ = 3;
};

TEST_F(ListTest, InsertPutsInFrontAndAppendAtTheEnd) {
    EXPECT_EQ(zorvan_list_size(list_), 0U);
    EXPECT_EQ(zorvan_list_append(&list_, &two_), 0);
    EXPECT_EQ(zorvan_list_insert(&list_, &one_), 0);
    EXPECT_EQ(zorvan_list_append(&list_, &three_), 0);
    EXPECT_EQ(zorvan_list_size(list_), 3U);
    EXPECT_EQ(pop_all(), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(zorvan_list_pop(&list_), nullptr);
}

TEST_F(ListTest, FreeLeavesTheDataAlone) {
    EXPECT_EQ(zorvan_list_insert(&list_, &one_), 0);
    EXPECT_EQ(zorvan_list_insert(&list_, &two_), 0);
    zorvan_list_free(list_);
    zorvan_list_free(nullptr);
    EXPECT_EQ(one_ + two_, 3);
}

TEST_F(ListTest, DestroyAllHandsOverEveryDatumInOrder) {
    static std::vector<int> destroyed;
    destroyed.clear();
    for (int* datum : {&one_, &two_, &three_}) {
        EXPECT_EQ(zorvan_list_append(&list_, datum), 0);
    }
    zorvan_list_destroy_all(list_, +[](void* datum) { destroyed.push_back(*static_cast<int*>(datum)); });
    EXPECT_EQ(destroyed, (std::vector<int>{1, 2, 3}));
    zorvan_list_destroy_all(nullptr, +[](void*) { destroyed.push_back(0); });
    EXPECT_EQ(destroyed.size(), 3U);
}

TEST_F(ListTest, AMissingListIsRefused) {
    EXPECT_EQ(zorvan_list_insert(nullptr, &one_), -1);
    EXPECT_EQ(zorvan_list_append(nullptr, &one_), -1);
    EXPECT_EQ(zorvan_list_pop(nullptr), nullptr);
}

}  // namespace
