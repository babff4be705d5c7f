// The rows of the fault campaign, see fault_scenarios.h.
#include "fault_scenarios.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "command_fixture.h"
#include "host_refusals.h"
#include "recv_multipart_fixture.h"
#include "send_fixture.h"

namespace module_test {

void Campaign::endpoint(const std::string& host, const char* region) {
    std::free(session->host_name);
    session->host_name = strdup(host.c_str());
    session->region = region;
}

void Campaign::allow(const std::vector<std::string>& buckets) {
    if (session->allowed_buckets != nullptr) return;
    session->allowed_buckets = static_cast<char**>(std::calloc(buckets.size() + 1, sizeof(char*)));
    for (size_t i = 0; i < buckets.size(); ++i)
        session->allowed_buckets[i] = strdup(buckets[i].c_str());
}

void Campaign::pair_for(const std::string& bucket) {
    if (session->key_pairs != nullptr) return;
    auto* pair = static_cast<zorvan_i_s3_key_pair_t*>(std::calloc(1, sizeof(zorvan_i_s3_key_pair_t)));
    pair->access_key_id = strdup("PAIR");
    pair->secret_access_key = strdup("pairsecret");
    pair->prefix = strdup("");
    pair->bucket = strdup(bucket.c_str());
    pair->bucket_specific = true;
    zorvan_list_insert(&session->key_pairs, pair);
}

std::string Campaign::fresh_bucket() {
    ++fresh_;
    return bucket();
}

std::string Campaign::campaign_config() {
    return std::string(standard_config) +
           "mime_types_path = " + write_file("mime.types", "text/plain txt text\n") + "\n";
}

namespace {

using Prepare = std::function<void(Campaign&)>;
using Begin = std::function<void(Campaign&, Operation&)>;
using Check = std::function<void(Campaign&, const Operation&, const S3Fault*)>;
using Tolerance = std::function<bool(const S3Fault&)>;
using Tweak = std::function<void(Operation&)>;

constexpr const char* no_md5_etag = "\"0123456789abcdef0123456789abcdef-3\"";
constexpr uint64_t part = 100;

std::string bytes(size_t count) {
    std::string data(count, '\0');
    unsigned seed = 7;
    for (auto& byte : data) {
        seed = seed * 1664525u + 1013904223u;
        byte = static_cast<char>('A' + (seed >> 16) % 50);
    }
    return data;
}
const std::string body = bytes(64 * 9 + 17);
const std::string small_body = bytes(250);

// -------------------------------------------------------------------------------------------------
// tolerances

bool not_found(const S3Fault& fault) {
    return fault.status == S3StatusHttpErrorNotFound;
}
Tolerance of(S3Kind kind) {
    return [kind](const S3Fault& fault) { return fault.kind == kind; };
}
Tolerance not_found_of(S3Kind kind) {
    return [kind](const S3Fault& fault) { return fault.kind == kind && not_found(fault); };
}

// ---------------------------------------------------------------------------------------------------- log-in

Begin log_in(Text policy = std::nullopt) {
    return [policy](Campaign& c, Operation& op) {
        op.config_data = policy;
        c.start(op, "alice");
    };
}
void known_user(Campaign&) {
    s3_user("alice", {{"bob", "B", "B"}, {"alice", "", "empty"}, {"alice", "AK-alice", "secret"}});
}
// The host destroys what it was given, also with a failure.
void destroy(Campaign& c, Operation& op) {
    if (op.finish().session_handle == nullptr) return;
    const InModule inside;
    c.iface->session_destroy(op.finish().session_handle);
}
Check logged_in(const std::string& host, S3Protocol protocol, Text region = std::nullopt) {
    return [=](Campaign&, const Operation& op, const S3Fault*) {
        const auto* session = static_cast<const zorvan_i_s3_handle_t*>(op.finish().session_handle);
        ASSERT_NE(session, nullptr);
        EXPECT_STREQ(session->host_name, host.c_str());
        EXPECT_EQ(session->protocol, protocol);
        EXPECT_STREQ(session->default_key_pair.access_key_id, "AK-alice");
        EXPECT_STREQ(session->default_key_pair.secret_access_key, "secret");
        EXPECT_EQ(session->region == nullptr ? Text() : Text(session->region), region);
    };
}
std::string policy_for(const std::string& endpoint) {
    return R"({"s3_endpoint":")" + endpoint +
           R"(","ceph_admin_key_id":"K","ceph_admin_secret_key":"S","s3_buckets":["one","two"]})";
}
Scenario session(const char* name, Text policy, Check done, std::string refusal = "") {
    Scenario row;
    row.name = name;
    row.prepare = known_user;
    row.begin = log_in(std::move(policy));
    row.done = std::move(done);
    row.refusal = std::move(refusal);
    row.end = destroy;
    row.without_session = true;
    return row;
}

// ---------------------------------------------------------------------------------------------------
// start-up

