// Activation, deactivation, the interface table and the end of a session.
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>

#include "module_fixture.h"
#include "notices.h"

using namespace module_test;

namespace {

class ModuleBase : public ModuleTest {};

zorvan_result_t refuse_registration() {
    return zorvan_extension_registry_add(&zorvan_i_gfs_dsi_registry, "ceph",
                                         &zorvan_gridftp_server_ceph_module,
                                         const_cast<char*>("somebody else"));
}

TEST_F(ModuleBase, DescriptorOfTheExportedModule) {
    EXPECT_STREQ(zorvan_gridftp_server_ceph_module.name, "zorvan_gridftp_server_ceph");
    ASSERT_NE(zorvan_gridftp_server_ceph_module.version, nullptr);
    EXPECT_EQ(zorvan_gridftp_server_ceph_module.version->major, 0);
    EXPECT_EQ(zorvan_gridftp_server_ceph_module.version->minor, 78);
    EXPECT_NE(zorvan_gridftp_server_ceph_module.activate, nullptr);
    EXPECT_NE(zorvan_gridftp_server_ceph_module.deactivate, nullptr);
    EXPECT_EQ(zorvan_gridftp_server_ceph_module.reserved_1, nullptr);
    EXPECT_EQ(zorvan_gridftp_server_ceph_module.reserved_2, nullptr);
}

TEST_F(ModuleBase, DescriptorOfTheBaseModule) {
    EXPECT_STREQ(zorvan_i_s3_base_module.name, "zorvan_gridftp_server_s3_base");
    EXPECT_EQ(zorvan_i_s3_base_module.version, nullptr);
    EXPECT_NE(zorvan_i_s3_base_module.activate, nullptr);
    EXPECT_NE(zorvan_i_s3_base_module.deactivate, nullptr);
}

TEST_F(ModuleBase, InterfaceTableHasItsSlots) {
    activate();
    static_assert(sizeof(zorvan_gridftp_server_dsi_t) == 15 * sizeof(void*));
    const void* slots[15];
    std::memcpy(slots, iface, sizeof slots);
    EXPECT_EQ(iface->descriptor, 0x0Bu);
    for (const int used : {1, 2, 4, 5, 10, 11})
        EXPECT_NE(slots[used], nullptr) << used;
    for (const int empty : {3, 6, 7, 8, 9, 12, 13, 14})
        EXPECT_EQ(slots[empty], nullptr) << empty;
    EXPECT_EQ(iface->session_start, &zorvan_i_ceph_start);
    EXPECT_EQ(iface->session_destroy, &zorvan_i_s3_destroy);
    EXPECT_EQ(iface->send, &zorvan_i_s3_send);
    EXPECT_EQ(iface->recv, &zorvan_i_s3_recv);
    EXPECT_EQ(iface->command, &zorvan_i_s3_command);
    EXPECT_EQ(iface->stat, &zorvan_i_s3_stat);
}

TEST_F(ModuleBase, DeactivationTakesTheTableOutAndShutsTheClientDown) {
    activate();
    EXPECT_EQ(trace_count("S3_deinitialize"), 0);
    std::string before;
    at_each_call([&](std::string_view) { before = log_text(); });
    deactivate();
    at_each_call(nullptr);
    EXPECT_EQ(trace_count("S3_deinitialize"), 1);
    EXPECT_TRUE(before.ends_with("zorvan_l_s3_base_deactivate: enter\n")) << "success is told when it is one";
    zorvan_extension_handle_t handle = nullptr;
    EXPECT_EQ(zorvan_extension_registry_lookup(&handle, &zorvan_i_gfs_dsi_registry, "ceph"), nullptr);
}

TEST_F(ModuleBase, DeactivationTakesTheTableOutFirst) {
    bool registered = true;
    bool known_type = true;
    bool known_sum = true;
    activate("mime_types_path = " + write_file("mime.types", "text/plain txt\n") + "\n");
    zorvan_i_s3_checksum_add("b", "k", "\"e\"", 3, "900150983cd24fb0d6963f7d28e17f72");
    Reply reply;
    reply.before = [&] {
        zorvan_extension_handle_t handle = nullptr;
        registered = zorvan_extension_registry_lookup(&handle, &zorvan_i_gfs_dsi_registry, "ceph") != nullptr;
        zorvan_extension_release(handle);
        known_type = zorvan_i_s3_mime_type_of_extension("txt") != nullptr;
        char sum[zorvan_i_s3_md5sum_size] = "";
        known_sum = zorvan_i_s3_checksum_find("b", "k", "\"e\"", 3, sum);
    };
    s3_script(S3Kind::deinitialize, reply);
    EXPECT_STREQ(zorvan_i_s3_mime_type_of_extension("txt"), "text/plain");
    deactivate();
    EXPECT_FALSE(registered);
    EXPECT_FALSE(known_type);
    EXPECT_FALSE(known_sum);
    EXPECT_TRUE(logged("TRACE", "zorvan_l_ceph_deactivate", "enter"));
    EXPECT_TRUE(logged("TRACE", "_checksum_entry_free", "enter"));
    EXPECT_TRUE(logged("TRACE", "zorvan_l_s3_base_deactivate", "result=ZORVAN_SUCCESS"));
}

TEST_F(ModuleBase, DeactivationClosesTheLogFile) {
    const auto times_open = [this] {
        int count = 0;
        std::error_code ignored;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
            count += std::filesystem::read_symlink(entry.path(), ignored) == path_of("debug.log");
        return count;
    };
    activate();
    EXPECT_NE(zorvan_i_ZORVAN_S3_debug_handle.file, nullptr);
    EXPECT_NE(zorvan_i_ZORVAN_S3_debug_handle.using_file, 0);
    EXPECT_EQ(times_open(), 1);
    deactivate();
    EXPECT_EQ(times_open(), 0);
    EXPECT_EQ(zorvan_i_ZORVAN_S3_debug_handle.file, nullptr);
}

TEST_F(ModuleBase, DeactivationLeavesStandardErrorOpen) {
    debug_value = "ERROR";
    activate();
    EXPECT_EQ(zorvan_i_ZORVAN_S3_debug_handle.file, stderr);
    deactivate();
    EXPECT_EQ(zorvan_i_ZORVAN_S3_debug_handle.file, nullptr);
    EXPECT_EQ(std::fputs("", stderr) < 0, false);
    EXPECT_NE(fileno(stderr), -1);
}

TEST_F(ModuleBase, ConfigurationIsReadBeforeTheLogExists) {
    // The first lines of the log belong to the base module's activation: the parser's went nowhere.
    activate();
    EXPECT_FALSE(log_holds("parsing config file"));
    EXPECT_FALSE(log_holds("parsing line"));
    EXPECT_EQ(host_config_string_queries(), 1);
    EXPECT_TRUE(logged("TRACE", "zorvan_l_s3_base_activate", "result=ZORVAN_SUCCESS"));
    EXPECT_TRUE(logged("TRACE", "zorvan_l_ceph_activate", "result=ZORVAN_SUCCESS"));
}

TEST_F(ModuleBase, MissingMimeFileFailsActivationAndIsLoggedAtTheHost) {
    const auto path = path_of("no-such-file");
    const auto result = try_activate("mime_types_path = " + path + "\n");
    EXPECT_EQ(result, ZORVAN_FAILURE);
    EXPECT_EQ(host_logged(1, "There was an error parsing the mime.types file " + path + "."), 1);
    EXPECT_EQ(host_log().size(), 1u);
    EXPECT_TRUE(log_holds("s3: ERROR: zorvan_l_ceph_activate: result=0xffffffff message=")) << log_text();
    char sum[zorvan_i_s3_md5sum_size] = "";
    zorvan_i_s3_checksum_add("b", "k", "\"e\"", 3, "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_FALSE(zorvan_i_s3_checksum_find("b", "k", "\"e\"", 3, sum)) << "there is no cache";
    zorvan_extension_handle_t handle = nullptr;
    EXPECT_EQ(zorvan_extension_registry_lookup(&handle, &zorvan_i_gfs_dsi_registry, "ceph"), nullptr);
}

