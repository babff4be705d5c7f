// The operations of the fault campaign: one row for each thing that the module can be asked.
//
// A row says how the store and the session look before, how the operation begins, and what must be there
// after it. The drivers in fault_campaign_test.cpp run every row again and again with another thing failing.
#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "module_fixture.h"

namespace module_test {

class Campaign;

/// How far a request came before it failed.
enum class Progress { none, half, all };

/// An S3 call that failed in a run.
struct S3Fault {
    S3Status status{};
    bool recovers = false;   ///< only that one call, and the status is worth another try
    Progress progress{};     ///< of the body, for calls that carry one
    S3Kind kind{};           ///< of the call that failed (first)
    bool on_bucket = false;  ///< a HEAD without a key
};

/// One operation. A member that is not set does nothing.
struct Scenario {
    const char* name;
    /// Fill the store, which is empty, and set the session up. Nothing fails yet.
    std::function<void(Campaign&)> prepare;
    /// Begin the operation.
    std::function<void(Campaign&, Operation&)> begin;
    /// What a success leaves. The fault is the ignored one, null when no S3 call failed.
    std::function<void(Campaign&, const Operation&, const S3Fault*)> done;
    /// What a failure leaves.
    std::function<void(Campaign&, const Operation&, const S3Fault*)> undone;
    /// Part of the error with which it ends although nothing fails; "" = it succeeds.
    std::string refusal;
    /// Something that fails may take away what it is refused for.
    bool may_pass = false;
    /// Whether the failure of that S3 call may be, by the rules of the operation, none of the operation's.
    std::function<bool(const S3Fault&)> tolerates;
    /// An upload's entry: it tells a failed set-up twice.
    bool told_twice = false;
    /// A root listing: without memory for its set of names it is an empty success.
    bool may_be_empty = false;
    /// Part of the operation that follows its outcome.
    std::function<void(Campaign&, Operation&)> end;
    /// It makes its session, or the whole module, itself.
    bool without_session = false;
    bool without_activation = false;
};

/// How a failure names a row.
void PrintTo(const Scenario& row, std::ostream* out);

/// All operations.
const std::vector<Scenario>& scenarios();

/// The surroundings of a run, for the rows.
class Campaign : public ModuleTest {
  public:
    using ModuleTest::call_command;
    using ModuleTest::call_recv;
    using ModuleTest::call_recv_multipart;
    using ModuleTest::call_send;
    using ModuleTest::call_stat;
    using ModuleTest::iface;
    using ModuleTest::path_of;
    using ModuleTest::session;
    using ModuleTest::start;
    using ModuleTest::try_activate;
    using ModuleTest::write_file;

    /// The session's endpoint and region from now on.
    void endpoint(const std::string& host, const char* region);
    /// The buckets that the session may use; none = all.
    void allow(const std::vector<std::string>& buckets);
    /// Give the session a key pair of its own for a bucket, once.
    void pair_for(const std::string& bucket);
    /// A bucket name that no run had before.
    std::string fresh_bucket();
    /// The last of them.
    std::string bucket() const { return "region-" + std::to_string(fresh_); }

    /// The configuration with which campaigns run.
    std::string campaign_config();

  private:
    int fresh_ = 0;
};

}  // namespace module_test
