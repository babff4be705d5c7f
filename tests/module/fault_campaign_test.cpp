// The fault campaign: every operation of the module, with every thing failing that can fail.
//
// A driver runs an operation with the first thing failing, then with the second, until there was nothing left
// to fail. Each run must end in time with one outcome, all callbacks returned, all error objects released and
// as much memory taken as before; a success must be right and a failure must leave nothing half. After it the
// same operation of the same session must work. What an operation is stands in fault_scenarios.cpp.
#include <cerrno>

#include "fault_scenarios.h"
#include "host_refusals.h"

using namespace module_test;

namespace {

constexpr long too_many = 2000;  // nothing here does so many things
constexpr int patience = 20000;  // milliseconds

class FaultCampaign : public Campaign, public ::testing::WithParamInterface<Scenario> {
  protected:
    using Judge = std::function<void(const Operation&)>;

    void SetUp() override {
        Campaign::SetUp();
        debug_value.reset();
    }
    void TearDown() override {
        RecordProperty("runs", std::to_string(runs_));
        Campaign::TearDown();
    }
    static const Scenario& row() { return GetParam(); }

    /// Make the session, and learn how much memory an undisturbed run leaves taken.
    /// @return whether that went well
    bool set_up() {
        if (!row().without_activation) activate(campaign_config());
        if (!row().without_session) login();
        // The tables of the runtime keep the room that they once needed.
        std::vector<zorvan_result_t> errors(16);
        for (auto& error : errors)
            error = zorvan_error_put(zorvan_error_construct_error(
                nullptr, nullptr, ZORVAN_ERROR_TYPE_GENERIC, "campaign", __func__, __LINE__, "%s", "room"));
        for (const auto error : errors)
            release_result(error);
        watch_memory(true);
        // Twice: the first one may fill caches.
        if (!undisturbed() || !undisturbed()) return false;
        taken_ = memory_taken();
        return true;
    }

    /// Run the operation once, then once more without a fault.
    /// @param arm    makes something fail
    /// @param judge  looks at the outcome
    /// @return false when something was wrong
    bool survives(const std::function<void()>& arm, const Judge& judge) {
        if (!run(arm, judge)) return false;
        const ::testing::ScopedTrace trace(__FILE__, __LINE__, "the next operation");
        if (!undisturbed()) return false;
        EXPECT_EQ(memory_taken(), taken_) << "memory was not given back, or something else was";
        return !HasFailure();
    }

    /// Either all is as it should be, or the operation has failed.
    void judge_either(const Operation& op, const S3Fault* fault = nullptr) {
        if (op.finish().result != ZORVAN_SUCCESS) return judge_failure(op, fault);
        EXPECT_TRUE(row().refusal.empty() || row().may_pass) << "it went well";
        if (row().may_be_empty && op.entries.empty()) return;
        if (row().done) row().done(*this, op, fault);
    }
    void judge_failure(const Operation& op, const S3Fault* fault = nullptr) {
        EXPECT_NE(op.finish().result, ZORVAN_SUCCESS) << "it says that it went well";
        if (row().undone) row().undone(*this, op, fault);
    }
    void judge_success(const Operation& op, const S3Fault* fault = nullptr) {
        EXPECT_EQ(op.finish().result, ZORVAN_SUCCESS) << op.finish().error.friendly;
        if (row().done) row().done(*this, op, fault);
    }
    /// As it ends when nothing fails.
    void judge_usual(const Operation& op) {
        if (row().refusal.empty()) return judge_success(op);
        judge_failure(op);
        const auto& finish = op.finish();
        const bool plain = finish.result == ZORVAN_FAILURE && row().refusal == "-1";
        EXPECT_TRUE(plain || finish.error.ftp_word == row().refusal ||
                    finish.error.friendly.find(row().refusal) != std::string::npos)
            << finish.error.friendly;
    }
    /// Whether the nth thing to fail is left to be tried; @param reached  whether the last run came to it
    bool more(long n, bool reached) {
        if (!reached || HasFailure()) return false;
        EXPECT_LT(n, too_many) << "no end of things that may fail";
        return n < too_many;
    }

