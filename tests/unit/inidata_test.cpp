#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <sys/resource.h>
#include <vector>

#include "MIniData.h"
#include "mtrace.h"
#include "tempdir.h"

namespace {

using Names = std::vector<std::string>;

Names files_in(const std::string& dir)
{
    Names names;
    for (const auto& e : std::filesystem::directory_iterator(dir))
        names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::string content_of(const MIniData& doc)
{
    std::string text;
    EXPECT_TRUE(doc.GetContentString(&text));
    return text;
}

class IniDataTest : public testing::Test {
protected:
    void SetUp() override { MErrTrace_ClearContext(); }
    void TearDown() override { MErrTrace_ClearContext(); }

    vt::TempDir dir;
    std::string path = dir.file("test.ini");
};

TEST_F(IniDataTest, OpenKeepsLinesAndSaveRegroupsSections)
{
    vt::write_file(path,
                   "\xEF\xBB\xBF; top comment\n"
                   "\n"
                   "[b]\n"
                   "  speed = 12 ; fast\n"
                   "   \n"
                   "key = abc \n"
                   "\n"
                   "[a]\r\n"
                   "x=1\r\n"
                   "# note\r"
                   "n=12abc\n"
                   "s=abc\n"
                   "d= 2.5e3\n");
    MIniData doc(0);
    ASSERT_TRUE(doc.Open(path.c_str()));
    EXPECT_FALSE(doc.HasNoFile());

    std::string s;
    long l = 0;
    double d = 0;
    EXPECT_TRUE(doc.GetStringEntry("b", "key", &s));
    EXPECT_EQ(" abc ", s);
    EXPECT_TRUE(doc.GetLongEntry("b", "speed \t", &l)); /* trailing blanks of the name do not count */
    EXPECT_EQ(12, l);
    EXPECT_TRUE(doc.GetLongEntry("a", "n", &l));
    EXPECT_EQ(12, l);
    EXPECT_FALSE(doc.GetLongEntry("a", "s", &l));
    EXPECT_TRUE(doc.GetDoubleEntry("a", "d", &d));
    EXPECT_EQ(2500.0, d);
    EXPECT_FALSE(doc.GetStringEntry("a ", "x", &s));

    ASSERT_TRUE(doc.Save());
    EXPECT_EQ("; top comment\n"
              "[a]\n"
              "x=1\n"
              "# note\n"
              "n=12abc\n"
              "s=abc\n"
              "d= 2.5e3\n"
              "[b]\n"
              "  speed = 12 ; fast\n"
              "   \n"
              "key = abc \n",
              vt::read_file(path));
}

TEST_F(IniDataTest, ParserRejectsBadLines)
{
    struct Case {
        const char* text;
        const char* error; /* null: parses */
    } cases[] = {
        {" [a]\n", "Possible entry \" [a]\" found before first section"},
        {"[s]\n [a]\n", "No '=' found in \" [a]\" in section [s]"},
        {"[s] ; c\n = v\n", "No entry name found before '=' in \" = v\" in section [s] ; c"},
        {"[s\n", "no matching ']' found in \"[s\""},
        {"[a]\n[a]\n", "Section [a] seen twice"},
        {"[a]\nk=1\nk =2\n", "Entry \"k\" seen twice in section [a]"},
        {"[a]\n[A]\n", nullptr},
    };
    for (const Case& c : cases) {
        MIniData doc(0);
        MErrTrace_ClearContext();
        EXPECT_EQ(c.error == nullptr, doc.SetContentString(c.text)) << c.text;
        if (c.error != nullptr) {
            EXPECT_EQ(c.error, doc.GetLastErrorString());
        }
    }

    /* Open fails on the same text */
    vt::write_file(path, "; ok\n[s]\nbroken\n");
    MIniData doc(0);
    EXPECT_FALSE(doc.Open(path.c_str()));
    EXPECT_FALSE(doc.IsOpen());
}

TEST_F(IniDataTest, SettersKeepTheNameAndSpacingAndClearSaved)
{
    vt::write_file(path, "[s]\nkey = 1 ; note\n");
    MIniData doc(0);
    ASSERT_TRUE(doc.Open(path.c_str()));
    ASSERT_TRUE(doc.SetLongEntry("s", "key", 7));
    EXPECT_FALSE(doc.IsSaved());
    ASSERT_TRUE(doc.SetDoubleEntry("s", "d", 0.1));
    ASSERT_TRUE(doc.SetLongEntry("s", "n", -5));
    ASSERT_TRUE(doc.SetStringEntry("new", "name \t", " v "));
    ASSERT_TRUE(doc.SetStringEntry("new", "name", "w"));
    ASSERT_TRUE(doc.Save());
    EXPECT_TRUE(doc.IsSaved());
    EXPECT_EQ("[new]\n"
              "name= w\n" /* the blank after '=' stays with the name */
              "[s]\n"
              "key = 7\n"
              "d=0.10000000000000001\n"
              "n=-5\n",
              vt::read_file(path));
    double d = 0;
    EXPECT_TRUE(doc.GetDoubleEntry("s", "d", &d));
    EXPECT_EQ(0.1, d);
}

TEST_F(IniDataTest, FileStatesAcrossOpenSaveAndClose)
{
    MIniData doc(MINIDATA_FLAG_ATOMIC_SAVE);
    ASSERT_TRUE(doc.Open(path.c_str())); /* absent: open and empty */
    EXPECT_TRUE(doc.IsOpen());
    EXPECT_TRUE(doc.HasNoFile());
    EXPECT_FALSE(doc.IsSaved());
    ASSERT_TRUE(doc.SetLongEntry("c", "n", 1));
    ASSERT_TRUE(doc.Save());
    EXPECT_FALSE(doc.HasNoFile());
    EXPECT_EQ("[c]\nn=1\n", vt::read_file(path));
    EXPECT_EQ((Names{"test.ini"}), files_in(dir.path())); /* the temporary file is gone */

    vt::write_file(path, "[c]\nn=2\n");
    ASSERT_TRUE(doc.Open(doc.GetFilename().c_str())); /* its own name, cleared by the implied Close */
    long n = 0;
    EXPECT_TRUE(doc.GetLongEntry("c", "n", &n));
    EXPECT_EQ(2, n);
    ASSERT_TRUE(doc.Close());
    EXPECT_FALSE(doc.IsOpen());
    EXPECT_FALSE(doc.Save()); /* no file name */
}

TEST_F(IniDataTest, HandleInterface)
{
    MINIDATA_HANDLE h = MIniData_CreateWithFlags(MINIDATA_FLAG_FSYNC | MINIDATA_FLAG_ATOMIC_SAVE);
    ASSERT_NE(nullptr, h);
    EXPECT_EQ(1, MIniData_Open(h, path.c_str()));
    EXPECT_EQ(1, MIniData_HasNoFile(h));
    EXPECT_EQ(1, MIniData_SetLongEntry(h, "counters", "uptime", 42));
    EXPECT_EQ(1, MIniData_SetDoubleEntry(h, "channel", "f", 20000.0));
    EXPECT_EQ(1, MIniData_SetStringEntry(h, "general", "machine", "VELAN"));
    EXPECT_EQ(1, MIniData_DoesSectionExist(h, "general"));

    long l = 0;
    double d = 0;
    EXPECT_EQ(1, MIniData_GetLongEntry(h, "counters", "uptime", &l));
    EXPECT_EQ(42, l);
    EXPECT_EQ(1, MIniData_GetDoubleEntry(h, "channel", "f", &d));
    EXPECT_EQ(20000.0, d);
    EXPECT_EQ(0, MIniData_GetDoubleEntry(h, "channel", "x", &d));
    char buf[8];
    EXPECT_EQ(0, MIniData_GetStringEntry(h, "general", "machine", buf, 5)); /* no room for the NUL */
    EXPECT_EQ(1, MIniData_GetStringEntry(h, "general", "machine", buf, 6));
    EXPECT_STREQ("VELAN", buf);

    EXPECT_EQ(1, MIniData_Save(h));
    EXPECT_EQ(0, MIniData_HasNoFile(h));
    const char* expected = "[channel]\nf=20000\n[counters]\nuptime=42\n[general]\nmachine=VELAN\n";
    EXPECT_EQ(expected, vt::read_file(path));
    char* content = MIniData_GetContentString(h);
    ASSERT_NE(nullptr, content);
    EXPECT_STREQ(expected, content);
    free(content);
    EXPECT_EQ(1, MIniData_SetContentString(h, "[x]\ny=1\n"));
    EXPECT_EQ(0, MIniData_DoesSectionExist(h, "general"));
    EXPECT_EQ(0, MIniData_SetContentString(h, "[a"));
    MIniData_Destroy(h);
}

/* Limits the file size a write may reach, as a full disk would. */
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        getrlimit(RLIMIT_FSIZE, &old_);
        old_handler_ = signal(SIGXFSZ, SIG_IGN);
        struct rlimit lim = old_;
        lim.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &lim);
    }
    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &old_);
        signal(SIGXFSZ, old_handler_);
    }