// What activation returned is told through the operation, so that its outcome is judged like any other.
Begin activation(std::function<std::string(Campaign&)> config) {
    return [config](Campaign& c, Operation& op) {
        const auto result = c.try_activate(config(c));
        op.record_finish({Ending::session_start, result, view_result(result), nullptr, {}, {}});
    };
}
void deactivate(Campaign&, Operation& op) {
    if (op.finish().result != ZORVAN_SUCCESS) return;
    EXPECT_EQ(zorvan_module_deactivate(&zorvan_gridftp_server_ceph_module), ZORVAN_SUCCESS);
}
void active(Campaign&, const Operation&, const S3Fault*) {
    zorvan_extension_handle_t registration = nullptr;
    EXPECT_NE(zorvan_extension_registry_lookup(&registration, &zorvan_i_gfs_dsi_registry, "ceph"), nullptr);
    zorvan_extension_release(registration);
    EXPECT_STREQ(zorvan_i_s3_mime_type_of_extension("txt"), "text/plain");
    EXPECT_STREQ(zorvan_i_s3_default_hostname, "rgw.example.org:8080");
}
void not_active(Campaign&, const Operation&, const S3Fault*) {
    zorvan_extension_handle_t registration = nullptr;
    EXPECT_EQ(zorvan_extension_registry_lookup(&registration, &zorvan_i_gfs_dsi_registry, "ceph"), nullptr);
    zorvan_extension_release(registration);
    EXPECT_EQ(zorvan_i_s3_mime_type_of_extension("txt"), nullptr) << "the table is gone";
}
Scenario start_up(const char* name, std::function<std::string(Campaign&)> config, std::string refusal = "") {
    Scenario row;
    row.name = name;
    row.begin = activation(std::move(config));
    row.done = active;
    row.undone = not_active;
    row.refusal = std::move(refusal);
    row.end = deactivate;
    row.without_session = true;
    row.without_activation = true;
    return row;
}

// ---------------------------------------------------------------------------------------------------
// listings

Begin stat(const std::string& path, bool file_only) {
    return [=](Campaign& c, Operation& op) { c.call_stat(op, path, file_only); };
}
std::vector<std::string> names_of(const Operation& op) {
    std::vector<std::string> names;
    for (const auto& entry : op.entries)
        names.push_back(entry.name);
    return names;
}
// Of a listing whose failure is ignored what came before it must be right.
Check lists(const std::vector<std::string>& names) {
    return [=](Campaign&, const Operation& op, const S3Fault* fault) {
        auto listed = names_of(op);
        if (fault == nullptr || fault->recovers) {
            EXPECT_EQ(listed, names);
            return;
        }
        for (const auto& name : listed)
            EXPECT_NE(std::find(names.begin(), names.end(), name), names.end()) << name;
        std::sort(listed.begin(), listed.end());
        EXPECT_EQ(std::adjacent_find(listed.begin(), listed.end()), listed.end()) << "an entry told twice";
        EXPECT_EQ(op.entries.at(0).name, ".");
    };
}
std::vector<std::string> numbered(int count) {
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i)
        names.push_back("k" + std::to_string(100 + i));
    return names;
}
std::vector<std::string> with_dot(std::vector<std::string> names) {
    names.insert(names.begin(), ".");
    return names;
}
// More entries than a batch holds, on three pages.
Prepare many(const std::string& prefix, bool placeholder) {
    return [=](Campaign&) {
        s3_page_size(15);
        s3_bucket("b");
        if (placeholder) s3_object("b", prefix, "");
        for (const auto& name : numbered(40))
            s3_object("b", prefix + name, "data");
    };
}
Scenario listing(const char* name, Prepare prepare, const std::string& path, bool file_only, Check done,
                 Tolerance tolerates = nullptr, std::string refusal = "") {
    Scenario row;
    row.name = name;
    row.prepare = std::move(prepare);
    row.begin = stat(path, file_only);
    row.done = std::move(done);
    row.tolerates = std::move(tolerates);
    row.refusal = std::move(refusal);
    return row;
}
void some_objects(Campaign&) {
    s3_object("b", "f", "data");
    s3_object("b", "dir/", "");
    s3_object("b", "dir/a", "data");
    s3_object("b", "prefix/a", "data");
    s3_bucket("c");
}

// --------------------------------------------------------------------------------------------------
// downloads

