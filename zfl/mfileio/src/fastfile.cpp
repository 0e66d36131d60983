#include "fastfile.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <cctype>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fileops.h"
#include "mtrace.h"

namespace {

/* A write that ends the buffer keeps the rest in the emptied buffer only when
 * the old fill plus the new data stay below this (a rest of at most 8160
 * bytes); larger rests go straight to disk instead of being copied twice. */
constexpr size_t kBufferedRestLimit = 16353;

/* Turns CR LF and lone CR into LF; dst may be src (the text only shrinks). */
size_t normalise_line_ends(char* dst, const char* src, size_t size)
{
    size_t out = 0;
    for (size_t i = 0; i < size; i++) {
        char c = src[i];
        if (c == '\r') {
            c = '\n';
            if (i + 1 < size && src[i + 1] == '\n')
                i++;
        }
        dst[out++] = c;
    }
    return out;
}

const char* write_error_text(ssize_t written)
{
    /* a short count from write() sets no errno */
    return written < 0 ? strerror(errno) : "short write";
}

/* Writes all of data with one write(), syncs if asked, closes fd either way. */
bool write_sync_close(int fd, const char* name, const void* data, size_t size, bool sync)
{
    if (size > 0) {
        ssize_t n = write(fd, data, size);
        if (n < 0 || static_cast<size_t>(n) != size) {
            MERRTRACE("MFastFile_WriteAtOnce(): write(..,%zu) failed for \"%s\": %.50s", size, name,
                      write_error_text(n));
            close(fd);
            return false;
        }
    }
    if (sync && fsync(fd) != 0) {
        MERRTRACE("MFastFile_WriteAtOnce(): fsync() failed for \"%s\": %.50s", name, strerror(errno));
        close(fd);
        return false;
    }
    if (close(fd) != 0) {
        MERRTRACE("MFastFile_WriteAtOnce(): close() failed for \"%s\": %s", name, strerror(errno));
        return false;
    }
    return true;
}

/* The temporary file of an atomic save is named after its target, so that
 * the leftover of a save the power cut short is known for what it is. */
const char kTempSuffix[] = ".XXXXXX";

bool is_temporary_of(const char* entry, const std::string& base)
{
    size_t random = sizeof kTempSuffix - 2; /* the X's */
    if (strlen(entry) != base.size() + 1 + random || base.compare(0, base.size(), entry, base.size()) != 0 ||
        entry[base.size()] != '.')
        return false;
    for (const char* p = entry + base.size() + 1; *p != '\0'; p++) {
        if (!isalnum(static_cast<unsigned char>(*p)))
            return false;
    }
    return true;
}

/* Temporary file beside the target, synced, then renamed over the target:
 * readers see the old or the new file, never a part. The temporary file
 * never outlives a failure. */
int write_atomic(const char* name, const void* data, size_t size)
{
    size_t len = strlen(name);
    char* tmpname = static_cast<char*>(malloc(len + sizeof kTempSuffix));
    if (tmpname == nullptr) {
        MERRTRACE("MFastFile_WriteAtOnce(): malloc() failed");
        return -1;
    }
    memcpy(tmpname, name, len);
    memcpy(tmpname + len, kTempSuffix, sizeof kTempSuffix);

    int fd = mkostemp(tmpname, O_CLOEXEC);
    if (fd < 0) {
        MERRTRACE("MFastFile_WriteAtOnce(): open(\"%s\") failed: %s", tmpname, strerror(errno));
        free(tmpname);
        return -1;
    }
    /* mkstemp creates 0600; the replacement gets the permissions the other
     * modes give a new file */
    fchmod(fd, 0644);
    bool ok = write_sync_close(fd, tmpname, data, size, true);
    if (ok && !file_rename(tmpname, name)) {
        MERRTRACE("MFastFile_WriteAtOnce(): file_rename(%s,%s) failed: %s", tmpname, name, strerror(errno));
        ok = false;
    }
    if (!ok)
        file_remove(tmpname);
    free(tmpname);
    return ok ? 0 : -1;
}

} // namespace

MFastFile::MFastFile()
    : m_end(m_buffer), m_position(m_buffer), m_fd(-1), m_bufferStart(m_buffer)
{
}

