// What the log tells in which order: functions begin and end in it, and an outcome stands in it before the
// host has it.
#include <functional>
#include <sstream>

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

// Successful, refused before there is a worker, and refused by the store.
TEST_F(FunctionTrace, AnOutcomeIsToldBeforeTheHostHasItAndThenOnlyTheWayOut) {
    struct Case {
        std::string name;  ///< of the functions, without what all have in common
        std::string area;
        S3Kind kind;
        std::function<void(Operation&)> call;
    };
    const std::vector<Case> cases = {
        {"mkdir", "s3", S3Kind::put_object, [&](Operation& op) { call_command(op, mkd, "/b/d"); }},
        {"rmdir", "s3", S3Kind::delete_object, [&](Operation& op) { call_command(op, rmd, "/b/d"); }},
        {"delete", "s3", S3Kind::delete_object, [&](Operation& op) { call_command(op, dele, "/b/x"); }},
        {"rename", "s3", S3Kind::copy_object, [&](Operation& op) { call_command(op, rnto, "/b/y", "/b/x"); }},
        {"checksum", "s3", S3Kind::head_object,
         [&](Operation& op) { call_command(op, cksm, "/b/k", {}, "md5"); }},
        {"stage", "s3", S3Kind::head_object,
         [&](Operation& op) { call_command(op, module_test::stage, "/b/k"); }},
        {"stat", "s3", S3Kind::head_object, [&](Operation& op) { call_stat(op, "/b/k", true); }},
        {"send", "s3", S3Kind::get_object, [&](Operation& op) { call_send(op, "/b/empty"); }},
        {"recv_multipart", "s3", S3Kind::list_uploads,
         [&](Operation& op) { call_recv_multipart(op, "/b/k", 0, 0, 4, false); }},
        {"start", "ceph", S3Kind::user_info, [&](Operation& op) { start(op); }},
    };
    enum class How { succeeds, has_no_worker, is_refused };
    for (const auto& each : cases) {
        for (const auto how : {How::succeeds, How::has_no_worker, How::is_refused}) {
            SCOPED_TRACE(each.name + " " + std::to_string(static_cast<int>(how)));
            s3_object("b", "k", "data");
            s3_object("b", "x", "data");
            s3_object("b", "empty", "");
            if (how == How::has_no_worker) fail_next_thread(11);
            if (how == How::is_refused) {
                const int next = static_cast<int>(s3_calls(each.kind).size()) + 1;
                s3_fail(each.kind, next, S3StatusErrorAccessDenied);
            }
            std::string before;
            Operation op;
            op.concurrency = 0;
            op.on_finished = [&] { before = log_text(); };
            set_thread_mode(ThreadMode::deferred);
            each.call(op);
            run_deferred_threads();
            set_thread_mode(ThreadMode::real);
            ASSERT_TRUE(op.wait_finished());
            std::istringstream later(log_text().substr(before.size()));
            iface->session_destroy(op.finish().session_handle);
            op.close();

            EXPECT_EQ(op.finish().error.present, how != How::succeeds);
            const bool entry = how == How::has_no_worker;
            const auto outcome = how == How::succeeds ? "result=ZORVAN_SUCCESS\n"
                                                      : "result=" + result_text(op.finish().result) +
                                                            " message=" + op.finish().error.friendly + "\n";
            const auto function = "zorvan_" + std::string(entry ? "i_" : "l_") + each.area + "_" + each.name;
            const auto line = (entry ? "s3: ERROR: " + function : "s3:  INFO: " + function + "_thread");
            EXPECT_NE(before.find(line + ": " + outcome), std::string::npos) << before;
            if (how == How::is_refused) {
                EXPECT_LT(before.rfind("zorvan_i_S3Error_to_error: exit\n"),
                          before.rfind("_complete: exit status="))
                    << "a handler tells its status at its end";
            }
            for (std::string told; std::getline(later, told);)
                EXPECT_TRUE(told.starts_with("s3: TRACE: ") &&
                            (told.ends_with(": enter") || told.find(": exit") != std::string::npos))
                    << told;
        }
    }
}

}  // namespace