Prepare object(const std::string& data, Text etag = std::nullopt) {
    return [=](Campaign&) {
        s3_push_size(100);
        auto& made = s3_object("b", "dir/f", data);
        if (etag) made.properties.etag = *etag;
    };
}
Begin send(const std::string& path, Tweak tweak = nullptr) {
    return [=](Campaign& c, Operation& op) {
        op.concurrency = 2;
        if (tweak) tweak(op);
        c.call_send(op, path);
    };
}
Check delivers(const std::string& data) {
    return [=](Campaign&, const Operation& op, const S3Fault*) {
        if (op.fail_callback == 0) {
            EXPECT_EQ(op.content(), data);
            return;
        }
        // What became of the writes the host knows best: all of them were registered.
        size_t registered = 0;
        for (const auto& write : op.registered_writes)
            registered += write.data.size();
        EXPECT_EQ(registered, static_cast<size_t>(std::count_if(data.begin(), data.end(),
                                                                [](char byte) { return byte != '?'; })));
    };
}
// What a failed download has delivered is right as far as it goes, and each byte of it once.
Check delivers_at_most(const std::string& data) {
    return [=](Campaign&, const Operation& op, const S3Fault*) {
        int64_t next = -1;
        for (const auto& write : op.registered_writes) {
            if (next < 0) next = write.offset;
            EXPECT_GE(write.offset, next);
            next = write.offset + static_cast<int64_t>(write.data.size());
            EXPECT_EQ(write.data, data.substr(static_cast<size_t>(write.offset), write.data.size()));
        }
    };
}
Scenario download(const char* name, Prepare prepare, Begin begin, const std::string& data,
                  std::string refusal = "") {
    Scenario row;
    row.name = name;
    row.prepare = std::move(prepare);
    row.begin = std::move(begin);
    row.done = delivers(data);
    row.undone = delivers_at_most(body);
    row.refusal = std::move(refusal);
    return row;
}

// ----------------------------------------------------------------------------------------------------
// uploads

Begin receive(const std::string& path, const std::string& data, Tweak tweak = nullptr) {
    return [=](Campaign& c, Operation& op) {
        op.concurrency = 3;
        op.modification_time = 1700000000;
        op.send_in_blocks(data);
        if (tweak) tweak(op);
        c.call_recv(op, path, static_cast<int64_t>(data.size()), true, std::string(32, '0'), "md5");
    };
}
Begin receive_parts(const std::string& path, const std::string& data, uint64_t offset, bool resume,
                    Tweak tweak = nullptr) {
    return [=](Campaign& c, Operation& op) {
        op.concurrency = 2;
        op.modification_time = 1700000000;
        op.write_range = {{static_cast<int64_t>(offset), -1}};
        op.send_in_blocks(data.substr(offset), static_cast<int64_t>(offset));
        if (tweak) tweak(op);
        c.call_recv_multipart(op, path, static_cast<int64_t>(data.size() - offset),
                              resume ? zorvan_i_s3_unknown_size : data.size(), part, resume,
                              resume ? Text() : Text(std::string(32, '0')), resume ? Text() : Text("md5"));
    };
}
Check stored(const std::string& key, const std::string& data) {
    return [=](Campaign&, const Operation& op, const S3Fault* fault) {
        const auto* object = s3_find("b", key);
        ASSERT_NE(object, nullptr);
        EXPECT_EQ(object->data, data);
        for (const auto& [name, value] : object->properties.metadata) {
            EXPECT_TRUE(name != "mtime" || value == "1700000000") << value;
        }
        const bool kept = fault != nullptr && fault->kind == S3Kind::abort_multipart;
        EXPECT_TRUE(kept || s3_upload_ids("b").empty()) << "an upload in progress is left";
        int64_t received = 0;
        for (const auto& [count, offset] : op.bytes_updates)
            received += count;
        EXPECT_LE(received, static_cast<int64_t>(data.size()));
    };
}
// Restart ranges are promises: the store has those bytes.
Check not_stored(const std::string& key, const std::string& data) {
    return [=](Campaign&, const Operation& op, const S3Fault* fault) {
        // A failure to ask for the ETag of a committed object comes after the commit.
        if (fault != nullptr && fault->kind == S3Kind::head_object) return;
        const auto* object = s3_find("b", key);
        // Nor can one PUT be taken back when only the end of the data could not be asked for.
        const bool end_unknown =
            host_refused_call() == "register_read" && object != nullptr && object->data == data;
        EXPECT_TRUE(object == nullptr || end_unknown) << "a failed upload has left an object";
        for (const auto& [offset, length] : op.range_updates) {
            bool found = false;
            for (const auto& id : s3_upload_ids("b")) {
                const auto& parts = s3_bucket("b").uploads[id].parts;
                const auto stored_part =
                    parts.find(static_cast<int>(static_cast<uint64_t>(offset) / part) + 1);
                found = found || (stored_part != parts.end() &&
                                  stored_part->second.data ==
                                      data.substr(static_cast<size_t>(offset), static_cast<size_t>(length)));
            }
            EXPECT_TRUE(found) << "a range was reported that the store does not have: " << offset;
        }
    };
}
Scenario upload(const char* name, Prepare prepare, Begin begin, const std::string& key,
                const std::string& data, std::string refusal = "") {
    Scenario row;
    row.name = name;
    row.prepare = [prepare](Campaign& c) {
        s3_bucket("b");
        s3_pull_size(130);
        zorvan_i_s3_part_size = 0;
        if (prepare) prepare(c);
    };
    row.begin = std::move(begin);
    row.done = stored(key, data);
    row.undone = not_stored(key, data);
    row.refusal = std::move(refusal);
    row.tolerates = of(S3Kind::abort_multipart);
    return row;
}
Scenario told_twice(Scenario row) {
    row.told_twice = true;
    return row;
}
void two_uploads(Campaign&) {
    s3_page_size(1);
    s3_upload("b", "dir/f.txt", "2~a", 1);
    s3_upload("b", "dir/f.txt", "2~b", 2, {small_body.substr(0, part), small_body.substr(part, part)});
}