/* ---- reader ---- */

MFastFileReader::MFastFileReader() = default;

MFastFileReader::MFastFileReader(const char* name)
{
    if (!Open(name)) {
        MERRLOG("MFastFileReader::MFastFileReader(): Open(\"%s\") failed", name != nullptr ? name : "");
        _MErrTrace_DumpContextToMErrLog();
    }
}

MFastFileReader::~MFastFileReader()
{
    if (!Close()) {
        MERRLOG("MFastFileReader::~MFastFileReader(): Close() failed");
        _MErrTrace_DumpContextToMErrLog();
    }
}

bool MFastFileReader::Open(const char* name)
{
    if (!Close()) {
        MERRTRACE("MFastFileReader::Open(): Close() failed");
        return false;
    }
    if (name == nullptr)
        name = "";
    int fd = open(name, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        MERRTRACE("MFastFileReader::Open(): open(\"%s\") failed: %s", name, strerror(errno));
        return false;
    }
    m_fd = fd;
    m_position = m_end = m_bufferStart;
    if (!fill_buffer()) {
        MERRTRACE("MFastFileReader::Open(): fill_buffer() \"%s\" failed", name);
        Close();
        return false;
    }
    m_filename = name;
    return true;
}

bool MFastFileReader::Close()
{
    if (m_fd < 0)
        return true;
    int rc = close(m_fd);
    int err = errno;
    m_fd = -1;
    m_filename.clear();
    m_position = m_end = m_bufferStart;
    if (rc != 0) {
        MERRTRACE("MFastFileReader::Close(): close() failed: %s", strerror(err));
        return false;
    }
    return true;
}

bool MFastFileReader::fill_buffer()
{
    ssize_t n;
    do {
        n = read(m_fd, m_bufferStart, BUFFER_SIZE);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        MERRTRACE("MFastFileReader::fill_buffer(): read() failed: %s", strerror(errno));
        return false;
    }
    if (n > 0) {
        m_position = m_bufferStart;
        m_end = m_bufferStart + n;
    }
    return true;
}

int MFastFileReader::read_char_from_buffer(char* c)
{
    if (m_fd < 0) {
        MERRTRACE("MFastFileReader::read_char_from_buffer(): no open file");
        return -1;
    }
    if (m_position == m_end) {
        if (!fill_buffer()) {
            MERRTRACE("MFastFileReader::read_char_from_buffer(): fill_buffer() failed");
            return -1;
        }
        if (m_position == m_end)
            return 0;
    }
    *c = *m_position++;
    return 1;
}

int MFastFileReader::Read(void* data, unsigned int size)
{
    if (m_fd < 0) {
        MERRTRACE("MFastFileReader::Read(): no open file");
        return -1;
    }
    char* out = static_cast<char*>(data);
    size_t done = 0;
    while (done < size) {
        if (m_position == m_end) {
            if (!fill_buffer()) {
                MERRTRACE("MFastFileReader::Read(): fill_buffer() failed");
                return -1;
            }
            if (m_position == m_end)
                break;
        }
        size_t n = static_cast<size_t>(m_end - m_position);
        if (n > size - done)
            n = size - done;
        memcpy(out + done, m_position, n);
        m_position += n;
        done += n;
    }
    return static_cast<int>(done);
}

int MFastFileReader::ReadChar(char* c)
{
    return read_char_from_buffer(c);
}

/* After a CR: consume the LF of a CR LF pair, push anything else back. */
bool MFastFileReader::skip_lf_after_cr()
{
    char c;
    int r = read_char_from_buffer(&c);
    if (r < 0)
        return false;
    if (r == 1 && c != '\n')
        UnReadChar(); /* just read from the current buffer: cannot fail */
    return true;
}

int MFastFileReader::ReadCharNL(char* c)
{
    int r = read_char_from_buffer(c);
    if (r == 1 && *c == '\r') {
        *c = '\n';
        if (!skip_lf_after_cr())
            return -1;
    }
    return r;
}

bool MFastFileReader::UnReadChar()
{
    if (m_position > m_bufferStart) {
        m_position--;
        return true;
    }
    MERRTRACE("MFastFileReader::UnReadChar(): can't rewind");
    return false;
}