TEST_F(ModuleBase, ActivationWorksAfterAFailedOne) {
    EXPECT_EQ(try_activate("mime_types_path = " + path_of("no-such-file") + "\n"), ZORVAN_FAILURE);
    std::free(zorvan_i_s3_mime_type_file);
    zorvan_i_s3_mime_type_file = nullptr;
    activate();
}

TEST_F(ModuleBase, RefusedRegistrationDeactivatesTheBaseModule) {
    ASSERT_EQ(refuse_registration(), ZORVAN_SUCCESS);
    const auto result = try_activate("");
    EXPECT_NE(result, ZORVAN_SUCCESS);
    EXPECT_TRUE(view_result(result).present);
    EXPECT_TRUE(logged("ERROR", "zorvan_l_ceph_activate",
                       "result=" + result_text(result) + " message=" + view_result(result).friendly))
        << log_text();
    release_result(result);
    EXPECT_EQ(trace_count("S3_deinitialize"), 1);
    EXPECT_EQ(zorvan_module_deactivate(&zorvan_i_s3_base_module), ZORVAN_FAILURE) << "it was left active";
    zorvan_extension_registry_remove(&zorvan_i_gfs_dsi_registry, "ceph");
}

TEST_F(ModuleBase, SecondActivationDoesNotReadAgain) {
    activate();
    const auto queries = host_config_string_queries();
    EXPECT_EQ(zorvan_module_activate(&zorvan_gridftp_server_ceph_module), ZORVAN_SUCCESS);
    EXPECT_EQ(host_config_string_queries(), queries);
    EXPECT_EQ(zorvan_module_deactivate(&zorvan_gridftp_server_ceph_module), ZORVAN_SUCCESS);
    EXPECT_EQ(trace_count("S3_deinitialize"), 0);
}