// ---------------------------------------------------------------------------------------------------
// commands

Begin command(int code, Text path, Text from = std::nullopt, Text algorithm = std::nullopt,
              int64_t offset = 0, int64_t length = -1) {
    return
        [=](Campaign& c, Operation& op) { c.call_command(op, code, path, from, algorithm, offset, length); };
}
Check tells(Text text) {
    return [=](Campaign&, const Operation& op, const S3Fault*) { EXPECT_EQ(op.finish().text, text); };
}
void tells_nothing(Campaign&, const Operation& op, const S3Fault*) {
    EXPECT_EQ(op.finish().text, std::nullopt);
}
Check has(const std::string& bucket, const std::string& key, bool there) {
    return [=](Campaign&, const Operation&, const S3Fault*) {
        EXPECT_EQ(s3_find(bucket, key) != nullptr, there) << bucket << "/" << key;
    };
}
Check both(Check first, Check second) {
    return [=](Campaign& c, const Operation& op, const S3Fault* fault) {
        first(c, op, fault);
        second(c, op, fault);
    };
}
bool has_bucket(const std::string& name) {
    S3Call call;
    call.kind = S3Kind::head_object;
    call.context.bucket = name;
    return s3_store_answer(call).status == S3StatusOK;
}
Check bucket_exists(const std::string& name, bool there) {
    return [=](Campaign&, const Operation&, const S3Fault*) { EXPECT_EQ(has_bucket(name), there) << name; };
}
Scenario namespace_command(const char* name, Prepare prepare, Begin begin, Check done, Check undone,
                           std::string refusal = "") {
    Scenario row;
    row.name = name;
    row.prepare = std::move(prepare);
    row.begin = std::move(begin);
    row.done = std::move(done);
    row.undone = both(std::move(undone), tells_nothing);
    row.refusal = std::move(refusal);
    return row;
}
// Nothing gets lost: the source stays until the copy is there.
Check renamed_or_not(const std::string& from_bucket, const std::string& from, const std::string& to_bucket,
                     const std::string& to) {
    return [=](Campaign&, const Operation&, const S3Fault* fault) {
        EXPECT_NE(s3_find(from_bucket, from), nullptr);
        const bool copied = fault != nullptr && fault->kind == S3Kind::delete_object;
        EXPECT_EQ(s3_find(to_bucket, to) != nullptr, copied);
    };
}
Check nothing() {
    return [](Campaign&, const Operation&, const S3Fault*) {};
}
Prepare archived(const std::string& storage_class, int status) {
    return [=](Campaign&) {
        auto& made = s3_object("b", "dir/f", "data");
        made.properties.storage_class = storage_class;
        made.properties.restore_status = status;
    };
}
Begin sum(const std::string& path, int64_t offset = 0, int64_t length = -1) {
    return [=](Campaign& c, Operation& op) {
        op.update_interval = 1;
        c.call_command(op, cksm, path, std::nullopt, "MD5", offset, length);
    };
}
// A try that fails after data and goes well the second time sums what it had twice, as told.
Check sums(const std::string& md5) {
    return [=](Campaign&, const Operation& op, const S3Fault* fault) {
        if (fault != nullptr && fault->progress != Progress::none && fault->kind == S3Kind::get_object)
            return;
        EXPECT_EQ(op.finish().text, md5);
    };
}
Prepare clocked(Prepare prepare) {
    return [=](Campaign& c) {
        prepare(c);
        auto now = std::make_shared<int64_t>(1700000000);
        set_clock([now] { return (*now)++; });
    };
}
// The cache has the sum of the object: a checksum that reads has been asked for before.
Prepare cached(Prepare prepare) {
    return [=](Campaign& c) {
        prepare(c);
        zorvan_i_s3_checksum_add("b", "dir/f", no_md5_etag, body.size(), md5_of(body).c_str());
    };
}
Prepare uncached(Prepare prepare) {
    return [=](Campaign& c) {
        prepare(c);
        zorvan_i_s3_checksum_add("b", "dir/f", "\"another\"", 1, std::string(32, '0').c_str());
    };
}
void encrypted(Campaign&) {
    auto& made = s3_object("b", "dir/f", body);
    made.properties.encryption = 2;
    made.properties.metadata = {{"md5", "00000000000000000000000000000001"}};
}

// -------------------------------------------------------------------------------------- a bucket's own
// region