bool MFastFileReader::ReadLine(std::string& line)
{
    line.clear();
    for (;;) {
        if (m_position == m_end) {
            if (!fill_buffer()) {
                MERRTRACE("MFastFileReader::ReadLine(STL): fill_buffer() failed");
                return false;
            }
            if (m_position == m_end)
                return true; /* end of file: what was collected is the line */
        }
        const char* p = m_position;
        while (p < m_end && *p != '\r' && *p != '\n')
            p++;
        line.append(m_position, static_cast<size_t>(p - m_position));
        if (p == m_end) {
            m_position = m_end;
            continue;
        }
        m_position = const_cast<char*>(p) + 1;
        if (*p == '\r' && !skip_lf_after_cr()) {
            MERRTRACE("MFastFileReader::ReadLine(STL):fill_buffer() failed");
            return false;
        }
        return true;
    }
}

int MFastFileReader::read_until(char* buffer, unsigned int size, char delimiter, bool line_ends,
                                const char* who)
{
    if (buffer == nullptr)
        return -1;
    unsigned int n = 0;
    while (n < size) {
        char c;
        int r = read_char_from_buffer(&c);
        if (r == 0)
            break;
        if (r < 0 || (line_ends && c == '\r' && !skip_lf_after_cr())) {
            buffer[n] = '\0';
            MERRTRACE("MFastFileReader::%s(): read_char_from_buffer() failed", who);
            return -1;
        }
        if (line_ends ? (c == '\n' || c == '\r') : c == delimiter)
            break;
        buffer[n++] = c;
    }
    buffer[n] = '\0';
    return static_cast<int>(n);
}

int MFastFileReader::ReadLine(char* buffer, unsigned int size)
{
    return read_until(buffer, size, '\n', true, "ReadLine");
}

int MFastFileReader::ReadString(char* buffer, unsigned int size, char delimiter)
{
    return read_until(buffer, size, delimiter, false, "ReadString");
}

bool MFastFileReader::ReadInt(int* v) { return Read(v, sizeof *v) == sizeof *v; }
bool MFastFileReader::ReadShort(short* v) { return Read(v, sizeof *v) == sizeof *v; }
bool MFastFileReader::ReadLong(long* v) { return Read(v, sizeof *v) == sizeof *v; }
bool MFastFileReader::ReadFloat(float* v) { return Read(v, sizeof *v) == sizeof *v; }
bool MFastFileReader::ReadDouble(double* v) { return Read(v, sizeof *v) == sizeof *v; }

bool MFastFileReader::IsEOF()
{
    if (m_fd < 0) {
        MERRLOG("MFastFileReader::IsEOF(): no open file");
        return true;
    }
    if (m_position < m_end)
        return false;
    if (!fill_buffer()) {
        MERRLOG("MFastFileReader::IsEOF(): fill_buffer() failed");
        MErrTrace_ClearContext();
        return true;
    }
    return m_position == m_end;
}

/* ---- writer ---- */

MFastFileWriter::MFastFileWriter()
{
    m_end = m_bufferStart + BUFFER_SIZE;
}

MFastFileWriter::MFastFileWriter(const char* name, int mode) : MFastFileWriter()
{
    if (!Open(name, mode)) {
        MERRLOG("MFastFileWriter::MFastFileWriter(): Open(\"%s\",%d) failed", name != nullptr ? name : "",
                mode);
        _MErrTrace_DumpContextToMErrLog();
    }
}

MFastFileWriter::~MFastFileWriter()
{
    if (!Close()) {
        MERRLOG("MFastFileWriter::~MFastFileWriter(): Close() failed");
        _MErrTrace_DumpContextToMErrLog();
    }
}