    /// The calls that an undisturbed run makes.
    std::vector<S3Call> usual_calls() {
        std::vector<S3Call> calls;
        size_t before = 0;
        run([&] { before = s3_calls().size(); }, [&](const Operation&) { calls = s3_calls(); });
        calls.erase(calls.begin(), calls.begin() + static_cast<std::ptrdiff_t>(before));
        std::erase_if(calls, [](const S3Call& call) { return call.kind == S3Kind::deinitialize; });
        return calls;
    }

    int broken_from_ = 0;  ///< the callback from which on the data channel is broken

  private:
    bool undisturbed() {
        return run([] {}, [this](const Operation& op) { judge_usual(op); });
    }

    bool run(const std::function<void()>& arm, const Judge& judge) {
        ++runs_;
        s3_reset();
        s3_user("alice", {{"alice", "AK-alice", "secret"}});
        if (row().prepare) row().prepare(*this);
        auto op = std::make_unique<Operation>();
        broken_from_ = 0;
        const auto errors = zorvan_error_table_count();
        const auto threads = threads_asked_for();
        fail_thread(0, 0);
        arm();
        op->fail_callback = broken_from_;
        row().begin(*this, *op);
        if (!op->wait_finished() || zorvan_thread_wait_all(patience) != 1) {
            ADD_FAILURE() << "a dead lock, or no outcome was told";
            static_cast<void>(op.release());  // somebody still has it
            return false;
        }
        const int started = threads_asked_for() - threads - (thread_failed() ? 1 : 0);
        op->close();
        judge(*op);
        if (row().end) row().end(*this, *op);
        fail_allocation(0);
        fail_thread(0, 0);
        host_refuse(0, false);
        s3_intercept(nullptr);
        release_records();
        const bool set_up_failed = row().told_twice && started == 0;
        EXPECT_EQ(op->finishes.size(), set_up_failed ? 2u : 1u) << "outcomes told";
        EXPECT_EQ(op->delivered, op->accepted) << "callbacks made";
        EXPECT_EQ(zorvan_error_table_count(), errors) << "error objects not released";
        return !HasFailure();
    }