// A failed probe is no failure of the operation.
bool probe(const S3Fault& fault) {
    return fault.on_bucket;
}
Prepare in_region(const Text& region, bool known) {
    return [=](Campaign& c) {
        c.endpoint("s3.amazonaws.com", "us-east-1");
        const auto name = c.fresh_bucket();
        s3_bucket(name).region = region;
        s3_object(name, "f", "data");
        if (!known) return;
        S3BucketContext context{};
        EXPECT_EQ(zorvan_i_s3_bucket_context(c.session, "f", name.c_str(), &context), ZORVAN_SUCCESS);
    };
}
Check asked_at(const std::string& host, const std::string& region) {
    return [=](Campaign& c, const Operation& op, const S3Fault* fault) {
        EXPECT_EQ(names_of(op), std::vector<std::string>{"f"});
        const auto call = s3_calls(S3Kind::head_object).back();
        EXPECT_EQ(call.context.bucket, c.bucket());
        const bool told = fault == nullptr || fault->recovers || fault->status == S3StatusErrorSlowDown;
        EXPECT_EQ(call.context.host, told ? host : "s3.amazonaws.com");
        EXPECT_EQ(call.context.region, told ? region : "us-east-1");
    };
}
Scenario in_a_region(const char* name, Prepare prepare, const std::string& host, const std::string& region) {
    Scenario row;
    row.name = name;
    row.prepare = std::move(prepare);
    row.begin = [](Campaign& c, Operation& op) { c.call_stat(op, "/" + c.bucket() + "/f", true); };
    row.done = asked_at(host, region);
    row.tolerates = probe;
    return row;
}

