// That the functions of commands, stats and downloads tell in the log when they begin and how they end.
#include "command_fixture.h"

using namespace module_test;

namespace {

class FunctionTrace : public CommandTest {
  protected:
    struct Function {
        std::string name;
        std::string end;  ///< of its last line
    };
    static constexpr const char* plain = "exit";
    static constexpr const char* ok = "exit status=0: OK";

    /// That the log shows these functions begin and end so.
    void expect_told(const std::vector<Function>& functions) {
        for (const auto& [name, end] : functions) {
            EXPECT_TRUE(logged("TRACE", name, "enter")) << name;
            EXPECT_TRUE(logged("TRACE", name, end)) << name << " " << end;
        }
    }
    template <typename Call>
    static void run(const Call& call) {
        Operation op;
        set_thread_mode(ThreadMode::deferred);
        call(op);
        run_deferred_threads();
        set_thread_mode(ThreadMode::real);
        EXPECT_TRUE(op.wait_finished());
        op.close();
    }
};

TEST_F(FunctionTrace, Commands) {
    struct Case {
        int code;
        const char* command;
        std::vector<const char*> handlers;
    };
    for (const auto& [code, name, handlers] :
         {Case{mkd, "mkdir", {"properties", "complete"}}, Case{rmd, "rmdir", {"properties", "complete"}},
          Case{dele, "delete", {"properties", "complete"}}, Case{rnto, "rename", {"properties", "complete"}},
          Case{cksm, "checksum", {"properties", "complete", "compute_properties", "data"}},
          Case{module_test::stage,
               "stage",
               {"head_object_properties", "head_object_complete", "properties", "complete"}}}) {
        auto& object = s3_object("b", "k", "data");
        object.properties.etag = "\"no-md5-2\"";
        object.properties.storage_class = "GLACIER";
        command(code, code == rnto ? "/b/z" : "/b/k", code == rnto ? Text("/b/k") : std::nullopt, "md5");
        const std::string command_name = name;
        expect_told(
            {{"zorvan_i_s3_" + command_name, plain}, {"zorvan_l_s3_" + command_name + "_thread", plain}});
        for (const auto* handler : handlers)
            expect_told({{"zorvan_l_s3_" + command_name + "_" + handler, ok}});
    }
    expect_told({{"zorvan_i_s3_command", plain}, {"zorvan_l_s3_stage_needs_restore", plain}});
}

TEST_F(FunctionTrace, Placeholder) {
    s3_bucket("b");
    // A library that asks for the body of an empty object gets none.
    Reply asks;
    asks.take = 1;
    s3_script(S3Kind::put_object, asks);
    command(mkd, "/b/d");
    expect_told({{"zorvan_l_s3_mkdir_data_callback", "exit: 0"}});
    EXPECT_EQ(s3_calls(S3Kind::put_object).at(0).body, "");
}

TEST_F(FunctionTrace, Stats) {
    s3_object("b", "dir/k", "data");
    const auto stat = [&](const char* path, bool file_only) {
        run([&](Operation& op) { call_stat(op, path, file_only); });
    };
    stat("/", true);
    expect_told({{"zorvan_i_s3_stat", plain},
                 {"zorvan_l_s3_stat_thread", plain},
                 {"zorvan_i_s3_stat_root", plain},
                 {"zorvan_i_s3_stat_add", plain}});
    stat("/b", true);
    expect_told({{"zorvan_i_s3_stat_bucket", plain},
                 {"zorvan_l_s3_stat_bucket_properties", ok},
                 {"zorvan_l_s3_stat_bucket_dir_callback", ok},
                 {"zorvan_l_s3_stat_bucket_complete", ok}});
    stat("/b/dir", true);
    expect_told({{"zorvan_i_s3_stat_object", plain},
                 {"zorvan_l_s3_stat_head_object_complete", "exit status=132: HttpErrorNotFound"},
                 {"zorvan_l_s3_stat_head_dir_complete", "exit status=132: HttpErrorNotFound"},
                 {"zorvan_l_s3_stat_list_dir_properties", ok},
                 {"zorvan_l_s3_stat_list_dir_callback", ok},
                 {"zorvan_l_s3_stat_list_dir_complete", ok}});
    s3_object("b", "dir/", "");
    stat("/b/dir", false);
    stat("/b/dir/k", false);
    expect_told({{"zorvan_i_s3_stat_list_objects", plain},
                 {"zorvan_l_s3_stat_head_dir_properties", ok},
                 {"zorvan_l_s3_stat_head_object_properties", ok},
                 {"zorvan_l_s3_stat_head_object_complete", ok}});
    stat("/", false);
    expect_told({{"zorvan_i_s3_stat_list_buckets", plain},
                 {"zorvan_l_s3_stat_list_service", ok},
                 {"zorvan_l_s3_stat_properties", ok},
                 {"zorvan_l_s3_stat_complete", ok}});
}

TEST_F(FunctionTrace, Downloads) {
    // Nothing is written, so that no other thread logs.
    s3_object("b", "k", "");
    run([&](Operation& op) { call_send(op, "/b/k"); });
    expect_told({{"zorvan_i_s3_send", plain},
                 {"zorvan_l_s3_send_thread", plain},
                 {"zorvan_l_s3_send_properties", ok},
                 {"zorvan_l_s3_send_complete", ok},
                 {"zorvan_l_s3_send_pending_buffers", "exit: 0"}});
    // The first write is refused.
    s3_object("b", "k", std::string(64, 'q'));
    run([&](Operation& op) {
        op.refuse_write = 1;
        call_send(op, "/b/k");
    });
    expect_told({{"zorvan_l_s3_send_data", "exit status=1: InternalError"},
                 {"zorvan_l_s3_send_pending_buffers", "exit: 1"}});
}

}  // namespace
