// The MIME table: how a mime.types file is read.
#include <filesystem>

#include "module_fixture.h"

using namespace module_test;

namespace {

class Mime : public ModuleTest {
  protected:
    void parse(const std::string& content) {
        activate("mime_types_path = " + write_file("mime.types", content) + "\n");
    }
    static std::string type_of(const std::string& extension) {
        const char* type = zorvan_i_s3_mime_type_of_extension(extension.c_str());
        return type == nullptr ? "(none)" : type;
    }
    // How many descriptors of this process are this file.
    int times_open(const std::string& name) const {
        int count = 0;
        std::error_code ignored;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
            count += std::filesystem::read_symlink(entry.path(), ignored) == path_of(name);
        return count;
    }
};

TEST_F(Mime, LineWithThreeExtensionsAndAComment) {
    parse("text/plain txt text conf # plain\n");
    EXPECT_EQ(type_of("txt"), "text/plain");
    EXPECT_EQ(type_of("text"), "text/plain");
    EXPECT_EQ(type_of("conf"), "text/plain");
    EXPECT_EQ(type_of("#"), "(none)");
    EXPECT_EQ(type_of("plain"), "(none)");
}

TEST_F(Mime, FirstLineThatNamesAnExtensionWins) {
    parse("text/plain txt\ntext/other txt oth\n");
    EXPECT_EQ(type_of("txt"), "text/plain");
    EXPECT_EQ(type_of("oth"), "text/other");
}

TEST_F(Mime, ExtensionsOfThirtyCharactersAreTakenThoseOf31AreNot) {
    const std::string thirty(30, 'a');
    const std::string too_long(31, 'b');
    parse("x/y " + thirty + " " + too_long + " tail\n");
    EXPECT_EQ(type_of(thirty), "x/y");
    EXPECT_EQ(type_of(too_long), "(none)");
    EXPECT_EQ(type_of(too_long.substr(0, 30)), "(none)");
    EXPECT_EQ(type_of("tail"), "x/y");
}

TEST_F(Mime, TypeAloneAndBlankLinesAddNothing) {
    parse("application/alone\n\n   \n# comment only\ntext/html html\n");
    EXPECT_EQ(type_of("application/alone"), "(none)");
    EXPECT_EQ(type_of(""), "(none)");
    EXPECT_EQ(type_of("html"), "text/html");
}

TEST_F(Mime, TabsSeparateAndCaseIsKept) {
    parse("text/plain\t\ttxt\t \tTXT2\r\n");
    EXPECT_EQ(type_of("txt"), "text/plain");
    EXPECT_EQ(type_of("TXT2"), "text/plain");
    EXPECT_EQ(type_of("txt2"), "(none)");
    EXPECT_EQ(type_of("TXT"), "(none)");
}

TEST_F(Mime, VerticalTabsAreSkippedBetweenTokensButSeparateNone) {
    parse("text/plain one\vpart\ftoo \v\f two\n");
    EXPECT_EQ(type_of("one\vpart\ftoo"), "text/plain");
    EXPECT_EQ(type_of("two"), "text/plain");
    EXPECT_EQ(type_of("one"), "(none)");
    EXPECT_EQ(type_of("part"), "(none)");
    EXPECT_EQ(type_of("\v\f"), "(none)");
}

TEST_F(Mime, LineLongerThanTheBufferIsReadAsTwo) {
    const std::string first = "text/plain txt";
    parse(first + std::string(255 - first.size(), ' ') + "text/html html more\n");
    EXPECT_EQ(type_of("txt"), "text/plain");
    EXPECT_EQ(type_of("html"), "text/html");
    EXPECT_EQ(type_of("more"), "text/html");
    EXPECT_EQ(type_of("text/html"), "(none)");
}

TEST_F(Mime, FileStaysOpenAfterItWasRead) {
    parse("text/plain txt\n");
    EXPECT_EQ(times_open("mime.types"), 1);
}

TEST_F(Mime, CommentCutsInsideALine) {
    parse("text/plain txt#conf\n");
    EXPECT_EQ(type_of("txt"), "text/plain");
    EXPECT_EQ(type_of("conf"), "(none)");
}

TEST_F(Mime, AnyOtherCharacterIsPartOfTheExtension) {
    parse("text/x-odd ~a~b~ .dotted ;,= %s\n");
    for (const auto* extension : {"~a~b~", ".dotted", ";,=", "%s"})
        EXPECT_EQ(type_of(extension), "text/x-odd") << extension;
}

TEST_F(Mime, LongTypesAreKeptWhole) {
    const std::string type = "application/" + std::string(150, 't');
    parse(type + " ext\n");
    EXPECT_EQ(type_of("ext"), type);
}

TEST_F(Mime, WithoutAFileNothingIsKnown) {
    activate();
    EXPECT_EQ(type_of("txt"), "(none)");
}

TEST_F(Mime, EmptyFileIsFine) {
    parse("");
    EXPECT_EQ(type_of("txt"), "(none)");
}

TEST_F(Mime, ManyExtensionsAreFound) {
    std::string content;
    for (int i = 0; i < 3000; ++i)
        content += "t/" + std::to_string(i) + " e" + std::to_string(i) + "\n";
    parse(content);
    for (int i = 0; i < 3000; ++i)
        ASSERT_EQ(type_of("e" + std::to_string(i)), "t/" + std::to_string(i));
}

TEST_F(Mime, MissingFileIsAFailure) {
    parse("text/plain txt\n");
    EXPECT_TRUE(logged("TRACE", "zorvan_i_s3_mime_types_parse", "exit: 0"));
    EXPECT_FALSE(logged("TRACE", "zorvan_i_s3_mime_types_parse", "exit: -1"));
    EXPECT_EQ(type_of("txt"), "text/plain");
    EXPECT_EQ(zorvan_i_s3_mime_types_parse(path_of("absent").c_str()), -1);
    EXPECT_TRUE(logged("TRACE", "zorvan_i_s3_mime_types_parse", "exit: -1"));
    EXPECT_EQ(type_of("txt"), "(none)") << "the table is gone";
}

TEST_F(Mime, EveryAllocationThatFailsFailsActivation) {
    const auto path = write_file("mime.types", "text/plain txt text conf\nimage/png png\n");
    debug_value.reset();
    int failures = 0;
    for (long n = 1; n < 200; ++n) {
        ASSERT_EQ(zorvan_i_s3_mime_types_init(), 0);
        fail_allocation(n);
        int result = 0;
        {
            const InModule inside;
            result = zorvan_i_s3_mime_types_parse(path.c_str());
        }
        const bool failed = allocation_failed();
        fail_allocation(0);
        if (result == 0) {
            EXPECT_FALSE(failed);
            EXPECT_EQ(type_of("png"), "image/png");
            zorvan_i_s3_mime_types_destroy();
            break;
        }
        EXPECT_EQ(result, -1);
        EXPECT_TRUE(failed);
        EXPECT_EQ(times_open("mime.types"), 0);
        EXPECT_EQ(type_of("txt"), "(none)");
        ++failures;
    }
    EXPECT_GE(failures, 4);
}

}  // namespace