std::vector<Scenario> make_rows() {
    std::vector<Scenario> rows;
    const auto add = [&](Scenario row) { rows.push_back(std::move(row)); };
    const auto from_settings = "rgw.example.org:8080";

    // ---- start-up
    add(start_up("StartUp",
                 [](Campaign& c) { return c.campaign_config() + "max_retries = 1\npart_size = 0\n"; }));
    add(start_up(
        "StartUpWithABadLine", [](Campaign& c) { return c.campaign_config() + "nonsense\n"; },
        "invalid line"));
    add(start_up(
        "StartUpWithoutItsMimeTypes",
        [](Campaign& c) {
            return std::string(standard_config) + "mime_types_path = " + c.path_of("none") + "\n";
        },
        "-1"));

    // ---- sessions
    add(session("LogInFromSettings", std::nullopt, logged_in(from_settings, S3ProtocolHTTP)));
    add(session("LogInByPolicy", policy_for("https://store.example//"),
                logged_in("store.example", S3ProtocolHTTPS)));
    add(session("LogInAtAnEndpointWithARegion", policy_for("http://s3.eu-west-2.amazonaws.com"),
                logged_in("s3.eu-west-2.amazonaws.com", S3ProtocolHTTP, "eu-west-2")));
    add(session("LogInAtAnEndpointWithoutAScheme", policy_for("store.example"),
                [](Campaign&, const Operation& op, const S3Fault*) {
                    EXPECT_EQ(op.finish().session_handle, nullptr) << "a quiet refusal";
                }));
    add(session("LogInByABadPolicy", R"({"s3_endpoint":"http://a","ceph_admin_key_id":"K"})", nothing(),
                "Error unpacking collection storage policy"));
    {
        auto row = session("LogInOfAStranger", std::nullopt, nothing(), "No access key for ceph user");
        row.prepare = [](Campaign&) { s3_user("alice", {{"bob", "B", "B"}}); };
        add(row);
    }

    // ---- stat and listings
    add(listing("StatOfTheRoot", some_objects, "/", true, lists({"."})));
    add(listing("StatOfABucket", some_objects, "/b", true, lists({"."})));
    add(listing("StatOfAFile", some_objects, "/b/f", true, lists({"f"})));
    const auto head_not_found = not_found_of(S3Kind::head_object);
    add(listing("StatOfADirectory", some_objects, "/b/dir", true, lists({"."}), head_not_found));
    add(listing("StatOfAPrefix", some_objects, "/b/prefix", true, lists({"."}), head_not_found));
    add(listing("StatOfNothing", some_objects, "/b/none", true, nothing(), nullptr, "PATH_NOT_FOUND"));
    add(listing("StatInNoBucket", some_objects, "/none/f", true, nothing(), nullptr, "PATH_NOT_FOUND"));
    {
        auto row = listing("ListTheRoot", some_objects, "/", false, lists({".", "b", "c"}),
                           of(S3Kind::list_service));
        row.may_be_empty = true;
        add(row);
        row.name = "ListTheRootWithKnownBuckets";
        row.prepare = [](Campaign& c) {
            some_objects(c);
            c.pair_for("mine");
        };
        row.done = lists({".", "b", "c", "mine"});
        add(row);
    }
    add(listing(
        "ListTheAllowedBuckets", [](Campaign& c) { c.allow({"b", "elsewhere"}); }, "/", false,
        lists({".", "b", "elsewhere"})));
    const auto page_not_found = [](const S3Fault& fault) { return not_found(fault) && !fault.on_bucket; };
    add(listing("ListABucket", many("", false), "/b", false, lists(with_dot(numbered(40))), page_not_found));
    add(listing("ListADirectory", many("dir/", true), "/b/dir", false, lists(with_dot(numbered(40))),
                page_not_found));
    add(listing("ListAPrefix", many("dir/", false), "/b/dir", false, lists(with_dot(numbered(40))),
                not_found));
    add(listing(
        "ListDirectories",
        [](Campaign&) {
            s3_page_size(2);
            for (const auto* key : {"dir/", "dir/a/x", "dir/b/x", "dir/c"})
                s3_object("b", key, "data");
        },
        "/b/dir", false, lists({".", "a", "c", "b"}), not_found));
    add(listing(
        "ListAnEmptyBucket", [](Campaign&) { s3_bucket("b"); }, "/b", false, lists({"."}), page_not_found));
    add(listing(
        "ListAFile", some_objects, "/b/f", false,
        [](Campaign&, const Operation& op, const S3Fault*) {
            EXPECT_EQ(names_of(op), std::vector<std::string>{"f"});
        },
        not_found));
    add(listing("ListNothing", some_objects, "/b/none", false, nothing(), nullptr, "PATH_NOT_FOUND"));
    {
        auto row =
            listing("StatInAForbiddenBucket", nullptr, "/b/f", true, nothing(), nullptr, "not allowed");
        row.prepare = [](Campaign& c) {
            some_objects(c);
            c.allow({"other"});
        };
        add(row);
    }

    add(listing(
        "StatWithStaleCredentials",
        [](Campaign& c) {
            some_objects(c);
            c.session->refresh_credentials = [](zorvan_i_s3_handle_t*) {
                return zorvan_error_put(zorvan_error_construct_error(
                    nullptr, nullptr, ZORVAN_ERROR_TYPE_GENERIC, "credentials", "", 1, "%s", "stale"));
            };
        },
        "/b/f", true, nothing(), nullptr, "stale"));
    add(listing(
        "ListTheRootOfARestrictedSession",
        [](Campaign& c) {
            c.session->restricted_endpoint = true;
            c.session->default_key_pair.access_key_id = nullptr;
        },
        "/", false, nothing(), nullptr, "Bucket listing is not allowed on this collection"));

    // ---- a bucket's own region
    add(in_a_region("StatWithAProbe", in_region("eu-west-1", false), "s3.eu-west-1.amazonaws.com",
                    "eu-west-1"));
    add(in_a_region("StatInAKnownRegion", in_region("eu-west-1", true), "s3.eu-west-1.amazonaws.com",
                    "eu-west-1"));
    add(in_a_region("StatInAnUnknownRegion", in_region("the-moon", false), "s3.amazonaws.com", "us-east-1"));

    // ---- downloads
    const auto unsummed = object(body, no_md5_etag);
    add(download("Download", unsummed, send("/b/dir/f"), body));
    add(download("DownloadOfASummedObject", object(body), send("/b/dir/f"), body));
    add(download("DownloadOverManyStreams", unsummed,
                 send("/b/dir/f",
                      [](Operation& op) {
                          op.concurrency = 5;
                          op.write_pick = Pick::scattered;
                      }),
                 body));
    add(download("DownloadInOneBlockAtATime", unsummed,
                 send("/b/dir/f", [](Operation& op) { op.concurrency = 1; }), body));
    add(download("DownloadFromAnOffset", unsummed,
                 send("/b/dir/f", [](Operation& op) { op.read_ranges = {{200, -1}}; }),
                 std::string(200, '?') + body.substr(200)));
    add(download("DownloadOfARange", unsummed,
                 send("/b/dir/f", [](Operation& op) { op.read_ranges = {{100, 150}}; }),
                 std::string(100, '?') + body.substr(100, 150)));
    add(download("DownloadOfSeveralRanges", unsummed,
                 send("/b/dir/f", [](Operation& op) { op.read_ranges = {{0, 130}, {200, 70}, {400, 100}}; }),
                 body.substr(0, 130) + std::string(70, '?') + body.substr(200, 70) + std::string(130, '?') +
                     body.substr(400, 100)));
    add(download("DownloadOfNothing", object(""), send("/b/dir/f"), ""));
    add(download(
        "DownloadFromTheEnd", unsummed,
        send("/b/dir/f", [](Operation& op) { op.read_ranges = {{static_cast<int64_t>(body.size()), -1}}; }),
        ""));
    add(download("DownloadOfAMissingFile", unsummed, send("/b/none"), "", "PATH_NOT_FOUND"));
    add(download("DownloadOfABucket", unsummed, send("/b"), "", "UserKeyMustBeSpecified"));

    add(download(
        "DownloadOfAShortObject",
        [](Campaign& c) {
            object(body)(c);
            s3_respond(S3Kind::get_object, [](const S3Call& call) -> std::optional<Reply> {
                auto reply = s3_store_answer(call);
                reply.data.pop_back();
                return reply;
            });
        },
        send("/b/dir/f"), body, "Unexpected end of file"));
    rows.back().may_pass = true;  // an earlier try had its last byte

    // ---- uploads in one piece
    add(told_twice(upload("Upload", nullptr, receive("/b/dir/f.txt", body), "dir/f.txt", body)));
    add(told_twice(upload("UploadOverManyStreams", nullptr,
                          receive("/b/dir/f.txt", body,
                                  [](Operation& op) {
                                      op.read_pick = Pick::scattered;
                                      std::reverse(op.upload.begin(), op.upload.begin() + 6);
                                      op.concurrency = 8;
                                  }),
                          "dir/f.txt", body)));
    add(told_twice(upload("UploadInOneBlockAtATime", nullptr,
                          receive("/b/dir/f.txt", body,
                                  [](Operation& op) {
                                      op.concurrency = 1;
                                      op.eof_with_data = true;
                                  }),
                          "dir/f.txt", body)));
    add(told_twice(upload("UploadOfNothing", nullptr, receive("/b/dir/f.txt", ""), "dir/f.txt", "")));
    add(told_twice(upload("UploadThatEndsEarly", nullptr,
                          receive("/b/dir/f.txt", body, [](Operation& op) { op.upload.resize(5); }),
                          "dir/f.txt", body, "ErrorIncompleteBody")));
    add(told_twice(upload(
        "UploadWithSurplus", nullptr,
        receive("/b/dir/f.txt", body,
                [](Operation& op) { op.upload.push_back({static_cast<int64_t>(body.size()), "surplus"}); }),
        "dir/f.txt", body + "never", "System error in write")));
    rows.back().undone = nothing();  // without the server's held-back block the object may be there already
    add(told_twice(
        upload("UploadToABucket", nullptr, receive("/b", body), "", body, "UserKeyMustBeSpecified")));
    add(upload(
        "UploadThatAppendsInARestrictedSession", [](Campaign& c) { c.session->restricted_endpoint = true; },
        [](Campaign& c, Operation& op) { c.call_recv(op, "/b/dir/f.txt", 10, false); }, "dir/f.txt", "",
        "APPEND_NOT_SUPPORTED"));
    add(upload(
        "UploadThatIsTooLarge", nullptr,
        [](Campaign& c, Operation& op) { c.call_recv(op, "/b/dir/f.txt", 5'000'000'000'001); }, "dir/f.txt",
        "", "File upload too large"));

    // ---- uploads in parts
    add(upload("UploadInParts", nullptr, receive_parts("/b/dir/f.txt", small_body, 0, false), "dir/f.txt",
               small_body));
    add(upload("UploadInPartsOverManyStreams", nullptr,
               receive_parts("/b/dir/f.txt", small_body, 0, false,
                             [](Operation& op) {
                                 op.read_pick = Pick::scattered;
                                 op.concurrency = 5;
                             }),
               "dir/f.txt", small_body));
    add(upload("UploadInPartsAfterOthers", two_uploads, receive_parts("/b/dir/f.txt", small_body, 0, false),
               "dir/f.txt", small_body));
    add(upload(
        "UploadInPartsWhoseCommitTellsNothing",
        [](Campaign&) { s3_respond(S3Kind::complete_multipart, [](const S3Call&) { return Reply{}; }); },
        receive_parts("/b/dir/f.txt", small_body, 0, false), "dir/f.txt", small_body));
    add(upload("UploadInPartsResumed", two_uploads, receive_parts("/b/dir/f.txt", small_body, 200, true),
               "dir/f.txt", small_body));
    add(upload("UploadInPartsOfWhichNoneIsThere", nullptr,
               receive_parts("/b/dir/f.txt", small_body, 200, true), "dir/f.txt", small_body,
               "MULTI_PART_UPLOAD_NOT_FOUND"));
    add(told_twice(upload(
        "UploadThatTheEntryResumes",
        [](Campaign&) {
            s3_upload("b", "dir/f.txt", "2~b", 2);
            zorvan_i_s3_part_size = 5'242'880;
        },
        [](Campaign& c, Operation& op) {
            op.send_in_blocks(small_body);
            c.call_recv(op, "/b/dir/f.txt", static_cast<int64_t>(small_body.size()), false);
        },
        "dir/f.txt", small_body)));
    add(upload("UploadInPartsOfABoundedRange", nullptr,
               receive_parts("/b/dir/f.txt", small_body, 0, false,
                             [](Operation& op) { op.write_range = {{0, 100}}; }),
               "dir/f.txt", small_body, "APPEND_NOT_SUPPORTED"));
    add(upload(
        "UploadInPartsWhoseEtagsLie",
        [](Campaign&) {
            s3_respond(S3Kind::upload_part, [](const S3Call& call) -> std::optional<Reply> {
                auto reply = s3_store_answer(call);
                if (call.part == 2) reply.properties->etag = "\"0123456789abcdef0123456789abcdef\"";
                return reply;
            });
        },
        receive_parts("/b/dir/f.txt", small_body, 0, false), "dir/f.txt", small_body, "INCORRECT_CHECKSUM"));
    // Without memory for the sums nothing is compared.
    rows.back().may_pass = true;
    add(upload(
        "UploadInPartsResumedInOtherParts",
        [](Campaign&) { s3_upload("b", "dir/f.txt", "2~b", 2, {small_body.substr(0, 70)}); },
        receive_parts("/b/dir/f.txt", small_body, 100, true), "dir/f.txt", small_body,
        "Existing MPU has incorrect part size."));
    add(upload(
        "UploadInPartsWithABadChecksum", nullptr,
        [](Campaign& c, Operation& op) {
            c.call_recv_multipart(op, "/b/dir/f.txt", 250, 250, part, false, "short", "md5");
        },
        "dir/f.txt", small_body, "Invalid md5 checksum"));
    add(upload("UploadInPartsToABucket", nullptr, receive_parts("/b", small_body, 0, false), "", small_body,
               "UserKeyMustBeSpecified"));

    // ---- commands
    const auto empty_bucket = [](Campaign&) { s3_bucket("b"); };
    add(namespace_command("MakeADirectory", empty_bucket, command(mkd, "/b/d"), has("b", "d/", true),
                          has("b", "d/", false)));
    add(namespace_command("MakeABucket", nullptr, command(mkd, "/nb"), bucket_exists("nb", true),
                          bucket_exists("nb", false)));
    const auto placeholder = [](Campaign&) {
        s3_object("b", "d/", "");
        s3_object("b", "d/x", "data");
    };
    add(namespace_command("RemoveADirectory", placeholder, command(rmd, "/b/d"),
                          both(has("b", "d/", false), has("b", "d/x", true)), has("b", "d/", true)));
    add(namespace_command("RemoveABucket", empty_bucket, command(rmd, "/b"), bucket_exists("b", false),
                          bucket_exists("b", true)));
    const auto file = object(body, no_md5_etag);
    const auto there = has("b", "dir/f", true);
    add(namespace_command("Delete", file, command(dele, "/b/dir/f"), has("b", "dir/f", false), there));
    add(namespace_command("DeleteOfABucket", file, command(dele, "/b"), nothing(), there,
                          "System error in delete"));
    add(namespace_command("Rename", file, command(rnto, "/b/g", "/b/dir/f"),
                          both(has("b", "g", true), has("b", "dir/f", false)),
                          renamed_or_not("b", "dir/f", "b", "g")));
    add(namespace_command(
        "RenameIntoAnotherBucket",
        [](Campaign&) {
            s3_object("b", "f", "data");
            s3_bucket("c");
        },
        command(rnto, "/c/z", "/b/f"), both(has("c", "z", true), has("b", "f", false)),
        renamed_or_not("b", "f", "c", "z")));
    add(namespace_command("RenameOfAPlaceholder", placeholder, command(rnto, "/b/e/", "/b/d/"),
                          both(has("b", "e/", true), has("b", "d/", false)),
                          renamed_or_not("b", "d/", "b", "e/")));
    add(namespace_command("RenameOntoItself", file, command(rnto, "/b/dir/f", "/b/dir/f"), nothing(), there,
                          "PATH_EXISTS"));
    add(namespace_command("RenameOfABucket", file, command(rnto, "/b/g", "/b"), nothing(), there,
                          "Invalid source filename"));
    add(namespace_command("RenameToABucket", file, command(rnto, "/c", "/b/dir/f"), nothing(), there,
                          "Invalid destination filename"));
    add(namespace_command("StageOfAnArchivedFile", archived("DEEP_ARCHIVE", 0), command(stage, "/b/dir/f"),
                          tells("450 Stage has started.\r\n"), nothing()));
    add(namespace_command("StageInProgress", archived("GLACIER", 1), command(stage, "/b/dir/f"),
                          tells("450 Stage is in progress.\r\n"), nothing()));
    add(namespace_command("StageOfAFile", file, command(stage, "/b/dir/f"),
                          tells("250 Stage is not required.\r\n"), nothing()));
    add(namespace_command("StageOfABucket", file, command(stage, "/b"), nothing(), nothing(),
                          "System error in stage"));
    add(namespace_command("ChecksumFromTheEtag", object(body), sum("/b/dir/f"),
                          sums("0123456789abcdef0123456789abcdef"), nothing()));
    add(namespace_command("ChecksumFromMetadata", encrypted, sum("/b/dir/f"),
                          sums("00000000000000000000000000000001"), nothing()));
    add(namespace_command("ChecksumFromTheCache", cached(file), sum("/b/dir/f"), sums(md5_of(body)),
                          nothing()));
    add(namespace_command("ChecksumByReading", clocked(uncached(file)), sum("/b/dir/f"), sums(md5_of(body)),
                          nothing()));
    add(namespace_command("ChecksumOfARange", clocked(file), sum("/b/dir/f", 100, 200),
                          sums(md5_of(body.substr(100, 200))), nothing()));
    add(namespace_command("ChecksumOfABucket", file, sum("/b"), nothing(), nothing(),
                          "UserKeyMustBeSpecified"));
    add(namespace_command("ChecksumOfAnotherKind", file, command(cksm, "/b/dir/f", std::nullopt, "sha1"),
                          nothing(), there, "Unknown checksum algorithm"));
    add(namespace_command("CommandThatIsNotServed", file, command(5, "/b/dir/f"), nothing(), there, "-1"));
    return rows;
}

}  // namespace

void PrintTo(const Scenario& row, std::ostream* out) {
    *out << row.name;
}

const std::vector<Scenario>& scenarios() {
    static const auto rows = make_rows();
    return rows;
}

}  // namespace module_test