bool MFastFileWriter::Open(const char* name, int mode)
{
    if (!Close()) {
        MERRTRACE("MFastFileWriter::Open(): Close() failed");
        return false;
    }
    if (name == nullptr)
        name = "";
    int flags;
    if (mode == MFASTFILE_MODE_APPEND) {
        flags = O_WRONLY | O_CREAT | O_APPEND;
    } else if (mode == MFASTFILE_MODE_CREATE) {
        flags = O_WRONLY | O_CREAT | O_TRUNC;
    } else if (mode == MFASTFILE_MODE_CREATE_NEW) {
        MERRTRACE("MFastFileWriter::Open(mode=MOpen): not yet implemented");
        return false;
    } else {
        MERRTRACE("MFastFileWriter::Open(): invalid mode %d for %s", mode, name);
        return false;
    }
    int fd = open(name, flags | O_CLOEXEC, 0644);
    if (fd < 0) {
        MERRTRACE("MFastFileWriter::Open(): open(\"%s\") failed: %s", name, strerror(errno));
        return false;
    }
    m_fd = fd;
    m_position = m_bufferStart;
    m_filename = name;
    return true;
}

bool MFastFileWriter::write_to_disk(const void* data, size_t size)
{
    if (size == 0)
        return true;
    ssize_t n = write(m_fd, data, size);
    if (n < 0 || static_cast<size_t>(n) != size) {
        MERRTRACE("MFastFileWriter::write_to_disk(): write(..,%zu) failed: %.50s", size, write_error_text(n));
        return false;
    }
    return true;
}

bool MFastFileWriter::write_to_buffer(const void* data, size_t size)
{
    if (m_fd < 0) {
        MERRTRACE("MFastFileWriter::write_to_buffer(): no open file");
        return false;
    }
    if (size == 0)
        return true;
    const char* src = static_cast<const char*>(data);
    size_t room = static_cast<size_t>(m_end - m_position);
    if (size < room) {
        memcpy(m_position, src, size);
        m_position += size;
        return true;
    }
    size_t fill = static_cast<size_t>(m_position - m_bufferStart);
    memcpy(m_position, src, room);
    bool ok = write_to_disk(m_bufferStart, BUFFER_SIZE);
    m_position = m_bufferStart; /* after a failure the buffered data is dropped, not written twice */
    if (!ok)
        return false;
    src += room;
    size_t rest = size - room;
    if (fill + size < kBufferedRestLimit) {
        memcpy(m_position, src, rest);
        m_position += rest;
        return true;
    }
    return write_to_disk(src, rest);
}

int MFastFileWriter::Write(const void* data, unsigned int size)
{
    return write_to_buffer(data, size) ? static_cast<int>(size) : -1;
}

int MFastFileWriter::WriteChar(char c)
{
    if (m_fd < 0) {
        MERRTRACE("MFastFileWriter::WriteChar(): no open file");
        return -1;
    }
    if (m_position == m_end) {
        bool ok = write_to_disk(m_bufferStart, BUFFER_SIZE);
        m_position = m_bufferStart;
        if (!ok)
            return -1;
    }
    *m_position++ = c;
    return 1;
}

int MFastFileWriter::WriteCharNL(char c)
{
    return WriteChar(c) < 0 || WriteChar('\n') < 0 ? -1 : 2;
}

int MFastFileWriter::WriteString(const char* s)
{
    if (s == nullptr)
        return -1;
    size_t len = strlen(s);
    return write_to_buffer(s, len) ? static_cast<int>(len) : -1;
}

int MFastFileWriter::WriteStringNL(const char* s)
{
    int n = WriteString(s);
    return n < 0 || WriteChar('\n') < 0 ? -1 : n + 1;
}

int MFastFileWriter::WriteLine(const char* s)
{
    if (s == nullptr)
        return -1;
    const char* lf = strchr(s, '\n');
    if (lf != nullptr) {
        MERRTRACE("MFastFileWriter::WriteLine(): EOL detected in string at pos %zu", static_cast<size_t>(lf - s));
        return -1;
    }
    return WriteStringNL(s);
}

int MFastFileWriter::WriteLineNL(const char* s)
{
    if (s == nullptr)
        return -1;
    int total = 0;
    while (*s != '\0') {
        size_t n = strcspn(s, "\r");
        if (!write_to_buffer(s, n))
            return -1;
        total += static_cast<int>(n);
        s += n;
        if (*s == '\r') {
            if (WriteChar('\n') < 0)
                return -1;
            total++;
            s += s[1] == '\n' ? 2 : 1;
        }
    }
    return WriteChar('\n') < 0 ? -1 : total + 1;
}