TEST_F(ModuleBase, DestroyOfNothingIsHarmless) {
    activate();
    iface->session_destroy(nullptr);
}

TEST_F(ModuleBase, DestroyFreesEverythingASessionOwns) {
    // The address sanitizer tells of what was forgotten or freed though it is borrowed.
    activate();
    auto* handle = new zorvan_i_s3_handle_t{};
    static const char borrowed_region[] = "region";
    handle->host_name = strdup("host");
    handle->access_key_id = strdup("id");
    handle->secret_access_key = strdup("secret");
    handle->security_token = strdup("token");
    handle->extra_string_1 = strdup("one");
    handle->extra_string_2 = strdup("two");
    handle->region = borrowed_region;
    handle->default_key_pair = {handle->access_key_id, handle->secret_access_key};
    handle->allowed_buckets = static_cast<char**>(std::calloc(3, sizeof(char*)));
    handle->allowed_buckets[0] = strdup("a");
    handle->allowed_buckets[1] = strdup("b");
    for (int i = 0; i < 2; ++i) {
        auto* pair = static_cast<zorvan_i_s3_key_pair_t*>(std::calloc(1, sizeof(zorvan_i_s3_key_pair_t)));
        pair->access_key_id = strdup("k");
        pair->secret_access_key = strdup("s");
        pair->prefix = i == 0 ? strdup("p") : nullptr;
        pair->bucket = i == 0 ? strdup("b") : nullptr;
        ASSERT_EQ(zorvan_list_append(&handle->key_pairs, pair), 0);
    }
    iface->session_destroy(handle);
    EXPECT_STREQ(borrowed_region, "region");
}

}  // namespace
