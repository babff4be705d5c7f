// Paths: the installation's folders, their relocation, the environment, and what is an error.

#include "relocate.h"
#include "support.h"

namespace {

using zorvan::common::relocate;
using zorvan::test::consume;
using zorvan::test::Environment;
using zorvan::test::take;

class EvalPathTest : public zorvan::test::CommonTest {
  protected:
    static std::string eval(const std::string& text) {
        char* out = nullptr;
        const zorvan_result_t result = zorvan_eval_path(text.c_str(), &out);
        if (result != ZORVAN_SUCCESS) return "error: " + consume(result);
        return take(out);
    }
};

TEST_F(EvalPathTest, TheInstallationsFolders) {
    const Environment unmoved("ZORVAN_PREFIX", std::nullopt);
    EXPECT_EQ(eval("${prefix}"), EXPECTED_PREFIX);
    EXPECT_EQ(eval("${sysconfdir}"), EXPECTED_SYSCONFDIR);
    EXPECT_EQ(eval("${localstatedir}"), EXPECTED_LOCALSTATEDIR);
    EXPECT_EQ(eval("${datadir}"), EXPECTED_DATADIR);
    EXPECT_EQ(eval("${bindir}"), EXPECTED_BINDIR);
    EXPECT_EQ(eval("${libdir}"), EXPECTED_LIBDIR);
    EXPECT_EQ(eval("${sysconfdir}/zorvan/server.conf"), EXPECTED_SYSCONFDIR "/zorvan/server.conf");
}

TEST_F(EvalPathTest, AnEmptyPrefixVariableMovesNothing) {
    const Environment empty("ZORVAN_PREFIX", "");
    EXPECT_EQ(eval("${bindir}"), EXPECTED_BINDIR);
}

TEST_F(EvalPathTest, ThePrefixVariableMovesThemAll) {
    const Environment moved("ZORVAN_PREFIX", "/opt/zorvan/");
    EXPECT_EQ(eval("${prefix}"), "/opt/zorvan");
    for (const char* name : {"sysconfdir", "localstatedir", "datadir", "bindir", "libdir"}) {
        const std::string path = eval("${" + std::string(name) + "}");
        EXPECT_EQ(path.rfind("/opt/zorvan/", 0), 0U) << path;
        EXPECT_EQ(path.find("//"), std::string::npos) << path;
    }
    EXPECT_EQ(eval("${sysconfdir}"), relocate(EXPECTED_SYSCONFDIR, EXPECTED_PREFIX, "/opt/zorvan"));
}

TEST_F(EvalPathTest, HowAFolderMoves) {
    EXPECT_EQ(relocate("/usr/local/etc", "/usr/local", "/opt/z"), "/opt/z/etc");
    EXPECT_EQ(relocate("/usr/lib/x86_64-linux-gnu", "/usr", "/opt/z"), "/opt/z/lib/x86_64-linux-gnu");
    EXPECT_EQ(relocate("/etc", "/usr", "/opt/z"), "/opt/z/etc");  // outside of the prefix
    EXPECT_EQ(relocate("/var", "/usr", "/opt/z/"), "/opt/z/var");
    EXPECT_EQ(relocate("/usr", "/usr", "/opt/z"), "/opt/z");
    EXPECT_EQ(relocate("/usr/", "/usr/", "/opt/z"), "/opt/z/");
    EXPECT_EQ(relocate("/usrlocal/etc", "/usr", "/opt/z"), "/opt/z/usrlocal/etc");
    EXPECT_EQ(relocate("/usr", "/usr", "/"), "/");
    EXPECT_EQ(relocate("/etc", "/", "/opt/z"), "/opt/z/etc");
}

TEST_F(EvalPathTest, OtherNamesComeFromTheEnvironment) {
    const Environment one("ZORVAN_TEST_ONE", "1${ZORVAN_TEST_TWO}");
    const Environment two("ZORVAN_TEST_TWO", "");
    EXPECT_EQ(eval("a/${ZORVAN_TEST_ONE}/b"), "a/1${ZORVAN_TEST_TWO}/b");  // a value is not expanded again
    EXPECT_EQ(eval("[${ZORVAN_TEST_TWO}]"), "[]");                         // set, if to nothing
    EXPECT_EQ(eval("${ZORVAN_TEST_TWO}${ZORVAN_TEST_ONE}"), "1${ZORVAN_TEST_TWO}");
}

TEST_F(EvalPathTest, TheEnvironmentDoesNotShadowTheInstallation) {
    const Environment unmoved("ZORVAN_PREFIX", std::nullopt);
    const Environment shadow("bindir", "/shadow");
    EXPECT_EQ(eval("${bindir}"), EXPECTED_BINDIR);
}

TEST_F(EvalPathTest, PlainTextStaysAsItIs) {
    for (const char* text : {"", "/plain/path", "$HOME/x", "a$", "}{", "{prefix}", "$}"}) {
        EXPECT_EQ(eval(text), text);
    }
}

TEST_F(EvalPathTest, AnUnsetNameIsAnErrorThatNamesIt) {
    const Environment unset("ZORVAN_TEST_UNSET", std::nullopt);
    char* out = zorvan_libc_strdup("sentinel");
    char* const sentinel = out;
    const zorvan_result_t result = zorvan_eval_path("/x/${ZORVAN_TEST_UNSET}/y", &out);
    std::free(sentinel);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(zorvan_error_get_type(zorvan_error_peek(result)), ZORVAN_ERROR_TYPE_GENERIC);
    EXPECT_EQ(consume(result), "\"${ZORVAN_TEST_UNSET}\" is not set, in path \"/x/${ZORVAN_TEST_UNSET}/y\"");
    EXPECT_EQ(eval("${}"), "error: \"${}\" is not set, in path \"${}\"");
}

TEST_F(EvalPathTest, AnUnclosedNameIsAnError) {
    EXPECT_EQ(eval("/x/${prefix"), "error: Unclosed \"${\" in path \"/x/${prefix\"");
    EXPECT_EQ(eval("${"), "error: Unclosed \"${\" in path \"${\"");
}

TEST_F(EvalPathTest, NullArgumentsAreErrors) {
    char* out = nullptr;
    EXPECT_EQ(consume(zorvan_eval_path(nullptr, &out)), "No path to evaluate");
    EXPECT_EQ(consume(zorvan_eval_path("/x", nullptr)), "No place for the evaluated path");
}

}  // namespace
