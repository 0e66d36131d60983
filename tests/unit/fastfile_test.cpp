#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "fastfile.h"
#include "errtrace_match.h"
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

    /* the character reader folds the split pair the same way, and pushes a
     * non-LF after a CR back even when it came from a new fill */
    for (const char* tail : {"\r\nx", "\rx"}) {
        vt::write_file(path, head + tail);
        MFastFileReader reader(path.c_str());
        std::string got;
        char c;
        while (reader.ReadCharNL(&c) == 1)
            got += c;
        EXPECT_EQ(head + "\nx", got) << tail;
    }

    /* the buffer form hands out long lines in pieces of size characters */
    vt::write_file(path, "abcdef\r\ngh");
    MFastFileReader reader(path.c_str());
    char buf[5];
    EXPECT_EQ(4, reader.ReadLine(buf, 4));
    EXPECT_STREQ("abcd", buf);
    EXPECT_EQ(2, reader.ReadLine(buf, 4));
    EXPECT_STREQ("ef", buf);
    EXPECT_EQ(2, reader.ReadLine(buf, 4));
    EXPECT_STREQ("gh", buf);
    EXPECT_TRUE(reader.IsEOF());
}

TEST_F(FastFileTest, ReaderRawReadsAndPushBackStayWithinTheCurrentBuffer)
{
    std::string data(MFastFile::BUFFER_SIZE, 'a');
    int number = 0x12345678;
    data += "xyz";
    data.append(reinterpret_cast<const char*>(&number), sizeof number);
    data += "k1,k2";
    vt::write_file(path, data);

    MFastFileReader reader(path.c_str());
    std::string first(MFastFile::BUFFER_SIZE, '\0');
    EXPECT_EQ(static_cast<int>(first.size()), reader.Read(first.data(), MFastFile::BUFFER_SIZE));
    EXPECT_FALSE(reader.IsEOF()); /* refills: the position is at the buffer start */
    EXPECT_FALSE(reader.UnReadChar());
    EXPECT_TRUE(trace_has("MFastFileReader::UnReadChar(): can't rewind"));
    char c = 0;
    EXPECT_EQ(1, reader.ReadChar(&c));
    EXPECT_TRUE(reader.UnReadChar());
    char three[4];
    EXPECT_EQ(3, reader.Read(three, 3));
    EXPECT_EQ(0, memcmp("xyz", three, 3));
    int got = 0;
    EXPECT_TRUE(reader.ReadInt(&got));
    EXPECT_EQ(number, got);
    char word[8];
    EXPECT_EQ(2, reader.ReadString(word, 7, ','));
    EXPECT_STREQ("k1", word);
    EXPECT_EQ(2, reader.ReadString(word, 7, ','));
    EXPECT_STREQ("k2", word);
    EXPECT_EQ(0, reader.ReadChar(&c));
    short s;
    EXPECT_FALSE(reader.ReadShort(&s));

    MFastFileReader none;
    EXPECT_EQ(-1, none.ReadChar(&c));
    EXPECT_TRUE(trace_has("read_char_from_buffer(): no open file"));
    EXPECT_FALSE(none.Open(dir.file("missing").c_str()));
    EXPECT_TRUE(trace_has("MFastFileReader::Open(): open(\""));
    EXPECT_FALSE(none.Open(dir.path().c_str())); /* a folder opens but cannot be read */
    EXPECT_TRUE(trace_has("MFastFileReader::Open(): fill_buffer() \""));
}