bool MFastFileWriter::WriteInt(int v) { return write_to_buffer(&v, sizeof v); }
bool MFastFileWriter::WriteShort(short v) { return write_to_buffer(&v, sizeof v); }
bool MFastFileWriter::WriteLong(long v) { return write_to_buffer(&v, sizeof v); }
bool MFastFileWriter::WriteFloat(float v) { return write_to_buffer(&v, sizeof v); }
bool MFastFileWriter::WriteDouble(double v) { return write_to_buffer(&v, sizeof v); }

bool MFastFileWriter::Flush()
{
    if (m_fd < 0) {
        MERRTRACE("MFastFileWriter::Flush(): no open file");
        return false;
    }
    bool ok = write_to_disk(m_bufferStart, static_cast<size_t>(m_position - m_bufferStart));
    m_position = m_bufferStart;
    if (!ok)
        return false;
    if (fsync(m_fd) != 0) {
        MERRTRACE("MFastFileWriter::Flush(): fsync() failed: %s", strerror(errno));
        return false;
    }
    return true;
}

bool MFastFileWriter::Close()
{
    if (m_fd < 0)
        return true;
    bool ok = write_to_disk(m_bufferStart, static_cast<size_t>(m_position - m_bufferStart));
    m_position = m_bufferStart;
    if (close(m_fd) != 0) {
        MERRTRACE("MFastFileWriter::Close(): close() failed: %s", strerror(errno));
        ok = false;
    }
    m_fd = -1;
    m_filename.clear();
    return ok;
}

/* ---- whole files ---- */

int MFastFile_ReadAtOnce(const char* name, void* buffer, unsigned int size)
{
    if (name == nullptr)
        name = "";
    int fd = open(name, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        MERRTRACE("MFastFile_ReadAtOnce(): open(\"%s\") failed: %s", name, strerror(errno));
        return -1;
    }
    ssize_t n = read(fd, buffer, size);
    if (n < 0) {
        MERRTRACE("MFastFile_ReadAtOnce(): read(..,%zu) failed for \"%s\": %s", static_cast<size_t>(size), name,
                  strerror(errno));
        close(fd);
        return -1;
    }
    if (close(fd) != 0) {
        MERRTRACE("MFastFile_ReadAtOnce(): close() failed for \"%s\": %s", name, strerror(errno));
        return -1;
    }
    return static_cast<int>(n);
}

int MFastFile_ReadLinesAtOnce(const char* name, void* buffer, unsigned int size)
{
    int n = MFastFile_ReadAtOnce(name, buffer, size);
    if (n <= 0)
        return n;
    char* text = static_cast<char*>(buffer);
    return static_cast<int>(normalise_line_ends(text, text, static_cast<size_t>(n)));
}

int MFastFile_ReadAtOnce(const char* name, std::string* text)
{
    long size = file_size(name);
    if (size < 0 || size > INT_MAX) {
        MERRTRACE("MFastFile_ReadAtOnce(): file_size(\"%s\") returned %d", name != nullptr ? name : "",
                  static_cast<int>(size));
        return -1;
    }
    try {
        text->resize(static_cast<size_t>(size));
    } catch (const std::bad_alloc&) {
        MERRTRACE("MFastFile_ReadAtOnce(): out of memory for %ld bytes", size);
        return -1;
    }
    int n = MFastFile_ReadAtOnce(name, text->data(), static_cast<unsigned int>(size));
    text->resize(n < 0 ? 0 : static_cast<size_t>(n));
    return n;
}

int MFastFile_ReadLinesAtOnce(const char* name, std::string* text)
{
    int n = MFastFile_ReadAtOnce(name, text);
    if (n <= 0)
        return n;
    text->resize(normalise_line_ends(text->data(), text->data(), text->size()));
    return static_cast<int>(text->size());
}