private:
    struct rlimit old_;
    void (*old_handler_)(int);
};

TEST_F(IniDataTest, FailedSaveKeepsThePreviousFile)
{
    const std::string old = "[keep]\nme=1\n";
    vt::write_file(path, old);
    MIniData doc(MINIDATA_FLAG_ATOMIC_SAVE);
    ASSERT_TRUE(doc.Open(path.c_str()));
    ASSERT_TRUE(doc.SetStringEntry("keep", "big", std::string(4096, 'b')));
    const std::string changed = content_of(doc);
    {
        FileSizeLimit limit(1024);
        EXPECT_FALSE(doc.Save());
    }
    EXPECT_FALSE(doc.IsSaved());
    EXPECT_EQ(old, vt::read_file(path));
    EXPECT_EQ((Names{"test.ini"}), files_in(dir.path()));
    EXPECT_TRUE(doc.Save());
    EXPECT_EQ(changed, vt::read_file(path));

    /* a folder that cannot exist: its parent is a regular file */
    for (int flags : {0, int{MINIDATA_FLAG_FSYNC}, int{MINIDATA_FLAG_ATOMIC_SAVE}}) {
        MIniData lost(flags);
        ASSERT_TRUE(lost.Open((path + "/sub.ini").c_str()));
        ASSERT_TRUE(lost.SetLongEntry("a", "b", 1));
        EXPECT_FALSE(lost.Save());
        EXPECT_TRUE(lost.HasNoFile());
    }
    EXPECT_EQ((Names{"test.ini"}), files_in(dir.path()));
}

} // namespace