TEST_F(FastFileTest, WriterKeepsEveryByteWhateverTheChunkSizes)
{
    MFastFileWriter writer(path.c_str(), MFASTFILE_MODE_CREATE);
    std::string expected;
    unsigned int seed = 7;
    for (size_t size : {1, 100, 8000, 8191, 8192, 9000, 20000, 3, 8160, 8161, 0, 5}) {
        std::string chunk;
        for (size_t i = 0; i < size; i++) {
            seed = seed * 1103515245 + 12345;
            chunk += static_cast<char>(seed >> 16);
        }
        ASSERT_EQ(static_cast<int>(size), writer.Write(chunk.data(), static_cast<unsigned int>(size)));
        expected += chunk;
        ASSERT_EQ(1, writer.WriteChar('#'));
        expected += '#';
    }
    EXPECT_EQ(2, writer.WriteCharNL('c'));
    EXPECT_EQ(4, writer.WriteStringNL("s\rs"));
    EXPECT_EQ(6, writer.WriteLineNL("x\r\ny\rz"));
    EXPECT_TRUE(writer.WriteDouble(0.5));
    expected += "c\ns\rs\nx\ny\nz\n";
    double half = 0.5;
    expected.append(reinterpret_cast<const char*>(&half), sizeof half);

    /* a line with an embedded LF is refused whole */
    EXPECT_EQ(-1, writer.WriteLine("ab\ncd"));
    EXPECT_TRUE(trace_has("MFastFileWriter::WriteLine(): EOL detected in string at pos 2"));
    EXPECT_EQ(3, writer.WriteLine("ok"));
    expected += "ok\n";
    EXPECT_TRUE(writer.Flush());
    EXPECT_TRUE(writer.Close());
    EXPECT_EQ(expected, vt::read_file(path));

    ASSERT_TRUE(writer.Open(path.c_str(), MFASTFILE_MODE_APPEND));
    EXPECT_EQ(4, writer.WriteString("more"));
    EXPECT_TRUE(writer.Close());
    EXPECT_EQ(expected + "more", vt::read_file(path));

    EXPECT_FALSE(writer.Open(path.c_str(), MFASTFILE_MODE_CREATE_NEW));
    EXPECT_TRUE(trace_has("MFastFileWriter::Open(mode=MOpen): not yet implemented"));
    EXPECT_FALSE(writer.Open(path.c_str(), 7));
    EXPECT_TRUE(trace_has("MFastFileWriter::Open(): invalid mode 7 for " + path));
    EXPECT_EQ(-1, writer.WriteChar('x'));
    EXPECT_EQ(expected + "more", vt::read_file(path));
}

TEST_F(FastFileTest, WholeFileModes)
{
    struct stat st;
    vt::write_file(path, "old");
    EXPECT_EQ(-1, MFastFile_WriteAtOnce(path.c_str(), "new", 3, MFASTFILE_MODE_CREATE_NEW));
    EXPECT_TRUE(trace_has("MFastFile_WriteAtOnce(): open(\"" + path + "\") failed: File exists"));
    EXPECT_EQ("old", vt::read_file(path));

    std::string fresh = dir.file("fresh");
    EXPECT_EQ(-1, MFastFile_WriteAtOnce(fresh.c_str(), "x", 1, MFASTFILE_MODE_APPEND));
    EXPECT_FALSE(vt::file_exists(fresh));
    EXPECT_EQ(0, MFastFile_WriteAtOnce(fresh.c_str(), "new", 3, MFASTFILE_MODE_CREATE_NEW));
    ASSERT_EQ(0, stat(fresh.c_str(), &st));
    EXPECT_EQ(0644u, st.st_mode & 0777);

    EXPECT_EQ(0, MFastFile_WriteAtOnce(path.c_str(), "+1", 2, MFASTFILE_MODE_APPEND | MFASTFILE_MODE_FSYNC));
    EXPECT_EQ("old+1", vt::read_file(path));
    EXPECT_EQ(0, MFastFile_WriteAtOnce(path.c_str(), "t", 1, 6));
    EXPECT_EQ("t", vt::read_file(path));
    EXPECT_EQ(0, MFastFile_WriteAtOnce(path.c_str(), "", 0, MFASTFILE_MODE_CREATE));
    EXPECT_EQ("", vt::read_file(path));

    /* 10 and 14 replace through a temporary file that does not stay behind */
    for (int mode : {10, 14}) {
        std::string text = "atomic " + std::to_string(mode);
        EXPECT_EQ(0, MFastFile_WriteAtOnce(path.c_str(), text.data(), static_cast<unsigned int>(text.size()), mode));
        EXPECT_EQ(text, vt::read_file(path));
        EXPECT_EQ(2u, entries_of(dir.path()).size());
        ASSERT_EQ(0, stat(path.c_str(), &st));
        EXPECT_EQ(0644u, st.st_mode & 0777);
    }

    for (int mode : {3, 9, 11}) {
        EXPECT_EQ(-1, MFastFile_WriteAtOnce(path.c_str(), "x", 1, mode));
        EXPECT_TRUE(trace_has("MFastFile_WriteAtOnce(): unknown mode " + std::to_string(mode) + " for " + path));
    }
    EXPECT_EQ("atomic 14", vt::read_file(path));
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
    EXPECT_TRUE(trace_has("MFastFile_WriteAtOnce(): open(\"" + path + "/"));
    EXPECT_TRUE(trace_has("\") failed: Not a directory"));

    /* the rename fails when the target is a folder with content */
    std::string target = dir.file("target");
    std::filesystem::create_directory(target);
    vt::write_file(target + "/inside", "i");
    MErrTrace_ClearContext();
    EXPECT_EQ(-1, MFastFile_WriteAtOnce(target.c_str(), "data", 4, MFASTFILE_MODE_ATOMIC));
    EXPECT_TRUE(trace_has("MFastFile_WriteAtOnce(): file_rename(" + dir.path() + "/"));
    std::vector<std::string> names = entries_of(dir.path());
    std::sort(names.begin(), names.end());
    EXPECT_EQ((Lines{"f.txt", "target"}), names);
    EXPECT_EQ("keep", vt::read_file(path));
}

