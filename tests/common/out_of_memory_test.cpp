// What happens when memory or threads run out: each call is repeated with its first, second, ... allocation
// failing until one run needs no more, so that no allocation goes untested.

#include <cerrno>
#include <vector>

#include "failing_system.h"
#include "support.h"

namespace {

using zorvan::test::consume;
using zorvan::test::Environment;
using zorvan::test::FailingAllocations;
using zorvan::test::FailingThreads;
using zorvan::test::friendly;
using zorvan::test::generic_error;
using zorvan::test::live_blocks;

constexpr int kMostAllocations = 100;

constexpr zorvan_module_descriptor_t kDescriptor{.name = "out_of_memory_test",
                                                 .activate = nullptr,
                                                 .deactivate = nullptr,
                                                 .reserved_1 = nullptr,
                                                 .reserved_2 = nullptr,
                                                 .version = nullptr};

class OutOfMemoryTest : public zorvan::test::CommonTest {
  protected:
    void SetUp() override {
        CommonTest::SetUp();
        // Tables and locale state that stay for the life of the process are made before anything is counted.
        zorvan_error_free(zorvan_error_get(zorvan_error_put(generic_error("warm up"))));
        ASSERT_EQ(zorvan_module_activate(&kDescriptor), ZORVAN_SUCCESS);
        ASSERT_EQ(zorvan_module_deactivate(&kDescriptor), ZORVAN_SUCCESS);
        ASSERT_EQ(zorvan_thread_count(), 0U);
    }

