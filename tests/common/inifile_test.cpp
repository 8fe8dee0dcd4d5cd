#include "common/inifile.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/test_support.h"

namespace {

// Reads of section "AVRecordCustom"; "-" stands for "not found, default used".
struct ReadCase {
    const char *name;
    std::string text;
    const char *key;
    const char *value;
    int size = 64;
};

class IniReadTest : public testing::TestWithParam<ReadCase> {};

TEST_P(IniReadTest, ReadsValueOrDefault) {
    const ReadCase &c = GetParam();
    TempDir dir;
    std::string path = dir.File("CustomTools.cfg");
    WriteWholeFile(path, c.text);
    char value[64];
    std::memset(value, 'x', sizeof(value));
    bool found = std::string(c.value) != "-";
    EXPECT_EQ(read_profile_string("AVRecordCustom", c.key, value, c.size, "-", path.c_str()), found ? 1 : 0);
    EXPECT_STREQ(value, c.value);
}

// clang-format off
const ReadCase kReadCases[] = {
    {"Plain", "[AVRecordCustom]\nStreamType=2\nDuration=600\n", "Duration", "600"},
    {"SpacesAroundEquals", "[AVRecordCustom]\nStreamType = 2\n", "StreamType", "-"},
    {"SectionPrefix", "[AVRecord]\nStreamType=0\n", "StreamType", "0"},
    {"EmptyHeaderMatchesAll", "[]\nStreamType=7\n", "StreamType", "7"},
    {"LongerHeaderNoMatch", "[AVRecordCustomX]\nStreamType=0\n", "StreamType", "-"},
    {"KeyPrefix", "[AVRecordCustom]\nDur=5\n", "Duration", "5"},
    {"LongerKeyNoMatch", "[AVRecordCustom]\nDurations=5\n", "Duration", "-"},
    {"CommentLine", "[AVRecordCustom]\nA=1\n;Duration=5\n", "Duration", "-"},
    {"SemicolonInValue", "[AVRecordCustom]\nName=a;b\n", "Name", "a;b"},
    {"LeadingSpaceLine", "[AVRecordCustom]\nA=1\n Duration=5\n", "Duration", "-"},
    // The first line is found after the white space behind the header.
    {"LeadingSpaceFirstLine", "[AVRecordCustom]\n  Duration=5\n", "Duration", "5"},
    {"BracketAfterSpaceNotHeader", "[B]\nx=1\n [AVRecordCustom]\nDuration=5\n", "Duration", "-"},
    {"LaterMatchingSection", "[AVRecordCustom]\nA=1\n[Other]\nDuration=2\n[AVRecordCustom]\nDuration=3\n",
     "Duration", "3"},
    {"OnlyFirstEquals", "[AVRecordCustom]\nK=a=b\n", "K", "a=b"},
    {"EqualsInColumnZero", "[AVRecordCustom]\n=K=1\n", "K", "-"},
    {"CrLf", "[AVRecordCustom]\r\nStreamType=2\r\nDuration=9\r\n", "StreamType", "2"},
    {"ValueNotTrimmed", "[AVRecordCustom]\nK= \"a\" \n", "K", " \"a\" "},
    {"SizeCut", "[AVRecordCustom]\nK=abcdef\n", "K", "abc", 4},
    {"NoLineEndAtEnd", "[AVRecordCustom]\nK=abc", "K", "abc"},
    {"UnclosedHeaderAtEnd", "[AVRecordCustom", "K", "-"},
    {"FFByteEndsText", "[AVRecordCustom]\nA=1\n\xff\nK=2\n", "K", "-"},
    {"FFByteCutsValue", "[AVRecordCustom]\nK=12\xff" "3\n", "K", "12"}};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Cases, IniReadTest, testing::ValuesIn(kReadCases),
                         [](const testing::TestParamInfo<ReadCase> &info) { return info.param.name; });