TEST_F(FastFileTest, WholeFileReadsCopiesAndLineEnds)
{
    vt::write_file(path, "a\r\nb\rc\n\r\n");
    char buf[16];
    EXPECT_EQ(9, MFastFile_ReadAtOnce(path.c_str(), buf, sizeof buf));
    EXPECT_EQ(3, MFastFile_ReadAtOnce(path.c_str(), buf, 3));
    EXPECT_EQ(7, MFastFile_ReadLinesAtOnce(path.c_str(), buf, sizeof buf));
    EXPECT_EQ(0, memcmp("a\nb\nc\n\n", buf, 7));
    std::string text;
    EXPECT_EQ(9, MFastFile_ReadAtOnce(path.c_str(), &text));
    EXPECT_EQ("a\r\nb\rc\n\r\n", text);
    EXPECT_EQ(7, MFastFile_ReadLinesAtOnce(path.c_str(), &text));
    EXPECT_EQ("a\nb\nc\n\n", text);

    std::string missing = dir.file("missing");
    EXPECT_EQ(-1, MFastFile_ReadAtOnce(missing.c_str(), &text));
    EXPECT_TRUE(trace_has("MFastFile_ReadAtOnce(): file_size(\"" + missing + "\") returned -1"));
    EXPECT_EQ(-1, MFastFile_ReadAtOnce(missing.c_str(), buf, sizeof buf));
    EXPECT_TRUE(trace_has("MFastFile_ReadAtOnce(): open(\"" + missing + "\") failed"));

    std::string out = dir.file("out");
    EXPECT_EQ(0, MFastFile_WriteLinesAtOnce(out.c_str(), std::string("x\r\ny\rz\r"), MFASTFILE_MODE_CREATE));
    EXPECT_EQ("x\ny\nz\n", vt::read_file(out));
    EXPECT_EQ(-1, MFastFile_WriteLinesAtOnce(out.c_str(), "q", 1, MFASTFILE_MODE_CREATE_NEW));
    EXPECT_TRUE(trace_has("MFastFile_WriteLinesAtOnce(): MFastFile_WriteAtOnce(\"" + out + "\",..,1,0) failed"));

    std::string copy = dir.file("copy");
    EXPECT_TRUE(MFastFile_CopyFile(path.c_str(), copy.c_str(), MFASTFILE_MODE_CREATE_NEW));
    EXPECT_EQ(vt::read_file(path), vt::read_file(copy));
    EXPECT_FALSE(MFastFile_CopyFile(path.c_str(), copy.c_str(), MFASTFILE_MODE_CREATE_NEW));
    EXPECT_TRUE(trace_has("MFastFile_CopyFile(): MFastFile_WriteAtOnce(\"" + copy + "\",..,9,0) failed"));
    vt::write_file(path, "");
    EXPECT_TRUE(MFastFile_CopyFile(path.c_str(), copy.c_str(), MFASTFILE_MODE_ATOMIC));
    EXPECT_EQ("", vt::read_file(copy));
    EXPECT_FALSE(MFastFile_CopyFile(missing.c_str(), copy.c_str(), MFASTFILE_MODE_CREATE));
    EXPECT_TRUE(trace_has("MFastFile_CopyFile(): file_size(\"" + missing + "\") failed"));
}

} // namespace
