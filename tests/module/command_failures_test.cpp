// Every request of every namespace command: how it is retried, logged and reported when the store refuses it.
#include <ostream>
#include <set>

#include "command_fixture.h"
#include "transfer_fixture.h"

using namespace module_test;

namespace {

const std::set<int> retryable{43, 44, 46, 65, 109, 115, 119, 120};

/// One request of a command.
struct Step {
    std::string name;
    int code;
    std::string path;
    Text from;
    S3Kind kind;
    std::string call;       ///< as the log names it
    std::string arguments;  ///< in the log, before the try
    std::string mapped;     ///< the path of the error's texts
    std::vector<S3Kind> before, after;
    Text end_path;  ///< of the last log line
};

void PrintTo(const Step& step, std::ostream* stream) {
    *stream << step.name;
}

std::vector<Step> steps() {
    using enum S3Kind;
    return {
        {"mkdir_put", mkd, "/b/d", {}, put_object, "S3_put_object", "bucket=b, key=d/", "d/", {}, {}, "/b"},
        {"mkdir_create", mkd, "/nb", {}, create_bucket, "S3_create_bucket", "bucket=nb", "", {}, {}, "/nb"},
        {"rmdir_object",
         rmd,
         "/b/d",
         {},
         delete_object,
         "S3_delete_object",
         "bucket=b, key=d/",
         "/b",
         {},
         {},
         {}},
        {"rmdir_bucket", rmd, "/b", {}, delete_bucket, "S3_delete_bucket", "bucket=b", "/b", {}, {}, {}},
        {"delete",
         dele,
         "/b/dir/x",
         {},
         delete_object,
         "S3_delete_object",
         "bucket=b, key=dir/x",
         "b/dir/x",
         {},
         {},
         "/b"},
        {"rename_copy",
         rnto,
         "/c/z",
         "/b/a",
         copy_object,
         "S3_copy_object",
         "from_bucket=b, from_key=a, to_bucket=c, to_key=z",
         "/b/a",
         {},
         {delete_object},
         {}},
        {"rename_delete",
         rnto,
         "/c/z",
         "/b/a",
         delete_object,
         "S3_delete_object",
         "bucket=b, key=a",
         "/b/a",
         {copy_object},
         {},
         {}},
        {"checksum_head",
         cksm,
         "/b/k",
         {},
         head_object,
         "S3_head_object",
         "bucket=b, key=k",
         "b/k",
         {},
         {get_object},
         {}},
        {"checksum_get",
         cksm,
         "/b/k",
         {},
         get_object,
         "S3_get_object",
         "bucket=b, key=k",
         "b/k",
         {head_object},
         {},
         {}},
        {"stage_head",
         stage,
         "/b/k",
         {},
         head_object,
         "S3_head_object",
         "bucket=b, key=k",
         "/b",
         {},
         {restore_object},
         "/b"},
        {"stage_restore",
         stage,
         "/b/k",
         {},
         restore_object,
         "S3_restore_object",
         "bucket=b, key=k",
         "b/k",
         {head_object},
         {},
         "/b"},
    };
}

class CommandStep : public CommandTest, public ::testing::WithParamInterface<Step> {
  protected:
    void SetUp() override {
        CommandTest::SetUp();
        s3_object("b", "a", "data");
        put_archived("3");
    }
    /// An object whose ETag is no MD5, in an archive.
    static void put_archived(const std::string& parts) {
        auto& archived = s3_object("b", "k", "data");
        archived.properties.etag = "\"0123456789abcdef0123456789abcdef-" + parts + "\"";
        archived.properties.storage_class = "GLACIER";
    }
    std::unique_ptr<Operation> run() {
        const auto& step = GetParam();
        return command(step.code, step.path, step.from, "md5");
    }
    /// The next tries of the step end like this.
    static void refuse(int status, int tries) {
        for (int i = 0; i < tries; ++i)
            s3_script(GetParam().kind, failing(static_cast<S3Status>(status)));
    }
    static std::string request_line(const Operation& op, int number) {
        return "REST: op=" + pointer_text(&op) + " " + GetParam().call + "(" + GetParam().arguments +
               ") try=" + std::to_string(number);
    }
    static std::string failure_line(const Operation& op, int status) {
        return GetParam().call + ": op=" + pointer_text(&op) +
               " status=" + S3_get_status_name(static_cast<S3Status>(status)) + "[" + std::to_string(status) +
               "]";
    }
    static std::string end_line(const Operation& op) {
        const auto& step = GetParam();
        std::string line =
            "finished_command: op=" + pointer_text(&op) + " result=" + result_text(op.finish().result);
        if (step.code == cksm) line += " checksum=" + op.finish().text.value_or("");
        if (step.end_path) line += " path=" + *step.end_path;
        return line;
    }
    /// What the log says of the step and of the end, in order, the message of a failed result cut off.
    std::vector<std::string> story() {
        std::vector<std::string> lines;
        for (const auto& line : log_lines()) {
            const bool own = line.message.find(GetParam().call + "(") != std::string::npos ||
                             line.message.starts_with(GetParam().call + ": ");
            const bool last = line.function.starts_with("zorvan_l_s3_") &&
                              line.function.ends_with("_thread") && line.message.starts_with("result=");
            if (own || last || line.message.starts_with("finished_command: "))
                lines.push_back(line.level + " " + line.message.substr(0, line.message.find(" message=")));
        }
        return lines;
    }
    static void expect_mapped(const ErrorView& error, S3Status status) {
        const auto& path = GetParam().mapped;
        ErrorView s3 = error;
        const std::set<int> mapped{49, 107, 52, 53, 66, 118, 79, 101, 102, 132, 104, 119, 120};
        if (mapped.contains(status)) {
            EXPECT_EQ(error.type, ZORVAN_ERROR_TYPE_FTP_RESPONSE);
            if (status == 101 || status == 102 || status == 132) {
                EXPECT_EQ(error.text, "GridFTP-Path: \"" + path + "\"");
            }
            if (status == 53) {
                EXPECT_EQ(error.text, "GridFTP-Path: " + path);
            }
            ASSERT_NE(error.cause, nullptr);
            s3 = *error.cause;
        }
        expect_s3(s3, s3_text(path, status));
    }
    static size_t calls(S3Kind kind) { return s3_calls(kind).size(); }
};

TEST_P(CommandStep, EveryRefusalIsMappedAndEndsTheCommand) {
    zorvan_i_ZORVAN_S3_debug_handle.levels = 0;
    for (int number = 1; number <= 134; ++number) {
        SCOPED_TRACE(number);
        const int tries = retryable.contains(number) ? 2 : 1;
        s3_object("b", "a", "data");
        const auto before = calls(GetParam().kind);
        std::vector<size_t> later;
        for (const auto kind : GetParam().after)
            later.push_back(calls(kind));
        refuse(number, tries);
        const auto op = run();
        expect_mapped(op->finish().error, static_cast<S3Status>(number));
        EXPECT_EQ(op->finish().text, std::nullopt);
        EXPECT_EQ(calls(GetParam().kind), before + static_cast<size_t>(tries));
        for (size_t i = 0; i < later.size(); ++i)
            EXPECT_EQ(calls(GetParam().after[i]), later[i]) << "nothing follows";
        EXPECT_NE(s3_find("b", "a"), nullptr);
    }
}

TEST_P(CommandStep, ASecondTrySucceeds) {
    zorvan_i_ZORVAN_S3_debug_handle.levels = 0;
    for (const int number : retryable) {
        SCOPED_TRACE(number);
        s3_object("b", "a", "data");
        const auto slept = sleeps().size();
        refuse(number, 1);
        const auto op = run();
        Text text;
        if (GetParam().code == cksm) text = md5_of("data");
        if (GetParam().code == module_test::stage) text = "450 Stage has started.\r\n";
        expect_success(*op, text);
        ASSERT_EQ(sleeps().size(), slept + 1);
        EXPECT_EQ(sleeps().back(), 100000);
        // The sum of this round is in the cache: the next one needs another object.
        put_archived(std::to_string(number));
    }
}

TEST_P(CommandStep, LogOfASuccess) {
    const auto op = run();
    EXPECT_EQ(story(), (std::vector<std::string>{"INFO " + request_line(*op, 0), "INFO result=ZORVAN_SUCCESS",
                                                 "INFO " + end_line(*op)}));
}

TEST_P(CommandStep, RequestIsMadeInTheWorkerWithoutALimit) {
    run();
    const auto made = s3_calls(GetParam().kind);
    ASSERT_EQ(made.size(), 1u);
    EXPECT_FALSE(made[0].request_context);
    EXPECT_EQ(made[0].timeout, 0);
    EXPECT_FALSE(made[0].conditions);
}

TEST_P(CommandStep, LogOfARefusal) {
    refuse(S3StatusErrorAccessDenied, 1);
    const auto op = run();
    EXPECT_EQ(story(),
              (std::vector<std::string>{
                  "INFO " + request_line(*op, 0), "DEBUG " + failure_line(*op, S3StatusErrorAccessDenied),
                  "INFO result=" + result_text(op->finish().result), "INFO " + end_line(*op)}));
    EXPECT_TRUE(log_holds(": result=" + result_text(op->finish().result) +
                          " message=" + op->finish().error.friendly + "\n"))
        << "the text of the error, while it is still the worker's";
}

TEST_P(CommandStep, LogOfTriesThatRunOut) {
    zorvan_i_s3_max_retries = 2;
    refuse(S3StatusErrorServiceUnavailable, 3);
    const auto op = run();
    std::vector<std::string> expected;
    for (int number = 0; number < 3; ++number) {
        expected.push_back("INFO " + request_line(*op, number));
        expected.push_back("DEBUG " + failure_line(*op, S3StatusErrorServiceUnavailable));
    }
    expected.push_back("INFO result=" + result_text(op->finish().result));
    expected.push_back("INFO " + end_line(*op));
    EXPECT_EQ(story(), expected);
    EXPECT_EQ(sleeps(), (std::vector<int64_t>{100000, 200000}));
    expect_ftp(op->finish().error, 451, "TOO_BUSY", std::nullopt);
}

TEST_P(CommandStep, WithoutRetriesThereIsOneTry) {
    zorvan_i_s3_max_retries = 0;
    const auto before = calls(GetParam().kind);
    refuse(S3StatusConnectionFailed, 1);
    const auto op = run();
    expect_mapped(op->finish().error, S3StatusConnectionFailed);
    EXPECT_EQ(calls(GetParam().kind), before + 1);
    EXPECT_TRUE(sleeps().empty());
}

TEST_P(CommandStep, StepsBeforeAreNotRepeated) {
    refuse(S3StatusErrorSlowDown, 1);
    run();
    for (const auto kind : GetParam().before)
        EXPECT_EQ(calls(kind), 1u);
    EXPECT_EQ(calls(GetParam().kind), 2u);
}

INSTANTIATE_TEST_SUITE_P(Steps, CommandStep, ::testing::ValuesIn(steps()),
                         [](const auto& each) { return each.param.name; });

// --------------------------------------------------------------------------------- requests without a key

class KeylessCommand : public CommandTest {
  protected:
    /// What a request without a key would be on the wire: one on the bucket itself.
    static std::vector<S3Call> keyless() {
        auto found = s3_calls();
        std::erase_if(found, [](const S3Call& call) {
            switch (call.kind) {
                case S3Kind::initialize:
                case S3Kind::deinitialize:
                case S3Kind::list_service:
                case S3Kind::list_bucket:
                case S3Kind::list_uploads:
                case S3Kind::create_bucket:
                case S3Kind::delete_bucket:
                case S3Kind::user_info:
                case S3Kind::head_object:
                    return true;
                default:
                    // The client library refuses these itself.
                    return (call.key && !call.key->empty()) ||
                           call.status == S3StatusErrorUserKeyMustBeSpecified;
            }
        });
        return found;
    }
};

TEST_F(KeylessCommand, NoRequestButAHeadIsSentForAnEmptyKey) {
    s3_object("b", "k", "data");
    for (const auto* path : {"/b/", "b/", "/b", "b", "/b//", "//", "/", ""}) {
        SCOPED_TRACE(path);
        for (const int code : {mkd, rmd, dele, cksm, module_test::stage})
            command(code, path, {}, "md5");
        command(rnto, path, "/b/k");
        command(rnto, "/b/z", path);
        command(rnto, std::string(path) + "x", path);
    }
    for (const auto& call : keyless())
        ADD_FAILURE() << "kind " << static_cast<int>(call.kind) << " on " << call.context.bucket.value_or("");
    for (const auto& call : s3_calls(S3Kind::copy_object))
        EXPECT_TRUE(call.key && call.destination_key) << "a null key never reaches the client library";
}

TEST_F(KeylessCommand, FailuresWithoutAKeyNameTheBucketAndASlash) {
    s3_fail(S3Kind::head_object, 1, S3StatusErrorNotImplemented);
    const auto op = command(cksm, "/b", {}, "md5");
    expect_s3(op->finish().error, s3_text("b/", S3StatusErrorNotImplemented));
}

TEST_F(KeylessCommand, DeleteOfAnEmptyKeyRemovesNoBucket) {
    s3_bucket("b");
    const auto op = command(dele, "/b/");
    EXPECT_TRUE(s3_calls(S3Kind::delete_bucket).empty());
    expect_s3(op->finish().error, s3_text("b/", S3StatusErrorUserKeyMustBeSpecified));
}

TEST_F(KeylessCommand, RenameWithAnEmptyKeyIsRefusedByTheClientLibrary) {
    s3_object("b", "k", "data");
    for (const auto& [from, to] : {std::pair{"/b/", "/b/z"}, std::pair{"/b/k", "/b/"}}) {
        const auto op = command(rnto, to, from);
        expect_s3(op->finish().error, s3_text(from, S3StatusErrorUserKeyMustBeSpecified));
        EXPECT_TRUE(s3_calls(S3Kind::delete_object).empty());
    }
    EXPECT_NE(s3_find("b", "k"), nullptr);
}

TEST_F(KeylessCommand, DoubledSlashesStayInTheKey) {
    s3_object("b", "/k", "data");
    expect_success(*command(dele, "/b//k"));
    EXPECT_EQ(s3_calls(S3Kind::delete_object).at(0).key, "/k");
    // Only one leading slash is skipped: then the bucket's name is empty.
    command(dele, "//b/k");
    const auto call = s3_calls(S3Kind::delete_object).at(1);
    EXPECT_EQ(call.context.bucket, "");
    EXPECT_EQ(call.key, "b/k");
}

}  // namespace