TEST(IniTest, ParsePositions) {
    const char *buf = "[AVRecordCustom]\n\n  StreamType=2\r\n";
    int sec_s, sec_e, key_s, key_e, value_s, value_e;
    ASSERT_EQ(
        parse_file("AVRecordCustom", "StreamType", buf, &sec_s, &sec_e, &key_s, &key_e, &value_s, &value_e),
        1);
    EXPECT_EQ(sec_s, 1);
    EXPECT_EQ(sec_e, 20);  // the "S" after the header, blank line and blanks
    EXPECT_EQ(key_s, 20);
    EXPECT_EQ(key_e, 29);  // just before "="
    EXPECT_EQ(value_s, 31);
    EXPECT_EQ(value_e, 32);  // the CR

    EXPECT_EQ(parse_file("AVRecordCustom", "Other", buf, &sec_s, &sec_e, &key_s, &key_e, &value_s, &value_e),
              0);
    EXPECT_EQ(sec_s, 1);  // the section stays found
    EXPECT_EQ(key_s, -1);
    EXPECT_EQ(value_e, -1);
}

TEST(IniTest, ReadIntAndMissingFile) {
    TempDir dir;
    std::string path = dir.File("c.cfg");
    WriteWholeFile(path, "[AVRecordCustom]\nDuration=1200s\nStreamType=x\n");
    EXPECT_EQ(read_profile_int("AVRecordCustom", "Duration", 600, path.c_str()), 1200);
    EXPECT_EQ(read_profile_int("AVRecordCustom", "StreamType", 1, path.c_str()), 0);
    EXPECT_EQ(read_profile_int("AVRecordCustom", "Missing", 1, path.c_str()), 1);
    EXPECT_EQ(read_profile_int("AVRecordCustom", "Duration", 600, dir.File("none.cfg").c_str()), 600);

    // A null default leaves the caller's buffer as it was.
    char value[8] = "keep";
    EXPECT_EQ(read_profile_string("S", "K", value, sizeof(value), nullptr, dir.File("none.cfg").c_str()), 0);
    EXPECT_STREQ(value, "keep");
    // A default of size characters or more is copied unterminated (strncpy).
    char small[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(read_profile_string("S", "K", small, 3, "123456", dir.File("none.cfg").c_str()), 0);
    EXPECT_EQ(std::string(small, 4), "123d");
}

TEST(IniTest, FileSizeLimit) {
    TempDir dir;
    std::string path = dir.File("big.cfg");
    std::string text = "[S]\nK=v\n";
    text.resize(MAX_FILE_SIZE - 1, ' ');
    WriteWholeFile(path, text);
    char buf[MAX_FILE_SIZE];
    int size = -1;
    EXPECT_EQ(load_ini_file(path.c_str(), buf, &size), 1);
    EXPECT_EQ(size, MAX_FILE_SIZE - 1);
    EXPECT_EQ(buf[size], '\0');

    WriteWholeFile(path, text + " ");
    EXPECT_DEATH(load_ini_file(path.c_str(), buf, &size),
                 "inifile.c:[0-9]+: load_ini_file: Assertion `i < MAX_FILE_SIZE' failed");
    EXPECT_DEATH(read_profile_int("S", "K", 0, path.c_str()), "Assertion `i < MAX_FILE_SIZE' failed");

    size = -1;
    EXPECT_EQ(load_ini_file(dir.File("none").c_str(), buf, &size), 0);
    EXPECT_EQ(size, 0);
}

struct WriteCase {
    const char *name;
    bool exists;
    std::string before;
    const char *section;
    const char *key;
    const char *value;
    std::string after;
};

class IniWriteTest : public testing::TestWithParam<WriteCase> {};

TEST_P(IniWriteTest, RewritesFile) {
    const WriteCase &c = GetParam();
    TempDir dir;
    std::string path = dir.File("CustomTools.cfg");
    if (c.exists) WriteWholeFile(path, c.before);
    EXPECT_EQ(write_profile_string(c.section, c.key, c.value, path.c_str()), 1);
    EXPECT_EQ(ReadWholeFile(path), c.after);
}

const WriteCase kWriteCases[] = {
    {"MissingFile", false, "", "AVRecordCustom", "Duration", "300", "[AVRecordCustom]\nDuration=300\n"},
    {"EmptyFile", true, "", "S", "K", "1", "[S]\nK=1\n"},
    {"NewSection", true, "[A]\nx=1\n", "S", "K", "1", "[A]\nx=1\n\n[S]\nK=1\n"},
    {"NewKeyGoesFirst", true, "[S]\nA=1\n[T]\nB=2\n", "S", "K", "v", "[S]\nK=v\nA=1\n[T]\nB=2\n"},
    {"NewKeyInEmptySectionAtEnd", true, "[A]\nx=1\n[S]\n", "S", "K", "v", "[A]\nx=1\n[S]\nK=v\n"},
    {"ExistingKey", true, "[S]\nA=1\nK=old\nB=2\n", "S", "K", "newer", "[S]\nA=1\nK=newer\nB=2\n"},
    {"ExistingKeyCrLf", true, "[S]\r\nK=old\r\nB=2\r\n", "S", "K", "7", "[S]\r\nK=7\r\nB=2\r\n"},
    {"PrefixKeyReplaced", true, "[S]\nDur=5\n", "S", "Duration", "9", "[S]\nDur=9\n"},
    // The text after an inserted key is used as a format with the remaining
    // length as its argument.
    {"PercentAfterInsert", true, "[S]\nA=50%%\nB=%d\n", "S", "K", "v", "[S]\nK=v\nA=50%\nB=12\n"},
    // What the C library makes of a lone "%" before a line end, a conversion
    // it does not know and "% o" (octal with a space flag).
    {"PercentAsTheLibraryPrintsIt", true, "[S]\nRate=50%\nA=%y%%\nC=5% off\n", "S", "K", "v",
     "[S]\nK=v\nRate=50%\nA=%y%\nC=531ff\n"},
    {"PositionOne", true, "[S]\nA=%1$d/%1$x\n", "S", "K", "v", "[S]\nK=v\nA=12/c\n"},
    // One int read at most, whatever the flags, sizes, "h" or "hh", or the
    // int coming in through "*"; a position of 1 may be read again.
    {"OneIntWithFlagsAndSizes", true, "[S]\nA=%1$-+4hd|%1$#.3hhx|%1$'05i\n", "S", "K", "v",
     "[S]\nK=v\nA=+29 |0x01d|00029\n"},
    {"OneIntAsASize", true, "[S]\nA=%*%|%.5y|%hy\n", "S", "K", "v", "[S]\nK=v\nA=%|%.5y|%y\n"},
    {"PositionOneAsASize", true, "[S]\nA=%1$*1$d|\n", "S", "K", "v", "[S]\nK=v\nA=         11|\n"},
    {"PercentBeforeInsertKept", true, "[P]\nA=%%\n[S]\nB=1\n", "S", "K", "v", "[P]\nA=%%\n[S]\nK=v\nB=1\n"},
    {"PercentOnReplaceKept", true, "[S]\nK=1\nA=%d\n", "S", "K", "2", "[S]\nK=2\nA=%d\n"}};

INSTANTIATE_TEST_SUITE_P(Cases, IniWriteTest, testing::ValuesIn(kWriteCases),
                         [](const testing::TestParamInfo<WriteCase> &info) { return info.param.name; });

// Error paths: refusals leave the file as it was; argument errors abort with
// the assertion text of the function.
TEST(IniTest, WriteRefusals) {
    TempDir dir;
    std::string path = dir.File("c.cfg");

    // A format that could read anything but the one int is not run: a
    // pointer, a floating value, a modifier that widens the int (also where
    // it only starts an unknown conversion: "%lt" is "t" after "l", and the
    // "%000s" after it reads a pointer), a second argument, a position on a
    // conversion that reads nothing, digits after "*" that make no position,
    // a "$" as the conversion, a size beyond the text, a conversion the end
    // of the text cuts short.
    for (const char *rest :
         {"%s",      "%n",    "%p",       "%S",          "%f",     "%La",     "%Lg",     "%C",
          "%lc",     "%ld",   "%lld",     "%hld",        "%zu",    "%jd",     "%td",     "%qd",
          "%Zd",     "%w32d", "%lt%000s", "%ly%s",       "%hhy%s", "%d %i",   "%*d",     "%.*x",
          "%*%%d",   "%2$d",  "%0$d",     "%1$d %d",     "%d%1$d", "%1$*2$d", "%1$*d",   "%*1$d %d",
          "%1$%",    "%1$m",  "%1$y",     "%*5d",        "%.*5d",  "%-1$d",   "%99999d", "%.99999d",
          "%99999y", "%05",   "%0400000", "%50555510$d", "%hh",    "%.",      "50%"}) {
        SCOPED_TRACE(rest);
        std::string text = std::string("[S]\nA=") + rest;
        WriteWholeFile(path, text);
        EXPECT_EQ(write_profile_string("S", "K", "v", path.c_str()), 0);
        EXPECT_EQ(ReadWholeFile(path), text);
    }

    // A result that would not fit the buffer is refused.
    std::string text = "[S]\nA=" + std::string(MAX_FILE_SIZE - 20, 'a') + "\n";
    WriteWholeFile(path, text);
    EXPECT_EQ(write_profile_string("S", "K", "0123456789abcdef", path.c_str()), 0);
    EXPECT_EQ(write_profile_string("S", "A", std::string(30, 'b').c_str(), path.c_str()), 1);
    EXPECT_EQ(ReadWholeFile(path), "[S]\nA=" + std::string(30, 'b') + "\n");
    std::string filler(MAX_FILE_SIZE - 20, 'c');
    EXPECT_EQ(write_profile_string("S", "A", filler.c_str(), path.c_str()), 1);
    EXPECT_EQ(write_profile_string("T", "B", "0123456789abcdef", path.c_str()), 0);
    EXPECT_EQ(ReadWholeFile(path), "[S]\nA=" + filler + "\n");

    // A file that cannot be created.
    EXPECT_EQ(write_profile_string("S", "K", "v", dir.File("no/such/dir.cfg").c_str()), 0);
}

TEST(IniDeathTest, Assertions) {
    char value[8];
    char buf[16] = "";
    int i;
    const char *f = "/nonexistent.cfg";
    // clang-format off
    EXPECT_DEATH(load_ini_file(nullptr, buf, &i), "inifile.c:[0-9]+: load_ini_file: Assertion `file !=NULL' failed");
    EXPECT_DEATH(load_ini_file(f, nullptr, &i), "load_ini_file: Assertion `buf !=NULL' failed");
    EXPECT_DEATH(parse_file("S", "K", nullptr, &i, &i, &i, &i, &i, &i), "parse_file: Assertion `buf!=NULL'");
    EXPECT_DEATH(parse_file("", "K", buf, &i, &i, &i, &i, &i, &i), "parse_file: Assertion `section != NULL && strlen\\(section\\)'");
    EXPECT_DEATH(parse_file("S", nullptr, buf, &i, &i, &i, &i, &i, &i), "parse_file: Assertion `key != NULL && strlen\\(key\\)'");
    EXPECT_DEATH(read_profile_string(nullptr, "K", value, 8, "", f), "read_profile_string: Assertion `section != NULL && strlen\\(section\\)'");
    EXPECT_DEATH(read_profile_string("S", "", value, 8, "", f), "read_profile_string: Assertion `key != NULL && strlen\\(key\\)'");
    EXPECT_DEATH(read_profile_string("S", "K", nullptr, 8, "", f), "read_profile_string: Assertion `value != NULL'");
    EXPECT_DEATH(read_profile_string("S", "K", value, 0, "", f), "read_profile_string: Assertion `size > 0'");
    EXPECT_DEATH(read_profile_string("S", "K", value, 8, "", nullptr), "read_profile_string: Assertion `file !=NULL &&strlen\\(key\\)'");
    EXPECT_DEATH(write_profile_string("", "K", "v", f), "write_profile_string: Assertion `section != NULL && strlen\\(section\\)'");
    EXPECT_DEATH(write_profile_string("S", nullptr, "v", f), "write_profile_string: Assertion `key != NULL && strlen\\(key\\)'");
    EXPECT_DEATH(write_profile_string("S", "K", nullptr, f), "write_profile_string: Assertion `value != NULL'");
    EXPECT_DEATH(write_profile_string("S", "K", "v", nullptr), "write_profile_string: Assertion `file !=NULL &&strlen\\(key\\)'");
    // clang-format on
}

}  // namespace