int MFastFile_WriteAtOnce(const char* name, const void* data, unsigned int size, int mode)
{
    if (name == nullptr)
        name = "";
    bool sync = (mode & MFASTFILE_MODE_FSYNC) != 0;
    int flags;
    switch (mode & ~MFASTFILE_MODE_FSYNC) {
    case MFASTFILE_MODE_CREATE_NEW:
        flags = O_WRONLY | O_CREAT | O_EXCL;
        break;
    case MFASTFILE_MODE_APPEND:
        flags = O_WRONLY | O_APPEND;
        break;
    case MFASTFILE_MODE_CREATE:
        flags = O_WRONLY | O_CREAT | O_TRUNC;
        break;
    case MFASTFILE_MODE_ATOMIC:
        return write_atomic(name, data, size);
    default:
        MERRTRACE("MFastFile_WriteAtOnce(): unknown mode %d for %s", mode, name);
        return -1;
    }
    int fd = open(name, flags | O_CLOEXEC, 0644);
    if (fd < 0) {
        MERRTRACE("MFastFile_WriteAtOnce(): open(\"%s\") failed: %s", name, strerror(errno));
        return -1;
    }
    return write_sync_close(fd, name, data, size, sync) ? 0 : -1;
}

int MFastFile_WriteLinesAtOnce(const char* name, const void* data, unsigned int size, int mode)
{
    /* malloc(0) may answer null; one spare byte keeps that from looking like a failure */
    char* copy = static_cast<char*>(malloc(static_cast<size_t>(size) + 1));
    if (copy == nullptr) {
        MERRTRACE("MFastFile_WriteLinesAtOnce(): malloc(%zu) failed: %.50s", static_cast<size_t>(size),
                  strerror(errno));
        return -1;
    }
    size_t len = size > 0 ? normalise_line_ends(copy, static_cast<const char*>(data), size) : 0;
    int rc = MFastFile_WriteAtOnce(name, copy, static_cast<unsigned int>(len), mode);
    if (rc < 0)
        MERRTRACE("MFastFile_WriteLinesAtOnce(): MFastFile_WriteAtOnce(\"%s\",..,%zu,%d) failed",
                  name != nullptr ? name : "", len, mode);
    free(copy);
    return rc;
}

int MFastFile_WriteLinesAtOnce(const char* name, const std::string& text, int mode)
{
    return MFastFile_WriteLinesAtOnce(name, text.data(), static_cast<unsigned int>(text.size()), mode);
}

bool MFastFile_CopyFile(const char* source, const char* target, int mode)
{
    long size = file_size(source);
    if (size < 0 || size > INT_MAX) {
        MERRTRACE("MFastFile_CopyFile(): file_size(\"%s\") failed", source != nullptr ? source : "");
        return false;
    }
    void* data = malloc(static_cast<size_t>(size) + 1);
    if (data == nullptr) {
        MERRTRACE("MFastFile_CopyFile(): malloc(%ld) failed", size);
        return false;
    }
    bool ok = true;
    if (size > 0) {
        int n = MFastFile_ReadAtOnce(source, data, static_cast<unsigned int>(size));
        if (n < 0) {
            MERRTRACE("MFastFile_CopyFile(): MFastFile_ReadAtOnce(\"%s\",..,%ld) failed", source, size);
            ok = false;
        }
        size = n; /* the source may have shrunk meanwhile */
    }
    if (ok && MFastFile_WriteAtOnce(target, data, static_cast<unsigned int>(size), mode) < 0) {
        MERRTRACE("MFastFile_CopyFile(): MFastFile_WriteAtOnce(\"%s\",..,%ld,%d) failed",
                  target != nullptr ? target : "", size, mode);
        ok = false;
    }
    free(data);
    return ok;
}

int MFastFile_RemoveTemporaryFiles(const char* name)
{
    std::string folder;
    file_path(name, &folder);
    std::string base = name != nullptr ? name + folder.size() : "";
    if (base.empty()) {
        MERRTRACE("MFastFile_RemoveTemporaryFiles(): no file name");
        return -1;
    }
    DIR* dir = opendir(folder.empty() ? "." : folder.c_str());
    if (dir == nullptr) {
        MERRTRACE("MFastFile_RemoveTemporaryFiles(): opendir(\"%s\") failed: %s", folder.c_str(), strerror(errno));
        return -1;
    }
    int removed = 0;
    while (const struct dirent* e = readdir(dir)) {
        if (is_temporary_of(e->d_name, base) && file_remove((folder + e->d_name).c_str()))
            removed++;
    }
    closedir(dir);
    return removed;
}
