// When the runtime frees what it made, seen from the number of allocated blocks.

#include "failing_system.h"
#include "support.h"

namespace {

using zorvan::test::generic_error;
using zorvan::test::live_blocks;

constexpr zorvan_module_descriptor_t kDescriptor{.name = "lifetime_test",
                                                 .activate = nullptr,
                                                 .deactivate = nullptr,
                                                 .reserved_1 = nullptr,
                                                 .reserved_2 = nullptr,
                                                 .version = nullptr};

class LifetimeTest : public zorvan::test::CommonTest {};

TEST_F(LifetimeTest, ARegistryEntryIsFreedWithItsLastUse) {
    int data = 1;
    zorvan_extension_registry_t* registry = &zorvan_i_gfs_dsi_registry;
    const long before = live_blocks();
    ASSERT_EQ(zorvan_extension_registry_add(registry, "ceph", &kDescriptor, &data), ZORVAN_SUCCESS);
    const long listed = live_blocks();
    EXPECT_GT(listed, before);
    zorvan_extension_handle_t one = nullptr;
    zorvan_extension_handle_t two = nullptr;
    EXPECT_EQ(zorvan_extension_registry_lookup(&one, registry, "ceph"), &data);
    EXPECT_EQ(zorvan_extension_registry_lookup(&two, registry, "ceph"), &data);
    EXPECT_EQ(zorvan_extension_registry_remove(registry, "ceph"), &data);
    EXPECT_EQ(live_blocks(), listed);  // removed, but held
    zorvan_extension_release(one);
    EXPECT_EQ(live_blocks(), listed);
    zorvan_extension_release(two);
    EXPECT_EQ(live_blocks(), before);

    ASSERT_EQ(zorvan_extension_registry_add(registry, "ceph", &kDescriptor, &data), ZORVAN_SUCCESS);
    EXPECT_EQ(zorvan_extension_registry_lookup(&one, registry, "ceph"), &data);
    zorvan_extension_release(one);
    EXPECT_EQ(live_blocks(), listed);  // released, but listed
    EXPECT_EQ(zorvan_extension_registry_remove(registry, "ceph"), &data);
    EXPECT_EQ(live_blocks(), before);
}

TEST_F(LifetimeTest, AnErrorOwnsItsCauses) {
    zorvan_error_free(zorvan_error_get(zorvan_error_put(generic_error("makes the table"))));
    const long before = live_blocks();
    zorvan_error_t* error = generic_error("a", generic_error("b", generic_error("c")));
    EXPECT_EQ(live_blocks(), before + 3);
    const zorvan_result_t result = zorvan_error_put(error);
    zorvan_error_free(zorvan_error_get(result));
    EXPECT_EQ(live_blocks(), before);
}

}  // namespace