    /**
     * Calls `attempt` with every allocation failing in turn, and once without failures.
     * @param attempt  runs the call with failures, and after `end_failures()` checks its outcome
     *                 (allocation-free code between the two)
     * @return how many runs had a failure
     */
    template <class Attempt>
    static int fail_each_allocation(Attempt attempt) {
        for (int after = 0; after < kMostAllocations; ++after) {
            const long before = live_blocks();
            bool failed = false;
            {
                std::optional<FailingAllocations> failures(std::in_place, after);
                const auto end_failures = [&] {
                    failed = failures->failed();
                    failures.reset();
                    return failed;
                };
                attempt(end_failures);
            }
            EXPECT_EQ(live_blocks(), before) << "leaked when allocation " << after << " failed";
            if (!failed) return after;
        }
        ADD_FAILURE() << "still failing after " << kMostAllocations << " allocations";
        return kMostAllocations;
    }
};

TEST_F(OutOfMemoryTest, ConstructingAnErrorGivesTheStaticObject) {
    const int failures = fail_each_allocation([](auto end_failures) {
        zorvan_error_t* cause = zorvan_i_gfs_error_system(nullptr, EIO, "cause");
        zorvan_error_t* error =
            zorvan_error_construct_error(nullptr, cause, 6, "file", "function", 1, "%s", "text");
        const bool failed = end_failures();
        ASSERT_NE(error, nullptr);
        EXPECT_EQ(friendly(error), failed ? "out of memory" : "text\ncause: Input/output error");
        EXPECT_EQ(zorvan_error_get_cause(error), failed ? nullptr : cause);
        zorvan_error_free(error);
    });
    EXPECT_EQ(failures, 6);  // two objects, two texts, two places
}

TEST_F(OutOfMemoryTest, ConstructingAnFtpResponseGivesTheStaticObject) {
    const int failures = fail_each_allocation([](auto end_failures) {
        zorvan_error_t* error =
            zorvan_gfs_ftp_response_error_construct(nullptr, nullptr, 550, "PATH_NOT_FOUND", "%s", "text");
        const bool failed = end_failures();
        EXPECT_EQ(friendly(error), failed ? "out of memory" : "text");
        zorvan_error_free(error);
    });
    EXPECT_EQ(failures, 3);  // object, text, word
}

TEST_F(OutOfMemoryTest, PuttingAnErrorGivesTheHandleOfTheStaticObject) {
    const int failures = fail_each_allocation([](auto end_failures) {
        zorvan_result_t result = zorvan_error_put(generic_error("put"));
        const bool failed = end_failures();
        EXPECT_NE(result, ZORVAN_SUCCESS);
        EXPECT_NE(result, ZORVAN_FAILURE);
        if (failed) {
            EXPECT_EQ(zorvan_error_table_count(), 0U);
            EXPECT_EQ(friendly(zorvan_error_peek(result)), "out of memory");
            EXPECT_EQ(consume(result), "out of memory");  // freeing it does nothing
        }
        EXPECT_EQ(consume(result), failed ? "out of memory" : "put");
    });
    EXPECT_GE(failures, 5);  // the object's four, the table's node
}

TEST_F(OutOfMemoryTest, TheTableStaysUsableWhenItCannotGrow) {
    std::vector<zorvan_result_t> results(64);
    {
        std::vector<zorvan_error_t*> errors;
        for (size_t i = 0; i < results.size(); ++i) {
            errors.push_back(generic_error(std::to_string(i).c_str()));
        }
        for (size_t i = 0; i < results.size(); ++i) {
            std::optional<FailingAllocations> failures;
            if (i % 2 == 1)
                failures.emplace(static_cast<long>(i / 2 % 2));  // the node's or the bucket array's
            results[i] = zorvan_error_put(errors[i]);
        }
    }
    for (size_t i = 0; i < results.size(); i += 2) {
        EXPECT_EQ(consume(results[i]), std::to_string(i));
    }
    for (size_t i = 1; i < results.size(); i += 2) {
        const std::string text = consume(results[i]);
        EXPECT_TRUE(text == "out of memory" || text == std::to_string(i)) << text;
        if (i % 4 == 1) {
            EXPECT_EQ(text, "out of memory");
        }
    }
}

TEST_F(OutOfMemoryTest, AStaticObjectMayBeACauseAndIsPutAndTakenAtWill) {
    zorvan_error_t* exhausted = nullptr;
    {
        const FailingAllocations failures(0);
        exhausted = generic_error("never made");
        zorvan_error_free(exhausted);
        EXPECT_EQ(zorvan_error_put(exhausted), zorvan_error_put(exhausted));
    }
    zorvan_error_t* error = generic_error("above", exhausted);
    EXPECT_EQ(friendly(error), "above\nout of memory");
    zorvan_error_free(error);
    EXPECT_EQ(friendly(exhausted), "out of memory");
    EXPECT_EQ(zorvan_error_get(zorvan_error_put(exhausted)), exhausted);
    EXPECT_EQ(zorvan_error_get(zorvan_error_put(exhausted)), exhausted);
    EXPECT_EQ(zorvan_error_table_count(), 0U);
}

TEST_F(OutOfMemoryTest, PrintFriendlyGivesNullAndLeavesTheObject) {
    const std::string long_text(1000, 'x');
    zorvan_error_t* error = generic_error(long_text.c_str(), generic_error(long_text.c_str()));
    const int failures = fail_each_allocation([&](auto end_failures) {
        char* text = zorvan_error_print_friendly(error);
        if (end_failures()) {
            EXPECT_EQ(text, nullptr);
        } else {
            EXPECT_EQ(text, long_text + "\n" + long_text);
        }
        std::free(text);
    });
    EXPECT_GE(failures, 3);
    EXPECT_EQ(friendly(error), long_text + "\n" + long_text);
    zorvan_error_free(error);
}

TEST_F(OutOfMemoryTest, TextsAreNull) {
    const FailingAllocations failures(0);
    EXPECT_EQ(zorvan_libc_strdup("text"), nullptr);
    EXPECT_EQ(zorvan_common_create_string("%d", 1), nullptr);
}

TEST_F(OutOfMemoryTest, AListStaysAsItWas) {
    int datum = 1;
    zorvan_list_t* list = nullptr;
    ASSERT_EQ(zorvan_list_append(&list, &datum), 0);
    {
        const FailingAllocations failures(0);
        EXPECT_EQ(zorvan_list_append(&list, &datum), -1);
        EXPECT_EQ(zorvan_list_insert(&list, &datum), -1);
    }
    EXPECT_EQ(zorvan_list_size(list), 1U);
    EXPECT_EQ(zorvan_list_append(&list, &datum), 0);
    EXPECT_EQ(zorvan_list_size(list), 2U);
    zorvan_list_free(list);
}

TEST_F(OutOfMemoryTest, AHashTableStaysAsItWas) {
    int datum = 1;
    zorvan_hashtable_t table = nullptr;
    EXPECT_EQ(fail_each_allocation([&](auto end_failures) {
                  const int made = zorvan_hashtable_init(&table, 8, zorvan_hashtable_string_hash,
                                                         zorvan_hashtable_string_keyeq);
                  const bool failed = end_failures();
                  EXPECT_EQ(made, failed ? -1 : 0);
                  EXPECT_EQ(table == nullptr, failed);
                  zorvan_hashtable_destroy(&table);
              }),
              2);
    ASSERT_EQ(zorvan_hashtable_init(&table, 1, zorvan_hashtable_string_hash, zorvan_hashtable_string_keyeq),
              0);
    ASSERT_EQ(zorvan_hashtable_insert(&table, "kept", &datum), 0);
    {
        const FailingAllocations failures(0);
        EXPECT_EQ(zorvan_hashtable_insert(&table, "refused", &datum), -1);
    }
    EXPECT_EQ(zorvan_hashtable_size(&table), 1U);
    EXPECT_EQ(zorvan_hashtable_lookup(&table, "refused"), nullptr);
    EXPECT_EQ(zorvan_hashtable_insert(&table, "refused", &datum), 0);
    zorvan_hashtable_destroy(&table);
}

TEST_F(OutOfMemoryTest, AModuleStaysInactive) {
    EXPECT_GE(fail_each_allocation([](auto end_failures) {
                  const zorvan_result_t result = zorvan_module_activate(&kDescriptor);
                  const bool failed = end_failures();
                  EXPECT_EQ(result == ZORVAN_SUCCESS, !failed);
                  if (failed) zorvan_error_free(zorvan_error_get(result));
                  EXPECT_EQ(zorvan_module_deactivate(&kDescriptor), failed ? ZORVAN_FAILURE : ZORVAN_SUCCESS);
              }),
              1);
}

TEST_F(OutOfMemoryTest, ARegistryStaysAsItWas) {
    const char* name = "a name too long to be kept inside of a string object";
    int data = 1;
    EXPECT_EQ(fail_each_allocation([&](auto end_failures) {
                  const zorvan_result_t result =
                      zorvan_extension_registry_add(&zorvan_i_gfs_dsi_registry, name, &kDescriptor, &data);
                  const bool failed = end_failures();
                  EXPECT_EQ(result == ZORVAN_SUCCESS, !failed);
                  if (failed) {
                      EXPECT_EQ(consume(result), "out of memory");
                  }
                  EXPECT_EQ(zorvan_extension_registry_remove(&zorvan_i_gfs_dsi_registry, name),
                            failed ? nullptr : &data);
              }),
              2);
}

TEST_F(OutOfMemoryTest, APathIsAnError) {
    const Environment variable("ZORVAN_TEST_LONG", std::string(100, 'v'));
    EXPECT_GE(fail_each_allocation([&](auto end_failures) {
                  char* out = nullptr;
                  const zorvan_result_t result =
                      zorvan_eval_path("${ZORVAN_TEST_LONG}/${ZORVAN_TEST_LONG}", &out);
                  if (end_failures()) {
                      EXPECT_EQ(out, nullptr);
                      EXPECT_EQ(consume(result), "out of memory");
                  } else {
                      EXPECT_EQ(result, ZORVAN_SUCCESS);
                      EXPECT_EQ(out, std::string(100, 'v') + "/" + std::string(100, 'v'));
                  }
                  std::free(out);
              }),
              3);
}

TEST_F(OutOfMemoryTest, DebuggingStaysOff) {
    const Environment variable("ZORVAN_TEST_DEBUG", "TRACE|INFO");
    EXPECT_GE(fail_each_allocation([&](auto end_failures) {
                  zorvan_debug_handle_t handle{};
                  const int on = zorvan_debug_init(&handle, "ZORVAN_TEST_DEBUG", "TRACE INFO");
                  const bool failed = end_failures();
                  EXPECT_EQ(on, failed ? -1 : 0);
                  EXPECT_EQ(handle.file, failed ? nullptr : stderr);
                  EXPECT_EQ(handle.levels, failed ? 0U : 3U);
              }),
              2);
}

TEST_F(OutOfMemoryTest, AThreadIsRefusedAndNotCounted) {
    const auto nothing = +[](void*) -> void* { return nullptr; };
    {
        const FailingAllocations failures(0);
        EXPECT_EQ(zorvan_thread_create(nullptr, nullptr, nothing, nullptr), ENOMEM);
    }
    EXPECT_EQ(zorvan_thread_count(), 0U);
    const long before = live_blocks();
    {
        const FailingThreads failures(EAGAIN);
        zorvan_thread_t id = 77;
        EXPECT_EQ(zorvan_thread_create(&id, nullptr, nothing, nullptr), EAGAIN);
        EXPECT_EQ(id, 77U);
    }
    EXPECT_EQ(live_blocks(), before);
    EXPECT_EQ(zorvan_thread_count(), 0U);
    EXPECT_EQ(zorvan_thread_create(nullptr, nullptr, nothing, nullptr), 0);
    EXPECT_EQ(zorvan_thread_wait_all(60'000), 1);
}

}  // namespace
