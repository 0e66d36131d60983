#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "fastfile.h"
#include "mtrace.h"
#include "tempdir.h"

namespace {

std::vector<std::string> entries_of(const std::string& dir)
{
    std::vector<std::string> names;
    for (const auto& e : std::filesystem::directory_iterator(dir))
        names.push_back(e.path().filename().string());
    return names;
}

class FastFileTest : public testing::Test {
protected:
    void SetUp() override { MErrTrace_ClearContext(); }
    void TearDown() override { MErrTrace_ClearContext(); }

    std::vector<std::string> lines_of(const std::string& content)
    {
        vt::write_file(path, content);
        MFastFileReader reader;
        EXPECT_TRUE(reader.Open(path.c_str()));
        std::vector<std::string> lines;
        std::string line;
        while (!reader.IsEOF()) {
            EXPECT_TRUE(reader.ReadLine(line));
            lines.push_back(line);
        }
        return lines;
    }

    vt::TempDir dir;
    std::string path = dir.file("f.txt");
};

using Lines = std::vector<std::string>;

TEST_F(FastFileTest, ReaderEndsLinesAtCrLfAndCrLfAlsoAcrossBufferFills)
{
    EXPECT_EQ((Lines{"a", "b", "c", ""}), lines_of("a\r\nb\rc\n\n"));
    EXPECT_EQ((Lines{"x", "", "y"}), lines_of("x\n\ry"));
    EXPECT_EQ((Lines{"z"}), lines_of("z\r"));

    /* CR is the last byte of the first fill, LF the first of the second */
    std::string head(MFastFile::BUFFER_SIZE - 1, 'p');
    EXPECT_EQ((Lines{head, "q"}), lines_of(head + "\r\nq"));
    std::string longline(3 * MFastFile::BUFFER_SIZE + 5, 'L');
    EXPECT_EQ((Lines{"s", longline, "end"}), lines_of("s\n" + longline + "\r\nend\n"));
}

/* The modes the INI document saves with: create or truncate, with or without
 * fsync, or replace through a temporary file that does not stay behind. */
TEST_F(FastFileTest, WholeFileModes)
{
    vt::write_file(path, "old contents");
    const int modes[] = {MFASTFILE_MODE_CREATE, MFASTFILE_MODE_CREATE | MFASTFILE_MODE_FSYNC, MFASTFILE_MODE_ATOMIC};
    for (int mode : modes) {
        std::string text = "mode " + std::to_string(mode);
        EXPECT_EQ(0, MFastFile_WriteAtOnce(path.c_str(), text.data(), static_cast<unsigned int>(text.size()), mode));
        EXPECT_EQ(text, vt::read_file(path));
        EXPECT_EQ(1u, entries_of(dir.path()).size()) << mode;
        struct stat st;
        ASSERT_EQ(0, stat(path.c_str(), &st));
        EXPECT_EQ(0644u, st.st_mode & 0777);
    }
}

/* What a cut save leaves is its own temporary name, <file>.XXXXXX: that
 * goes, anything else stays. */
TEST_F(FastFileTest, LeftoversOfCutSavesAreRemoved)
{
    const char* const leftovers[] = {"f.txt.a1B2c3", "f.txt.XXXXXX"};
    const char* const others[] = {"f.txt.bad", "f.txt.a1B2c", "f.txt.a1B2c34", "f.txt.a1-2c3", "g.txt.a1B2c3",
                                  "f.txta1B2c3", "a1B2c3"};
    for (const char* name : leftovers)
        vt::write_file(dir.file(name), "");
    for (const char* name : others)
        vt::write_file(dir.file(name), "");
    EXPECT_EQ(2, MFastFile_RemoveTemporaryFiles(path.c_str()));
    std::vector<std::string> names = entries_of(dir.path());
    std::sort(names.begin(), names.end());
    Lines kept(std::begin(others), std::end(others));
    std::sort(kept.begin(), kept.end());
    EXPECT_EQ(kept, names);
    EXPECT_EQ(-1, MFastFile_RemoveTemporaryFiles(dir.file("none/f.txt").c_str()));
}

TEST_F(FastFileTest, AtomicReplaceLeavesNothingBehindWhenItFails)
{
    /* the folder part is a regular file: the temporary file cannot be made */
    std::string below_file = path + "/x.ini";
    vt::write_file(path, "keep");
    EXPECT_EQ(-1, MFastFile_WriteAtOnce(below_file.c_str(), "data", 4, MFASTFILE_MODE_ATOMIC));

    /* the rename fails when the target is a folder with content */
    std::string target = dir.file("target");
    std::filesystem::create_directory(target);
    vt::write_file(target + "/inside", "i");
    EXPECT_EQ(-1, MFastFile_WriteAtOnce(target.c_str(), "data", 4, MFASTFILE_MODE_ATOMIC));
    std::vector<std::string> names = entries_of(dir.path());
    std::sort(names.begin(), names.end());
    EXPECT_EQ((Lines{"f.txt", "target"}), names);
    EXPECT_EQ("keep", vt::read_file(path));
}

TEST_F(FastFileTest, WholeLinesAreWrittenWithLfEnds)
{
    EXPECT_EQ(0, MFastFile_WriteLinesAtOnce(path.c_str(), std::string("x\r\ny\rz\r"), MFASTFILE_MODE_CREATE));
    EXPECT_EQ("x\ny\nz\n", vt::read_file(path));
}

} // namespace
