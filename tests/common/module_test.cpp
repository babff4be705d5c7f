// Modules: counted activation, failures, modules that use others, and many threads at once.

#include <atomic>
#include <thread>
#include <vector>

#include "support.h"

namespace {

using zorvan::test::consume;
using zorvan::test::generic_error;

struct Calls {
    std::atomic<int> activated{0};
    std::atomic<int> deactivated{0};
    zorvan_result_t activation_result = ZORVAN_SUCCESS;
    zorvan_result_t deactivation_result = ZORVAN_SUCCESS;

    void reset() {
        activated = 0;
        deactivated = 0;
        activation_result = ZORVAN_SUCCESS;
        deactivation_result = ZORVAN_SUCCESS;
    }
};

Calls lower_calls;
Calls upper_calls;

zorvan_result_t activate_lower() {
    ++lower_calls.activated;
    return lower_calls.activation_result;
}

zorvan_result_t deactivate_lower() {
    ++lower_calls.deactivated;
    return lower_calls.deactivation_result;
}

constexpr zorvan_version_t kVersion{1, 2};

const zorvan_module_descriptor_t lower{.name = "lower",
                                       .activate = activate_lower,
                                       .deactivate = deactivate_lower,
                                       .reserved_1 = nullptr,
                                       .reserved_2 = nullptr,
                                       .version = &kVersion};

extern const zorvan_module_descriptor_t upper;

/** Builds on `lower`, and comes round to itself on the way. */
zorvan_result_t activate_upper() {
    ++upper_calls.activated;
    const zorvan_result_t result = zorvan_module_activate(&lower);
    if (result != ZORVAN_SUCCESS) return result;
    if (zorvan_module_activate(&upper) != ZORVAN_SUCCESS) return ZORVAN_FAILURE;
    return zorvan_module_deactivate(&upper);
}

zorvan_result_t deactivate_upper() {
    ++upper_calls.deactivated;
    return zorvan_module_deactivate(&lower);
}

const zorvan_module_descriptor_t upper{.name = "upper",
                                       .activate = activate_upper,
                                       .deactivate = deactivate_upper,
                                       .reserved_1 = nullptr,
                                       .reserved_2 = nullptr,
                                       .version = nullptr};

class ModuleTest : public zorvan::test::CommonTest {
  protected:
    void SetUp() override {
        CommonTest::SetUp();
        lower_calls.reset();
        upper_calls.reset();
    }
};

TEST_F(ModuleTest, TheFirstActivatesAndTheLastDeactivates) {
    EXPECT_EQ(zorvan_module_activate(&lower), ZORVAN_SUCCESS);
    EXPECT_EQ(zorvan_module_activate(&lower), ZORVAN_SUCCESS);
    EXPECT_EQ(zorvan_module_activate(&lower), ZORVAN_SUCCESS);
    EXPECT_EQ(lower_calls.activated, 1);
    EXPECT_EQ(zorvan_module_deactivate(&lower), ZORVAN_SUCCESS);
    EXPECT_EQ(zorvan_module_deactivate(&lower), ZORVAN_SUCCESS);
    EXPECT_EQ(lower_calls.deactivated, 0);
    EXPECT_EQ(zorvan_module_deactivate(&lower), ZORVAN_SUCCESS);
    EXPECT_EQ(lower_calls.deactivated, 1);
    EXPECT_EQ(zorvan_module_deactivate(&lower), ZORVAN_FAILURE);
    EXPECT_EQ(lower_calls.deactivated, 1);
}

TEST_F(ModuleTest, AModuleCanBeActivatedAgain) {
    for (int round = 1; round <= 3; ++round) {
        EXPECT_EQ(zorvan_module_activate(&lower), ZORVAN_SUCCESS);
        EXPECT_EQ(zorvan_module_deactivate(&lower), ZORVAN_SUCCESS);
        EXPECT_EQ(lower_calls.activated, round);
        EXPECT_EQ(lower_calls.deactivated, round);
    }
}

TEST_F(ModuleTest, AFailedActivationLeavesItInactive) {
    lower_calls.activation_result = zorvan_error_put(generic_error("no configuration"));
    const zorvan_result_t result = zorvan_module_activate(&lower);
    EXPECT_EQ(result, lower_calls.activation_result);
    EXPECT_EQ(consume(result), "no configuration");
    EXPECT_EQ(zorvan_module_deactivate(&lower), ZORVAN_FAILURE);
    EXPECT_EQ(lower_calls.deactivated, 0);

    lower_calls.activation_result = ZORVAN_SUCCESS;  // the next call tries again
    EXPECT_EQ(zorvan_module_activate(&lower), ZORVAN_SUCCESS);
    EXPECT_EQ(lower_calls.activated, 2);
    EXPECT_EQ(zorvan_module_deactivate(&lower), ZORVAN_SUCCESS);
}

TEST_F(ModuleTest, TheLastDeactivationReturnsItsResult) {
    lower_calls.deactivation_result = ZORVAN_FAILURE;
    EXPECT_EQ(zorvan_module_activate(&lower), ZORVAN_SUCCESS);
    EXPECT_EQ(zorvan_module_deactivate(&lower), ZORVAN_FAILURE);
    EXPECT_EQ(lower_calls.deactivated, 1);
}

TEST_F(ModuleTest, AModuleMayActivateOthersAndItself) {
    EXPECT_EQ(zorvan_module_activate(&upper), ZORVAN_SUCCESS);
    EXPECT_EQ(zorvan_module_activate(&lower), ZORVAN_SUCCESS);
    EXPECT_EQ(upper_calls.activated, 1);
    EXPECT_EQ(lower_calls.activated, 1);
    EXPECT_EQ(zorvan_module_deactivate(&upper), ZORVAN_SUCCESS);
    EXPECT_EQ(upper_calls.deactivated, 1);
    EXPECT_EQ(lower_calls.deactivated, 0);  // still used
    EXPECT_EQ(zorvan_module_deactivate(&lower), ZORVAN_SUCCESS);
    EXPECT_EQ(lower_calls.deactivated, 1);
}

TEST_F(ModuleTest, AFailureBelowFailsTheModuleAbove) {
    lower_calls.activation_result = ZORVAN_FAILURE;
    EXPECT_EQ(zorvan_module_activate(&upper), ZORVAN_FAILURE);
    EXPECT_EQ(zorvan_module_deactivate(&upper), ZORVAN_FAILURE);
    EXPECT_EQ(zorvan_module_deactivate(&lower), ZORVAN_FAILURE);
}

TEST_F(ModuleTest, EntriesMayBeNullAndSoMayTheDescriptor) {
    static const zorvan_module_descriptor_t passive{.name = "passive",
                                                    .activate = nullptr,
                                                    .deactivate = nullptr,
                                                    .reserved_1 = nullptr,
                                                    .reserved_2 = nullptr,
                                                    .version = nullptr};
    EXPECT_EQ(zorvan_module_activate(&passive), ZORVAN_SUCCESS);
    EXPECT_EQ(zorvan_module_deactivate(&passive), ZORVAN_SUCCESS);
    EXPECT_EQ(zorvan_module_deactivate(&passive), ZORVAN_FAILURE);
    EXPECT_EQ(zorvan_module_activate(nullptr), ZORVAN_FAILURE);
    EXPECT_EQ(zorvan_module_deactivate(nullptr), ZORVAN_FAILURE);
}

TEST_F(ModuleTest, ManyThreadsActivateOnceAndReturnAfterTheEntry) {
    static std::atomic<bool> ready;
    static std::atomic<int> entered;
    ready = false;
    entered = 0;
    static const zorvan_module_descriptor_t slow{.name = "slow",
                                                 .activate = +[]() -> zorvan_result_t {
                                                     ++entered;
                                                     std::this_thread::yield();
                                                     ready = true;
                                                     return ZORVAN_SUCCESS;
                                                 },
                                                 .deactivate = +[]() -> zorvan_result_t {
                                                     ready = false;
                                                     return ZORVAN_SUCCESS;
                                                 },
                                                 .reserved_1 = nullptr,
                                                 .reserved_2 = nullptr,
                                                 .version = nullptr};
    std::atomic<int> wrong = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&wrong] {
            for (int round = 0; round < 200; ++round) {
                if (zorvan_module_activate(&slow) != ZORVAN_SUCCESS) ++wrong;
                if (!ready) ++wrong;  // active means that the entry has returned
                if (zorvan_module_deactivate(&slow) != ZORVAN_SUCCESS) ++wrong;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_GE(entered, 1);
    EXPECT_FALSE(ready);
    EXPECT_EQ(zorvan_module_deactivate(&slow), ZORVAN_FAILURE);
}

}  // namespace