    long runs_ = 0;
    size_t taken_ = 0;
};

std::string nth(long n) {
    return "the " + std::to_string(n) + ". thing fails";
}

// ---------------------------------------------------------------------------------------------------- memory

class FaultCampaignMemory : public FaultCampaign {
  protected:
    void every_allocation() {
        ASSERT_TRUE(set_up());
        bool reached = true;
        int tried = 0;
        int failures = 0;
        for (long n = 1; more(n, reached); ++n) {
            SCOPED_TRACE(nth(n));
            survives([&] { fail_allocation(n); },
                     [&](const Operation& op) {
                         reached = allocation_failed();
                         judge_either(op);
                         tried += reached;
                         failures += reached && op.finish().result != ZORVAN_SUCCESS;
                     });
        }
        EXPECT_EQ(tried > 0, failures > 0) << "its own record at least it cannot do without";
    }
};

TEST_P(FaultCampaignMemory, EveryAllocation) {
    every_allocation();
}

// Telling a result takes memory too.
TEST_P(FaultCampaignMemory, EveryAllocationWhileAllIsLogged) {
    debug_value = "ALL,%s";
    every_allocation();
}

// --------------------------------------------------------------------------------------------------- threads

class FaultCampaignThreads : public FaultCampaign {};

TEST_P(FaultCampaignThreads, EveryThread) {
    ASSERT_TRUE(set_up());
    bool reached = true;
    for (int n = 1; more(n, reached); ++n) {
        SCOPED_TRACE(nth(n));
        survives([&] { fail_thread(n, EAGAIN); },
                 [&](const Operation& op) {
                     reached = thread_failed();
                     if (!reached) return;
                     judge_failure(op);
                     EXPECT_NE(op.finish().error.friendly.find("zorvan_thread_create"), std::string::npos)
                         << op.finish().error.friendly;
                     EXPECT_TRUE(op.registered_writes.empty());
                     EXPECT_EQ(op.begin_transfers, 0);
                 });
    }
}

// ------------------------------------------------------------------------------------------------------ host

class FaultCampaignHost : public FaultCampaign {};

TEST_P(FaultCampaignHost, EveryCallOfTheHost) {
    ASSERT_TRUE(set_up());
    for (const bool ever_after : {false, true}) {
        bool reached = true;
        for (long n = 1; more(n, reached); ++n) {
            SCOPED_TRACE(nth(n) + (ever_after ? ", and ever after" : ""));
            survives([&] { host_refuse(n, ever_after); },
                     [&](const Operation& op) {
                         const auto refused = host_refused_call();
                         reached = !refused.empty();
                         SCOPED_TRACE(refused);
                         // The reads that are outstanding may do, and the end of the data is not always
                         // waited for; a time that is not known is no failure.
                         if (!reached || (refused == "get_recv_modification_time" && !ever_after))
                             judge_usual(op);
                         else if (refused == "register_read" || refused == "get_recv_modification_time")
                             judge_either(op);
                         else
                             judge_failure(op);
                         if (refused == "register_write") {
                             EXPECT_EQ(op.finish().error.text, "write refused");
                         }
                     });
        }
    }
}

// Writes that fail are the host's own knowledge, and so is an upload's end; no more than that may be missed.
TEST_P(FaultCampaignHost, EveryCallbackBringsAnError) {
    ASSERT_TRUE(set_up());
    bool reached = true;
    for (int n = 1; more(n, reached); ++n) {
        SCOPED_TRACE(nth(n));
        survives([&] { broken_from_ = n; },
                 [&](const Operation& op) {
                     broken_from_ = 0;
                     reached = op.accepted >= n;
                     // A single PUT asks only for bytes: of a surplus that never came it knows nothing.
                     const bool no_surplus = reached && row().refusal == "System error in write";
                     if (no_surplus && op.finish().result == ZORVAN_SUCCESS) return;
                     judge_either(op);
                 });
    }
}

// ------------------------------------------------------------------------------------------------- the store

class FaultCampaignStore : public FaultCampaign {
  protected:
    static bool carries_body(const S3Call& call) {
        return call.kind == S3Kind::get_object || call.length > 0;
    }
    static size_t so_much(Progress progress, size_t size) {
        return progress == Progress::none ? 0 : progress == Progress::half ? size / 2 : size;
    }
    static Reply failed(const S3Fault& fault, const S3Call& call) {
        Reply reply;
        if (fault.progress != Progress::none) {
            if (call.kind == S3Kind::get_object) {
                reply = s3_store_answer(call);
                reply.data.resize(so_much(fault.progress, reply.data.size()));
            } else if (carries_body(call)) {
                reply.take = so_much(fault.progress, call.length);
            }
        }
        reply.status = fault.status;
        return reply;
    }
    /// From the nth call on fail, once or ever after. But a region is asked for until somebody answers.
    /// @param allocation  the one that fails too, counted from that call on; 0 = none
    static void fail_calls(long n, const S3Fault& fault, long allocation = 0) {
        auto calls = std::make_shared<long>(0);
        s3_intercept([n, &fault, calls, allocation](const S3Call& call) -> std::optional<Reply> {
            if (call.kind == S3Kind::deinitialize) return std::nullopt;
            ++*calls;
            if (*calls < n || (*calls > n && (fault.recovers || fault.status != S3StatusErrorSlowDown)))
                return std::nullopt;
            constexpr int probes = 5;
            if (fault.on_bucket && *calls >= n + probes) return std::nullopt;
            if (allocation != 0 && *calls == n) fail_allocation(allocation);
            return failed(fault, call);
        });
    }
    /// Whether the retry rule makes the failure good.
    static bool must_recover(const S3Fault& fault) {
        if (!fault.recovers || fault.kind == S3Kind::initialize) return false;
        // A body that was begun is not sent again.
        return fault.progress == Progress::none || fault.kind == S3Kind::get_object;
    }
    void judge_refusal(const Operation& op, const S3Fault& fault) {
        if (row().may_pass) return judge_either(op, &fault);
        if (!row().refusal.empty()) return judge_failure(op, &fault);
        if (must_recover(fault)) return judge_success(op, &fault);
        if (row().tolerates && row().tolerates(fault)) return judge_either(op, &fault);
        judge_failure(op, &fault);
    }
    void every_call(S3Fault fault) {
        const auto calls = usual_calls();
        for (size_t i = 0; i < calls.size() && !HasFailure(); ++i) {
            fault.kind = calls[i].kind;
            fault.on_bucket = fault.kind == S3Kind::head_object && !calls[i].key;
            if (fault.progress != Progress::none && !carries_body(calls[i])) continue;
            const auto n = static_cast<long>(i) + 1;
            SCOPED_TRACE(nth(n) + ": S3 call of kind " + std::to_string(static_cast<int>(fault.kind)));
            survives([&] { fail_calls(n, fault); }, [&](const Operation& op) { judge_refusal(op, fault); });
        }
    }
};

TEST_P(FaultCampaignStore, EveryCallFailsOnceAndIsRepeated) {
    ASSERT_TRUE(set_up());
    for (const auto progress : {Progress::none, Progress::half, Progress::all}) {
        SCOPED_TRACE("progress " + std::to_string(static_cast<int>(progress)));
        every_call({.status = S3StatusErrorInternalError, .recovers = true, .progress = progress});
    }
}

TEST_P(FaultCampaignStore, EveryCallFailsForEver) {
    ASSERT_TRUE(set_up());
    for (const auto progress : {Progress::none, Progress::half, Progress::all}) {
        SCOPED_TRACE("progress " + std::to_string(static_cast<int>(progress)));
        every_call({.status = S3StatusErrorSlowDown, .progress = progress});
    }
}

TEST_P(FaultCampaignStore, EveryCallIsRefused) {
    ASSERT_TRUE(set_up());
    for (const auto status :
         {S3StatusHttpErrorNotFound, S3StatusErrorAccessDenied, S3StatusXmlParseFailure}) {
        for (const auto progress : {Progress::none, Progress::half, Progress::all}) {
            SCOPED_TRACE(std::string(S3_get_status_name(status)) + ", progress " +
                         std::to_string(static_cast<int>(progress)));
            every_call({.status = status, .progress = progress});
        }
    }
}

// Telling a failure takes memory too, and the first error is not to be lost to the second.
TEST_P(FaultCampaignStore, EveryAllocationAfterARefusal) {
    ASSERT_TRUE(set_up());
    const auto calls = usual_calls();
    for (size_t i = 0; i < calls.size() && !HasFailure(); ++i) {
        S3Fault fault{.status = S3StatusErrorAccessDenied, .kind = calls[i].kind};
        fault.on_bucket = fault.kind == S3Kind::head_object && !calls[i].key;
        SCOPED_TRACE("call " + std::to_string(i + 1));
        bool reached = true;
        for (long n = 1; more(n, reached); ++n) {
            SCOPED_TRACE(nth(n) + " after it");
            survives([&] { fail_calls(static_cast<long>(i) + 1, fault, n); },
                     [&](const Operation& op) {
                         reached = allocation_failed();
                         judge_refusal(op, fault);
                     });
        }
    }
}

std::string name_of(const ::testing::TestParamInfo<Scenario>& info) {
    return info.param.name;
}
INSTANTIATE_TEST_SUITE_P(Of, FaultCampaignMemory, ::testing::ValuesIn(scenarios()), name_of);
INSTANTIATE_TEST_SUITE_P(Of, FaultCampaignThreads, ::testing::ValuesIn(scenarios()), name_of);
INSTANTIATE_TEST_SUITE_P(Of, FaultCampaignHost, ::testing::ValuesIn(scenarios()), name_of);
INSTANTIATE_TEST_SUITE_P(Of, FaultCampaignStore, ::testing::ValuesIn(scenarios()), name_of);

}  // namespace
