// The hash table, and FNV-1a against its published values.

#include <climits>
#include <cmath>
#include <set>
#include <vector>

#include "support.h"

namespace {

class HashtableTest : public zorvan::test::CommonTest {
  protected:
    void SetUp() override {
        CommonTest::SetUp();
        ASSERT_EQ(
            zorvan_hashtable_init(&table_, 4, zorvan_hashtable_string_hash, zorvan_hashtable_string_keyeq),
            0);
    }
    void TearDown() override {
        zorvan_hashtable_destroy(&table_);
        CommonTest::TearDown();
    }

    zorvan_hashtable_t table_ = nullptr;
    int one_ = 1;
    int two_ = 2;
};

TEST_F(HashtableTest, InsertedKeysAreFoundByTheirBytes) {
    const std::string key = "bucket";
    EXPECT_EQ(zorvan_hashtable_insert(&table_, "bucket", &one_), 0);
    EXPECT_EQ(zorvan_hashtable_lookup(&table_, key.c_str()), &one_);
    EXPECT_EQ(zorvan_hashtable_lookup(&table_, "bucke"), nullptr);
    EXPECT_EQ(zorvan_hashtable_lookup(&table_, "Bucket"), nullptr);
    EXPECT_EQ(zorvan_hashtable_size(&table_), 1U);
}

TEST_F(HashtableTest, InsertFailsWhenTheKeyExistsAndChangesNothing) {
    EXPECT_EQ(zorvan_hashtable_insert(&table_, "key", &one_), 0);
    EXPECT_EQ(zorvan_hashtable_insert(&table_, "key", &two_), -1);
    EXPECT_EQ(zorvan_hashtable_lookup(&table_, "key"), &one_);
    EXPECT_EQ(zorvan_hashtable_size(&table_), 1U);
}

TEST_F(HashtableTest, RemoveReturnsTheDatumOnce) {
    EXPECT_EQ(zorvan_hashtable_insert(&table_, "key", &one_), 0);
    EXPECT_EQ(zorvan_hashtable_remove(&table_, "other"), nullptr);
    EXPECT_EQ(zorvan_hashtable_remove(&table_, "key"), &one_);
    EXPECT_EQ(zorvan_hashtable_remove(&table_, "key"), nullptr);
    EXPECT_EQ(zorvan_hashtable_size(&table_), 0U);
    EXPECT_EQ(zorvan_hashtable_insert(&table_, "key", &two_), 0);
    EXPECT_EQ(zorvan_hashtable_lookup(&table_, "key"), &two_);
}

TEST_F(HashtableTest, ChainsHoldMoreKeysThanThereAreBuckets) {
    std::vector<std::string> keys;
    for (int i = 0; i < 1000; ++i) {
        keys.push_back("key " + std::to_string(i));
    }
    for (std::string& key : keys) {
        ASSERT_EQ(zorvan_hashtable_insert(&table_, key.c_str(), &key), 0);
    }
    EXPECT_EQ(zorvan_hashtable_size(&table_), keys.size());
    for (size_t i = 0; i < keys.size(); i += 2) {  // out of the middle of the chains
        ASSERT_EQ(zorvan_hashtable_remove(&table_, keys[i].c_str()), &keys[i]);
    }
    for (size_t i = 0; i < keys.size(); ++i) {
        ASSERT_EQ(zorvan_hashtable_lookup(&table_, keys[i].c_str()), i % 2 == 0 ? nullptr : &keys[i]);
    }
    EXPECT_EQ(zorvan_hashtable_size(&table_), keys.size() / 2);
}

TEST_F(HashtableTest, DestroyAllHandsEveryDatumToTheDestructorOnce) {
    static std::multiset<void*> destroyed;
    destroyed.clear();
    std::vector<std::string> keys{"a", "b", "c", "d", "e", "f"};
    std::multiset<void*> inserted;
    for (std::string& key : keys) {
        ASSERT_EQ(zorvan_hashtable_insert(&table_, key.c_str(), &key), 0);
        inserted.insert(&key);
    }
    zorvan_hashtable_destroy_all(&table_, +[](void* datum) { destroyed.insert(datum); });
    EXPECT_EQ(destroyed, inserted);
    EXPECT_EQ(table_, nullptr);
    zorvan_hashtable_destroy_all(&table_, +[](void* datum) { destroyed.insert(datum); });
    EXPECT_EQ(destroyed, inserted);
}

TEST_F(HashtableTest, DestroyLeavesTheDataAlone) {
    ASSERT_EQ(zorvan_hashtable_insert(&table_, "key", &one_), 0);
    zorvan_hashtable_destroy(&table_);
    EXPECT_EQ(table_, nullptr);
    EXPECT_EQ(one_, 1);
}

TEST_F(HashtableTest, AMissingTableIsEmptyAndRefusesKeys) {
    zorvan_hashtable_t missing = nullptr;
    for (zorvan_hashtable_t* table : {static_cast<zorvan_hashtable_t*>(nullptr), &missing}) {
        EXPECT_EQ(zorvan_hashtable_insert(table, "key", &one_), -1);
        EXPECT_EQ(zorvan_hashtable_lookup(table, "key"), nullptr);
        EXPECT_EQ(zorvan_hashtable_remove(table, "key"), nullptr);
        EXPECT_EQ(zorvan_hashtable_size(table), 0U);
        zorvan_hashtable_destroy(table);
        zorvan_hashtable_destroy_all(table, nullptr);
    }
}

TEST_F(HashtableTest, InitRefusesBadArguments) {
    zorvan_hashtable_t table = table_;
    EXPECT_EQ(zorvan_hashtable_init(&table, 0, zorvan_hashtable_string_hash, zorvan_hashtable_string_keyeq),
              -1);
    EXPECT_EQ(table, nullptr);
    EXPECT_EQ(zorvan_hashtable_init(&table, -1, zorvan_hashtable_string_hash, zorvan_hashtable_string_keyeq),
              -1);
    EXPECT_EQ(zorvan_hashtable_init(&table, 1, nullptr, zorvan_hashtable_string_keyeq), -1);
    EXPECT_EQ(zorvan_hashtable_init(&table, 1, zorvan_hashtable_string_hash, nullptr), -1);
    EXPECT_EQ(zorvan_hashtable_init(nullptr, 1, zorvan_hashtable_string_hash, zorvan_hashtable_string_keyeq),
              -1);
}

TEST_F(HashtableTest, AnyHashAndEqualityWillDo) {
    zorvan_hashtable_t numbers = nullptr;
    ASSERT_EQ(zorvan_hashtable_init(
                  &numbers, 1, +[](const void*, int) { return 0; },
                  +[](const void* left, const void* right) {
                      return *static_cast<const int*>(left) == *static_cast<const int*>(right) ? 1 : 0;
                  }),
              0);
    int key = 1;
    EXPECT_EQ(zorvan_hashtable_insert(&numbers, &one_, &one_), 0);
    EXPECT_EQ(zorvan_hashtable_insert(&numbers, &two_, &two_), 0);
    EXPECT_EQ(zorvan_hashtable_lookup(&numbers, &key), &one_);
    zorvan_hashtable_destroy(&numbers);
}

TEST_F(HashtableTest, StringEqualityTakesNull) {
    EXPECT_NE(zorvan_hashtable_string_keyeq("a", std::string("a").c_str()), 0);
    EXPECT_EQ(zorvan_hashtable_string_keyeq("a", "b"), 0);
    EXPECT_EQ(zorvan_hashtable_string_keyeq("a", nullptr), 0);
    EXPECT_EQ(zorvan_hashtable_string_keyeq(nullptr, "a"), 0);
    EXPECT_NE(zorvan_hashtable_string_keyeq(nullptr, nullptr), 0);
}

/** FNV-1a reduced by the largest limit there is. */
int hash31(const char* text) {
    return zorvan_hashtable_string_hash(text, INT_MAX);
}

constexpr int reduced(uint32_t hash) {
    return static_cast<int>(hash % INT_MAX);
}

TEST(StringHashTest, IsFnv1aAsPublished) {
    // Test vectors of the algorithm's authors (32-bit FNV-1a).
    EXPECT_EQ(hash31(""), reduced(0x811c9dc5U));
    EXPECT_EQ(hash31("a"), reduced(0xe40c292cU));
    EXPECT_EQ(hash31("b"), reduced(0xe70c2de5U));
    EXPECT_EQ(hash31("c"), reduced(0xe60c2c52U));
    EXPECT_EQ(hash31("foobar"), reduced(0xbf9cf968U));
    EXPECT_EQ(hash31("chongo was here!\n"), reduced(0xd49930d5U));
    EXPECT_EQ(zorvan_hashtable_string_hash("a", 1000), static_cast<int>(0xe40c292cU % 1000));
}

TEST(StringHashTest, BytesAbove127AreUnsigned) {
    uint32_t hash = 2166136261U;
    for (const uint32_t byte : {0xc3U, 0xa4U, 0xffU}) {
        hash = (hash ^ byte) * 16777619U;
    }
    EXPECT_EQ(hash31("\xc3\xa4\xff"), reduced(hash));
}

TEST(StringHashTest, StaysBelowTheLimit) {
    for (const int limit : {1, 2, 3, 256, 1024, INT_MAX}) {
        for (int i = 0; i < 1000; ++i) {
            const int hash = zorvan_hashtable_string_hash(std::to_string(i).c_str(), limit);
            ASSERT_GE(hash, 0);
            ASSERT_LT(hash, limit);
        }
    }
    EXPECT_EQ(zorvan_hashtable_string_hash("a", 0), 0);
    EXPECT_EQ(zorvan_hashtable_string_hash("a", -5), 0);
    EXPECT_EQ(zorvan_hashtable_string_hash(nullptr, INT_MAX), hash31(""));
}

TEST(StringHashTest, SpreadsKeysThatLookAlike) {
    for (const int limit : {256, 1000, 1024}) {
        std::vector<int> load(static_cast<size_t>(limit));
        const int keys = limit * 100;
        for (int i = 0; i < keys; ++i) {
            const std::string key = "bucket/folder/file-" + std::to_string(i) + ".dat";
            ++load[static_cast<size_t>(zorvan_hashtable_string_hash(key.c_str(), limit))];
        }
        // Chi-square against an even spread, mean limit - 1 and variance twice that; five deviations are the
        // border.
        double chi_square = 0;
        for (const int count : load) {
            chi_square += (count - 100.0) * (count - 100.0) / 100.0;
        }
        EXPECT_LT(chi_square, limit + 5 * std::sqrt(2.0 * limit)) << limit;
    }
}

}  // namespace
