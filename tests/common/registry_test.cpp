// The registry of back ends: names, counted uses, removal while in use, many threads.

#include <atomic>
#include <thread>
#include <vector>

#include "support.h"

namespace {

using zorvan::test::consume;

constexpr zorvan_module_descriptor_t kDescriptor{.name = "registry_test",
                                                 .activate = nullptr,
                                                 .deactivate = nullptr,
                                                 .reserved_1 = nullptr,
                                                 .reserved_2 = nullptr,
                                                 .version = nullptr};

zorvan_extension_registry_t* const registry = &zorvan_i_gfs_dsi_registry;

class RegistryTest : public zorvan::test::CommonTest {
  protected:
    static zorvan_result_t add(const char* name, void* data) {
        return zorvan_extension_registry_add(registry, name, &kDescriptor, data);
    }
    static void* lookup(const char* name, zorvan_extension_handle_t* handle) {
        return zorvan_extension_registry_lookup(handle, registry, name);
    }

    int first_ = 1;
    int second_ = 2;
};

TEST_F(RegistryTest, WhatWasAddedIsFoundUntilItIsRemoved) {
    std::string name = "ceph";
    ASSERT_EQ(add(name.c_str(), &first_), ZORVAN_SUCCESS);
    name.assign("copied");
    zorvan_extension_handle_t handle = nullptr;
    EXPECT_EQ(lookup("ceph", &handle), &first_);
    ASSERT_NE(handle, nullptr);
    zorvan_extension_release(handle);
    EXPECT_EQ(zorvan_extension_registry_remove(registry, "ceph"), &first_);
    EXPECT_EQ(lookup("ceph", &handle), nullptr);
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(zorvan_extension_registry_remove(registry, "ceph"), nullptr);
}

TEST_F(RegistryTest, ATakenNameIsAnErrorThatNamesIt) {
    ASSERT_EQ(add("ceph", &first_), ZORVAN_SUCCESS);
    const zorvan_result_t result = add("ceph", &second_);
    EXPECT_EQ(zorvan_error_get_type(zorvan_error_peek(result)), ZORVAN_ERROR_TYPE_GENERIC);
    EXPECT_NE(consume(result).find("\"ceph\""), std::string::npos);
    zorvan_extension_handle_t handle = nullptr;
    EXPECT_EQ(lookup("ceph", &handle), &first_);  // the first stays
    zorvan_extension_release(handle);
    EXPECT_EQ(zorvan_extension_registry_remove(registry, "ceph"), &first_);
}

TEST_F(RegistryTest, ANullArgumentIsAnError) {
    for (const zorvan_result_t result :
         {zorvan_extension_registry_add(nullptr, "n", &kDescriptor, &first_),
          zorvan_extension_registry_add(registry, nullptr, &kDescriptor, &first_),
          zorvan_extension_registry_add(registry, "n", nullptr, &first_),
          zorvan_extension_registry_add(registry, "n", &kDescriptor, nullptr)}) {
        EXPECT_NE(result, ZORVAN_SUCCESS);
        EXPECT_EQ(consume(result), "An extension needs a registry, a name, a descriptor and data");
    }
    zorvan_extension_handle_t handle = nullptr;
    EXPECT_EQ(zorvan_extension_registry_lookup(&handle, nullptr, "n"), nullptr);
    EXPECT_EQ(zorvan_extension_registry_lookup(&handle, registry, nullptr), nullptr);
    EXPECT_EQ(zorvan_extension_registry_lookup(nullptr, registry, "n"), nullptr);
    EXPECT_EQ(zorvan_extension_registry_remove(nullptr, "n"), nullptr);
    EXPECT_EQ(zorvan_extension_registry_remove(registry, nullptr), nullptr);
    zorvan_extension_release(nullptr);
}

TEST_F(RegistryTest, ARemovedEntryLivesOnForThoseWhoHoldIt) {
    ASSERT_EQ(add("ceph", &first_), ZORVAN_SUCCESS);
    zorvan_extension_handle_t one = nullptr;
    zorvan_extension_handle_t two = nullptr;
    EXPECT_EQ(lookup("ceph", &one), &first_);
    EXPECT_EQ(lookup("ceph", &two), &first_);
    EXPECT_EQ(zorvan_extension_registry_remove(registry, "ceph"), &first_);

    // The name is free again, and the new entry is not the old one.
    ASSERT_EQ(add("ceph", &second_), ZORVAN_SUCCESS);
    zorvan_extension_handle_t three = nullptr;
    EXPECT_EQ(lookup("ceph", &three), &second_);
    zorvan_extension_release(one);
    zorvan_extension_release(two);
    EXPECT_EQ(lookup("ceph", &one), &second_);
    zorvan_extension_release(one);
    zorvan_extension_release(three);
    EXPECT_EQ(zorvan_extension_registry_remove(registry, "ceph"), &second_);
}

TEST_F(RegistryTest, SeveralNamesLiveSideBySide) {
    ASSERT_EQ(add("ceph", &first_), ZORVAN_SUCCESS);
    ASSERT_EQ(add("file", &second_), ZORVAN_SUCCESS);
    ASSERT_EQ(add("CEPH", &second_), ZORVAN_SUCCESS);  // names are compared exactly
    EXPECT_EQ(zorvan_extension_registry_remove(registry, "file"), &second_);
    EXPECT_EQ(zorvan_extension_registry_remove(registry, "ceph"), &first_);
    EXPECT_EQ(zorvan_extension_registry_remove(registry, "CEPH"), &second_);
}

TEST_F(RegistryTest, ThreadsLookUpWhileTheEntryComesAndGoes) {
    std::atomic<bool> done = false;
    std::atomic<int> wrong = 0;
    std::vector<std::thread> users;
    for (int i = 0; i < 6; ++i) {
        users.emplace_back([&] {
            while (!done) {
                zorvan_extension_handle_t handle = nullptr;
                void* data = lookup("ceph", &handle);
                if ((data == nullptr) != (handle == nullptr)) ++wrong;
                if (data != nullptr && data != &first_) ++wrong;
                zorvan_extension_release(handle);
            }
        });
    }
    for (int round = 0; round < 500; ++round) {
        if (add("ceph", &first_) != ZORVAN_SUCCESS) ++wrong;
        if (zorvan_extension_registry_remove(registry, "ceph") != &first_) ++wrong;
    }
    done = true;
    for (std::thread& user : users) {
        user.join();
    }
    EXPECT_EQ(wrong, 0);
}

}  // namespace
