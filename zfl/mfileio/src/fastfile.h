/*
 * Buffered file reading and writing, and whole-file helpers.
 *
 * MFastFileReader reads text line by line and accepts CR, LF and CR LF as line
 * ends (files come from instruments, PCs and editors alike). MFastFileWriter
 * buffers small writes. The MFastFile_* functions read or write a whole file
 * in one call; mode 10 replaces a file atomically through a temporary file in
 * the same folder (<name>.XXXXXX), so that a reader never sees half a file.
 *
 * Nothing throws: failures return false or -1 and leave a line in the error
 * trace; constructors and destructors dump the trace to the error log.
 */
#ifndef ZFL_FASTFILE_H
#define ZFL_FASTFILE_H

#include <string>

/* Modes of MFastFileWriter::Open and of MFastFile_WriteAtOnce. */
enum {
    MFASTFILE_MODE_CREATE_NEW = 0, /* whole file: fails if the file exists; writer: reserved */
    MFASTFILE_MODE_APPEND = 1,     /* whole file: the file must exist; writer: created if missing */
    MFASTFILE_MODE_CREATE = 2,     /* create or truncate */
    MFASTFILE_MODE_FSYNC = 4,      /* whole file: bit added to 0, 1 or 2: fsync before closing */
    MFASTFILE_MODE_ATOMIC = 10     /* whole file: temporary file, fsync, rename over the target */
};

/* The buffer and bookkeeping shared by reader and writer. */
class MFastFile {
public:
    enum { BUFFER_SIZE = 8192 };

    MFastFile(const MFastFile&) = delete;
    MFastFile& operator=(const MFastFile&) = delete;

protected:
    MFastFile();
    ~MFastFile() = default;

    char m_buffer[BUFFER_SIZE];
    char* m_end;      /* reader: one past the valid data; writer: one past the buffer */
    char* m_position; /* next byte to read or write */
    int m_fd;         /* -1 when no file is open */
    std::string m_filename;
    char* m_bufferStart;
};

class MFastFileReader : public MFastFile {
protected:
    /* One read() into the buffer; at end of file the pointers stay as they are. */
    virtual bool fill_buffer();

public:
    MFastFileReader();
    explicit MFastFileReader(const char* name);
    virtual ~MFastFileReader();

    bool Open(const char* name);
    bool Close();

    /* Bytes read (fewer at end of file), -1 on error. */
    int Read(void* data, unsigned int size);
    /* 1 = a character, 0 = end of file, -1 = error. */
    int ReadChar(char* c);
    /* As ReadChar, but CR and CR LF come back as one LF. */
    int ReadCharNL(char* c);
    /* Pushes back one character of the current buffer. */
    bool UnReadChar();
    /* One line without its terminator into buffer, which needs size + 1 bytes;
     * a longer line is returned in pieces of size characters. Characters
     * stored, -1 on error. */
    int ReadLine(char* buffer, unsigned int size);
    bool ReadLine(std::string& line);
    /* Like ReadLine(char*, ...) but up to the delimiter (consumed, not stored). */
    int ReadString(char* buffer, unsigned int size, char delimiter);
    /* Raw bytes of the type; false unless all of them were read. */
    bool ReadInt(int* v);
    bool ReadShort(short* v);
    bool ReadLong(long* v);
    bool ReadFloat(float* v);
    bool ReadDouble(double* v);
    bool IsEOF();

protected:
    int read_char_from_buffer(char* c);

private:
    bool skip_lf_after_cr();
    int read_until(char* buffer, unsigned int size, char delimiter, bool line_ends, const char* who);
};

class MFastFileWriter : public MFastFile {
public:
    MFastFileWriter();
    MFastFileWriter(const char* name, int mode);
    virtual ~MFastFileWriter();

    /* mode MFASTFILE_MODE_APPEND or MFASTFILE_MODE_CREATE, permissions 0644. */
    bool Open(const char* name, int mode);
    /* Flush writes and syncs to disk; Close writes without syncing. */
    bool Flush();
    bool Close();

    /* The Write* calls return the bytes taken, -1 on error. */
    int Write(const void* data, unsigned int size);
    int WriteChar(char c);
    int WriteCharNL(char c);              /* c and a LF */
    int WriteString(const char* s);
    int WriteStringNL(const char* s);     /* s and a LF, s unchecked */
    int WriteLine(const char* s);         /* s (refused if it holds a LF) and a LF */
    int WriteLineNL(const char* s);       /* s with CR LF and CR turned into LF, then a LF */
    bool WriteInt(int v);
    bool WriteShort(short v);
    bool WriteLong(long v);
    bool WriteFloat(float v);
    bool WriteDouble(double v);

protected:
    bool write_to_buffer(const void* data, size_t size);
    bool write_to_disk(const void* data, size_t size);
};

/* Whole-file functions: bytes read or 0 after a write, -1 on failure. The
 * Lines forms turn CR LF and lone CR into LF. */
int MFastFile_ReadAtOnce(const char* name, void* buffer, unsigned int size);
int MFastFile_ReadLinesAtOnce(const char* name, void* buffer, unsigned int size);
int MFastFile_ReadAtOnce(const char* name, std::string* text);
int MFastFile_ReadLinesAtOnce(const char* name, std::string* text);
int MFastFile_WriteAtOnce(const char* name, const void* data, unsigned int size, int mode);
int MFastFile_WriteLinesAtOnce(const char* name, const void* data, unsigned int size, int mode);
int MFastFile_WriteLinesAtOnce(const char* name, const std::string& text, int mode);
bool MFastFile_CopyFile(const char* source, const char* target, int mode);
/* Removes what atomic saves of name left behind when they were cut short
 * (its temporary files beside it); the number removed, -1 when the folder
 * cannot be read. */
int MFastFile_RemoveTemporaryFiles(const char* name);

#endif
