// Listing lines and the times in them, byte for byte.
#include "listing.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "ftp_time.h"

using namespace zorvan::gridftp;

namespace {

constexpr std::int64_t now = 1700000000;  // 2023-11-14 22:13:20 UTC

listing_entry file(std::string_view name, std::int64_t size, std::int64_t mtime) {
    listing_entry entry;
    entry.name = name;
    entry.mode = S_IFREG | 0700;
    entry.size = size;
    entry.mtime = mtime;
    return entry;
}

listing_entry directory(std::string_view name) {
    listing_entry entry;
    entry.name = name;
    entry.mode = S_IFDIR | 0700;
    return entry;
}

std::string facts(const listing_entry& entry, unsigned wanted = fact_all, bool self = false) {
    bool replaced = false;
    return facts_line(entry, wanted, self, replaced);
}

std::string long_form(const listing_entry& entry) {
    bool replaced = false;
    return long_line(entry, now, replaced);
}

}  // namespace

TEST(FtpTime, FormatsAndParses) {
    EXPECT_EQ(format_time_value(0), "19700101000000");
    EXPECT_EQ(format_time_value(now), "20231114221320");
    EXPECT_EQ(format_time_value(-2), "19691231235958");
    EXPECT_EQ(format_time_value(253402300799), "99991231235959");
    EXPECT_EQ(parse_time_value("20231114221320"), now);
    EXPECT_EQ(parse_time_value("20231114221320.250"), now);
    EXPECT_EQ(parse_time_value("20160229000000"), 1456704000);
}

TEST(FtpTime, UnknownTimesHaveNoForm) {
    EXPECT_FALSE(format_time_value(-1));
    EXPECT_FALSE(format_time_value(253402300800));
    EXPECT_FALSE(format_time_value(-99999999999));
    EXPECT_FALSE(format_time_value(INT64_MAX));
    EXPECT_FALSE(format_time_value(INT64_MIN));
}

TEST(FtpTime, RefusesWhatIsNoTime) {
    for (const char* text : {"", "2023", "20231314000000", "20230230000000", "20230101240000",
                             "20230101006000", "2023010100006x", "20230101000000x", "20230101000000.",
                             "20230101000061", "-2230101000000", "202301010000001"}) {
        EXPECT_FALSE(parse_time_value(text)) << text;
    }
}

TEST(Listing, LongLines) {
    EXPECT_EQ(long_form(file("name", 1234, now - 3600)),
              "-rwx------   1 0        0                1234 Nov 14 21:13 name");
    EXPECT_EQ(long_form(directory("a b")), "drwx------   1 0        0                   0 Jan  1  1970 a b");
    EXPECT_EQ(long_form(file("old", 1, 1456704000)),
              "-rwx------   1 0        0                   1 Feb 29  2016 old");
    EXPECT_EQ(long_form(file("later", 1, now + 10)),
              "-rwx------   1 0        0                   1 Nov 14  2023 later");
    EXPECT_EQ(long_form(file("far", 1, INT64_MAX)),
              "-rwx------   1 0        0                   1 Jan  1  1970 far");
}

TEST(Listing, Facts) {
    EXPECT_EQ(
        facts(file("f", 5, now)),
        "type=file;size=5;modify=20231114221320;UNIX.mode=0700;UNIX.owner=0;UNIX.group=0;perm=adfrw; f");
    EXPECT_EQ(facts(directory("d")), "type=dir;UNIX.mode=0700;UNIX.owner=0;UNIX.group=0;perm=cdeflmp; d");
    EXPECT_EQ(facts(directory("."), fact_type, true), "type=cdir; .");
    EXPECT_EQ(facts(file("f", 5, -1), fact_size | fact_modify), "size=5; f");
    EXPECT_EQ(facts(file("f", 5, -1), 0), " f");
}

TEST(Listing, ANameCannotAddALine) {
    bool replaced = false;
    const std::string line = facts_line(file("a\r\n226 done", 1, -1), fact_type, false, replaced);
    EXPECT_EQ(line, "type=file; a??226 done");
    EXPECT_TRUE(replaced);
    replaced = false;
    EXPECT_EQ(long_line(file(std::string_view("a\0b", 3), 1, -1), now, replaced),
              "-rwx------   1 0        0                   1 Jan  1  1970 a?b");
    EXPECT_TRUE(replaced);
    replaced = false;
    long_line(file("plain", 1, -1), now, replaced);
    EXPECT_FALSE(replaced);
}

TEST(Listing, FactsAreChosenByName) {
    EXPECT_EQ(parse_facts("type;SIZE;nonsense;unix.mode;"), fact_type | fact_size | fact_unix_mode);
    EXPECT_EQ(parse_facts("size"), fact_size);
    EXPECT_EQ(parse_facts(""), 0U);
    EXPECT_EQ(fact_names(fact_size | fact_perm), "size;perm;");
    EXPECT_EQ(facts_feature(fact_type | fact_size),
              "MLST type*;size*;modify;UNIX.mode;UNIX.owner;UNIX.group;perm;");
}

TEST(Listing, OptionsOfListAreIgnored) {
    EXPECT_EQ(without_list_options("-la"), "");
    EXPECT_EQ(without_list_options("-a -l dir"), "dir");
    EXPECT_EQ(without_list_options(" -la  a b"), "a b");
    EXPECT_EQ(without_list_options("./-x"), "./-x");
    EXPECT_EQ(without_list_options("dir -l"), "dir -l");
}
