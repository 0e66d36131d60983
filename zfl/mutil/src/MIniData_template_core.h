/*
 * In-memory model of an INI file that keeps every line.
 *
 * A document is an ordered set of sections, each an ordered set of entries,
 * but it also keeps each line exactly as read (comments, blank-looking lines,
 * the spacing of "name = value"), so that a file that is read, changed in a few
 * values and saved keeps its layout. Lines are owned by the document: header
 * lines (before the first section) by the document itself, all others by
 * their section, whose line vector starts with the section object (the header
 * line). Lookups go through ordered maps, so loading and saving stay
 * proportional to the file size (times a logarithm).
 *
 * Nothing throws: failures return false, record a last-error text (parser,
 * out of memory) and leave a line in the error trace.
 */
#ifndef ZFL_MINIDATA_TEMPLATE_CORE_H
#define ZFL_MINIDATA_TEMPLATE_CORE_H

/* Document flags (bits); plain C so that the handle interface shares them. */
enum {
    MINIDATA_FLAG_RELAXED_SYNTAX = 1,    /* entry lines may lack '=' or a name: kept as plain lines */
    MINIDATA_FLAG_REPLACE_SECTIONS = 2,  /* relaxed as 1, and a repeated section replaces the earlier one */
    MINIDATA_FLAG_NO_OPEN = 4,           /* the file-name constructor only remembers the name */
    MINIDATA_FLAG_FSYNC = 8,             /* Save syncs the file to disk */
    MINIDATA_FLAG_ATOMIC_SAVE = 16,      /* Save writes a temporary file and renames it (always synced) */
    MINIDATA_FLAG_REPLACE_ENTRIES = 32   /* a repeated entry name replaces the earlier entry */
};

#ifdef __cplusplus

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <ostream>
#include <string>
#include <vector>

#include "MUnicode.h"
#include "fastfile.h"
#include "fileops.h"
#include "mtrace.h"

namespace minidata_detail {

inline bool is_comment_start(char c)
{
    return c == ';' || c == '#' || c == '*' || c == '/';
}

inline std::string strip_trailing_blanks(const std::string& s)
{
    size_t last = s.find_last_not_of(" \t");
    return last == std::string::npos ? std::string() : s.substr(0, last + 1);
}

/* The entry name of a line whose '=' stands at eq, first = first non-blank. */
inline std::string entry_name(const std::string& line, size_t first, size_t eq)
{
    return strip_trailing_blanks(line.substr(first, eq - first));
}

/* A reader that remembers a failed read, also the one that IsEOF() takes
 * for the end of the file: a document must never be taken as whole when
 * the medium failed under it. */
class CheckedReader : public MFastFileReader {
public:
    bool Failed() const { return m_failed; }

protected:
    bool fill_buffer() override
    {
        if (MFastFileReader::fill_buffer())
            return true;
        m_failed = true;
        return false;
    }

private:
    bool m_failed = false;
};

} // namespace minidata_detail

/* One line of the file, without its line end. */
class MIniDataLine {
public:
    MIniDataLine() = default;
    explicit MIniDataLine(const std::string& text) : m_line(text) {}
    virtual ~MIniDataLine() = default;
    MIniDataLine(const MIniDataLine&) = delete;
    MIniDataLine& operator=(const MIniDataLine&) = delete;

    std::string* GetLinePtr() { return &m_line; }
    const std::string* GetLinePtr() const { return &m_line; }

protected:
    std::string m_line;
};

/* An entry line: the value runs from one past the first '=' to the end of the
 * line, untrimmed, so a trailing comment belongs to it. */
class MIniDataEntry : public MIniDataLine {
public:
    MIniDataEntry(const std::string& line, unsigned int valueOffset)
        : MIniDataLine(line), m_valueOffset(valueOffset)
    {
    }

    unsigned int GetValueOffset() const { return m_valueOffset; }
    const char* GetValuePtr() const { return m_line.c_str() + m_valueOffset; }
    std::string GetValue() const { return m_line.substr(m_valueOffset); }
    /* Keeps "name = " as it stood, blanks after '=' included, and replaces
     * the rest (a trailing comment too). May throw std::bad_alloc. */
    void SetValue(const std::string& value)
    {
        size_t start = m_line.find_first_not_of(" \t", m_valueOffset);
        m_line.replace(start == std::string::npos ? m_line.size() : start, std::string::npos, value);
    }

private:
    unsigned int m_valueOffset;
};

/* Names are case-sensitive and ordered byte by byte. */
struct MIniDataCaseSensitiveCompare {
    bool operator()(const std::string& a, const std::string& b) const { return a < b; }
};

template <class Compare>
class MIniDataSectionT : public MIniDataLine {
public:
    typedef std::map<std::string, MIniDataEntry*, Compare> EntryMap;
    typedef std::vector<MIniDataLine*> LineVec;

    /* The section is the first line of its own line vector (its header).
     * The constructors may throw std::bad_alloc; the document catches it. */
    MIniDataSectionT() { start_line_vec(); }
    explicit MIniDataSectionT(const std::string& header) : MIniDataLine(header) { start_line_vec(); }
    virtual ~MIniDataSectionT()
    {
        for (MIniDataLine* line : m_lineVec) {
            if (line != this)
                delete line;
        }
    }

    const EntryMap& GetEntryMap() const { return m_entryMap; }
    const LineVec& GetLineVec() const { return m_lineVec; }

    MIniDataEntry* GetEntryPtr(const std::string& name) const
    {
        typename EntryMap::const_iterator it = m_entryMap.find(name);
        return it == m_entryMap.end() ? nullptr : it->second;
    }

    /* Takes ownership of line, also when it fails. */
    bool AppendLine(MIniDataLine* line)
    {
        std::unique_ptr<MIniDataLine> owner(line);
        try {
            m_lineVec.push_back(line);
        } catch (const std::bad_alloc&) {
            return false;
        }
        owner.release();
        return true;
    }

    /* Adds an entry made from a whole line; the name must be new. May throw
     * std::bad_alloc, leaving the section as it was. */
    void add_entry_line(const std::string& name, const std::string& line, size_t valueOffset)
    {
        /* room first, so that nothing fails after the map insert */
        if (m_lineVec.size() == m_lineVec.capacity())
            m_lineVec.reserve(2 * m_lineVec.capacity() + 10);
        std::unique_ptr<MIniDataEntry> entry(new MIniDataEntry(line, static_cast<unsigned int>(valueOffset)));
        m_entryMap.emplace(name, entry.get());
        m_lineVec.push_back(entry.release());
    }

    bool SetDoubleEntry(const std::string& name, double value)
    {
        char text[32];
        snprintf(text, sizeof text, "%.17g", value);
        return set_entry(name, text, "SetDoubleEntry");
    }

    bool SetLongEntry(const std::string& name, long value)
    {
        char text[24];
        snprintf(text, sizeof text, "%ld", value);
        return set_entry(name, text, "SetLongEntry");
    }

    bool SetStringEntry(const std::string& name, const std::string& value)
    {
        return set_entry(name, value.c_str(), "SetStringEntry");
    }

    /* name is compared exactly, not trimmed. */
    bool DeleteEntry(const std::string& name)
    {
        typename EntryMap::iterator it = m_entryMap.find(name);
        if (it == m_entryMap.end()) {
            MERRTRACE("MIniDataSectionT::DeleteEntry(): entry \"%.40s\" not found in entry_map", name.c_str());
            return false;
        }
        for (size_t i = 1; i < m_lineVec.size(); i++) {
            /* only entries can be the one; blank, comment and lines that the
             * relaxed flags kept verbatim are passed over */
            MIniDataEntry* entry = dynamic_cast<MIniDataEntry*>(m_lineVec[i]);
            if (entry == nullptr)
                continue;
            /* the text may have been edited through GetLinePtr(): check it */
            const std::string& text = *entry->GetLinePtr();
            size_t first = text.find_first_not_of(" \t");
            if (first == std::string::npos || minidata_detail::is_comment_start(text[first]))
                continue;
            size_t eq = text.find('=');
            if (eq == std::string::npos) {
                MERRTRACE("MIniDataSectionT::DeleteEntry(): no '=' found in \"%.50s\"", text.c_str());
                return false;
            }
            if (eq <= first) {
                MERRTRACE("MIniDataSectionT::DeleteEntry(): no entry name in \"%.50s\"", text.c_str());
                return false;
            }
            if (entry == it->second && same_name(minidata_detail::entry_name(text, first, eq), name)) {
                m_lineVec.erase(m_lineVec.begin() + static_cast<std::ptrdiff_t>(i));
                m_entryMap.erase(it);
                delete entry;
                return true;
            }
        }
        MERRTRACE("MIniDataSectionT::DeleteEntry(): entry \"%.40s\" not found in line_vec", name.c_str());
        return false;
    }

private:
    void start_line_vec()
    {
        m_lineVec.reserve(10);
        m_lineVec.push_back(this);
    }

    static bool same_name(const std::string& a, const std::string& b)
    {
        Compare less;
        return !less(a, b) && !less(b, a);
    }

    bool add_new_entry(const std::string& name, const char* value)
    {
        try {
            add_entry_line(name, name + "=" + value, name.size() + 1);
        } catch (const std::bad_alloc&) {
            MERRTRACE("MIniDataSectionT::add_new_entry(): new MIniDataEntry() failed: %.50s", strerror(ENOMEM));
            return false;
        }
        return true;
    }

    bool set_entry(const std::string& rawName, const char* value, const char* setter)
    {
        std::string name;
        try {
            name = minidata_detail::strip_trailing_blanks(rawName);
            MIniDataEntry* entry = GetEntryPtr(name);
            if (entry != nullptr) {
                entry->SetValue(value);
                return true;
            }
        } catch (const std::bad_alloc&) {
            MERRTRACE("MIniDataSectionT::%s(): out of memory", setter);
            return false;
        }
        if (!add_new_entry(name, value)) {
            MERRTRACE("MIniDataSectionT::%s(): add_new_entry() failed", setter);
            return false;
        }
        return true;
    }

    EntryMap m_entryMap;
    LineVec m_lineVec;
};

template <class Compare>
class MIniDataT {
public:
    typedef MIniDataSectionT<Compare> Section;
    typedef std::map<std::string, Section*, Compare> SectionMap;

    explicit MIniDataT(int flags) : m_flags(flags) {}

    MIniDataT(const char* filename, int flags) : m_flags(flags)
    {
        if (m_flags & MINIDATA_FLAG_NO_OPEN) {
            m_filename = filename != nullptr ? filename : "";
        } else if (!Open(filename)) {
            MERRLOG("MIniData::MIniData(): Open(\"%.60s\") failed", filename != nullptr ? filename : "");
            _MErrTrace_DumpContextToMErrLog();
        }
    }

    MIniDataT(const MIniDataT& other) { copy_from(other); }

    MIniDataT& operator=(const MIniDataT& other)
    {
        if (this != &other)
            copy_from(other);
        return *this;
    }

    virtual ~MIniDataT()
    {
        if (!Close()) {
            MERRLOG("MIniData::~MIniData(): Close() failed");
            _MErrTrace_DumpContextToMErrLog();
        }
    }

    bool operator==(const MIniDataT& other) const
    {
        std::string a, b;
        return GetContentString(&a) && other.GetContentString(&b) && a == b;
    }
    bool operator!=(const MIniDataT& other) const { return !(*this == other); }

    /* An absent file gives an open, empty document without a file behind it. */
    bool Open(const char* filename_arg)
    {
        /* a copy: the argument may be our own file name, which Close clears */
        const std::string name = filename_arg != nullptr ? filename_arg : "";
        const char* filename = name.c_str();
        if (!Close()) {
            MERRTRACE("MIniData::Open(): Close() failed");
            return false;
        }
        m_readFailed = false;
        if (!file_exists(filename)) {
            m_hasNoFile = true;
            m_isSaved = false;
            return set_open(filename);
        }
        m_hasNoFile = false;
        minidata_detail::CheckedReader reader;
        if (!reader.Open(filename)) {
            m_readFailed = true;
            MERRTRACE("MIniData::Open(): MFastFileReader::Open() failed");
            return false;
        }
        m_currentSection = nullptr;
        std::string line;
        bool first = true;
        while (!reader.IsEOF()) {
            if (!reader.ReadLine(line)) {
                m_readFailed = true;
                drop_all();
                MERRTRACE("MIniData::Open(): MFastFileReader::ReadLine() failed");
                return false;
            }
            if (first) {
                first = false;
                MUnicode_BomType bom = MUnicode_GetBomType(line.data(), line.size());
                if (bom == MUNICODE_BOM_TYPE_UTF8) {
                    line.erase(0, MUnicode_GetBomLength(bom));
                } else if (bom != MUNICODE_BOM_TYPE_NONE) {
                    set_last_error("UTF16/32 Unicode format not supported.");
                    MERRTRACE("MIniData::Open(\"%.80s\"): UTF16/32 Unicode format not supported", filename);
                    return false;
                }
            }
            /* empty lines are not kept; lines of blanks are */
            if (line.empty())
                continue;
            if (!parse_line(line)) {
                MERRTRACE("MIniData::Open(): parse_line(%.60s) failed", line.c_str());
                return false;
            }
        }
        if (reader.Failed()) {
            m_readFailed = true;
            drop_all(); /* maybe a part: not to be taken for the file */
            MERRTRACE("MIniData::Open(\"%.80s\"): read error", filename);
            return false;
        }
        m_isSaved = true;
        return set_open(filename);
    }

    bool Close()
    {
        drop_all();
        if (m_isOpen) {
            m_filename.clear();
            m_isOpen = false;
        }
        return true;
    }

    bool Reload()
    {
        if (!m_isOpen) {
            MERRTRACE("MIniData::Reload(): not open");
            return false;
        }
        return Open(m_filename.c_str());
    }

    bool Save()
    {
        std::string content;
        if (!GetContentString(&content)) {
            MERRTRACE("MIniData::Save(): GetContentString() failed");
            return false;
        }
        int mode = MFASTFILE_MODE_CREATE;
        if (m_flags & MINIDATA_FLAG_ATOMIC_SAVE)
            mode = MFASTFILE_MODE_ATOMIC;
        else if (m_flags & MINIDATA_FLAG_FSYNC)
            mode |= MFASTFILE_MODE_FSYNC;
        if (MFastFile_WriteLinesAtOnce(m_filename.c_str(), content, mode) < 0) {
            MERRTRACE("MIniData::Save(): MFastFile_WriteLinesAtOnce(\"%.40s\") failed", m_filename.c_str());
            return false;
        }
        m_hasNoFile = false;
        m_isSaved = true;
        return true;
    }

    bool IsOpen() const { return m_isOpen; }
    bool HasNoFile() const { return m_hasNoFile; }
    /* The last Open found the file but could not read it (the medium, not
     * the content): the document has nothing of it. */
    bool ReadFailed() const { return m_readFailed; }
    bool IsSaved() const { return m_isSaved; }
    const std::string& GetFilename() const { return m_filename; }

    /* Replaces the content; unlike Open, empty lines are kept. The open state
     * and the file name stay as they are. */
    bool SetContentString(const std::string& text)
    {
        drop_all();
        m_isSaved = false;
        std::vector<std::string> lines;
        if (!chop_string_into_lines(text, &lines)) {
            MERRTRACE("MIniData::SetContentString(): out of memory");
            return false;
        }
        for (const std::string& line : lines) {
            if (!parse_line(line)) {
                MERRTRACE("MIniData::SetContentString(): parse_line() failed");
                return false;
            }
        }
        return true;
    }

    /* Header lines, then the sections in name order, every line ended by LF. */
    bool GetContentString(std::string* text) const
    {
        text->clear();
        size_t total = 0;
        for_each_line([&total](const std::string& line) { total += line.size() + 1; });
        try {
            text->reserve(total);
        } catch (const std::bad_alloc&) {
            MERRTRACE("MIniData::GetContentString(): out of memory (%zu bytes)", total);
            return false;
        }
        for_each_line([text](const std::string& line) {
            text->append(line);
            text->push_back('\n');
        });
        return true;
    }

    int GetNumSections() const { return static_cast<int>(m_sectionMap.size()); }
    bool DoesSectionExist(const std::string& section) const { return GetSectionPtr(section) != nullptr; }

    std::vector<std::string> GetSectionNames() const
    {
        std::vector<std::string> names;
        GetSectionNames(&names);
        return names;
    }

    void GetSectionNames(std::vector<std::string>* names) const
    {
        names->clear();
        for (const auto& kv : m_sectionMap)
            names->push_back(kv.first);
    }

    Section* GetSectionPtr(const std::string& section) const
    {
        typename SectionMap::const_iterator it = m_sectionMap.find(section);
        return it == m_sectionMap.end() ? nullptr : it->second;
    }

    int GetNumEntries(const std::string& section) const
    {
        const Section* s = GetSectionPtr(section);
        return s == nullptr ? 0 : static_cast<int>(s->GetEntryMap().size());
    }

    bool DoesEntryExist(const std::string& section, const std::string& entry) const
    {
        return find_entry(section, entry) != nullptr;
    }

    std::vector<std::string> GetEntryNames(const std::string& section) const
    {
        std::vector<std::string> names;
        GetEntryNames(&names, section);
        return names;
    }

    void GetEntryNames(std::vector<std::string>* names, const std::string& section) const
    {
        names->clear();
        const Section* s = GetSectionPtr(section);
        if (s == nullptr)
            return;
        for (const auto& kv : s->GetEntryMap())
            names->push_back(kv.first);
    }

    bool GetStringEntry(const std::string& section, const std::string& entry, std::string* value) const
    {
        const MIniDataEntry* e = find_entry(section, entry);
        if (e == nullptr)
            return false;
        try {
            *value = e->GetValue();
        } catch (const std::bad_alloc&) {
            MERRTRACE("MIniData::GetStringEntry(): out of memory");
            return false;
        }
        return true;
    }

    bool GetLongEntry(const std::string& section, const std::string& entry, long* value) const
    {
        return get_number(section, entry, value, [](const char* s, char** end) { return strtol(s, end, 10); });
    }

    bool GetDoubleEntry(const std::string& section, const std::string& entry, double* value) const
    {
        return get_number(section, entry, value, strtod);
    }

    bool SetDoubleEntry(const std::string& section, const std::string& entry, double value)
    {
        Section* s = find_or_add_section(section, "SetDoubleEntry");
        return s != nullptr && changed(s->SetDoubleEntry(entry, value));
    }

    bool SetLongEntry(const std::string& section, const std::string& entry, long value)
    {
        Section* s = find_or_add_section(section, "SetLongEntry");
        return s != nullptr && changed(s->SetLongEntry(entry, value));
    }

    bool SetStringEntry(const std::string& section, const std::string& entry, const std::string& value)
    {
        Section* s = find_or_add_section(section, "SetStringEntry");
        return s != nullptr && changed(s->SetStringEntry(entry, value));
    }

    bool AddSection(const std::string& section)
    {
        if (DoesSectionExist(section))
            return true;
        return find_or_add_section(section, "AddSection") != nullptr && changed(true);
    }

    bool DeleteSection(const std::string& section)
    {
        typename SectionMap::iterator it = m_sectionMap.find(section);
        if (it == m_sectionMap.end()) {
            MERRTRACE("MIniData::DeleteSection(): section \"%.40s\" not found", section.c_str());
            return false;
        }
        if (it->second == m_currentSection)
            m_currentSection = nullptr;
        delete it->second;
        m_sectionMap.erase(it);
        return changed(true);
    }

    bool DeleteEntry(const std::string& section, const std::string& entry)
    {
        Section* s = GetSectionPtr(section);
        if (s == nullptr) {
            MERRTRACE("MIniData::DeleteEntry(): section \"%.40s\" not found", section.c_str());
            return false;
        }
        if (!s->DeleteEntry(entry)) {
            MERRTRACE("MIniData::DeleteEntry(): MIniDataSectionT::DeleteEntry() failed (\"%.30s\",\"%.30s\")",
                      section.c_str(), entry.c_str());
            return false;
        }
        return changed(true);
    }

    /* Replaces the whole flag word, not only the syntax bits. */
    void SetSyntaxErrorFlag(int v) { m_flags = v; }

    const std::string& GetLastErrorString() const { return m_lastError; }

protected:
    bool parse_line(const std::string& line)
    {
        bool ok;
        try {
            ok = parse_line_into_model(line);
        } catch (const std::bad_alloc&) {
            set_last_error("out of memory (%s)", strerror(ENOMEM));
            ok = false;
        }
        if (!ok)
            MERRTRACE("MIniData::parse_line(): %.70s", m_lastError.c_str());
        return ok;
    }

    /* Lines end at CR, LF or CR LF; the text ends at its first NUL. */
    static bool chop_string_into_lines(const std::string& text, std::vector<std::string>* lines)
    {
        const char* p = text.c_str();
        size_t size = strlen(p);
        try {
            size_t start = 0;
            for (size_t i = 0; i < size; i++) {
                if (p[i] != '\r' && p[i] != '\n')
                    continue;
                lines->emplace_back(p + start, i - start);
                if (p[i] == '\r' && i + 1 < size && p[i + 1] == '\n')
                    i++;
                start = i + 1;
            }
            if (start < size)
                lines->emplace_back(p + start, size - start);
        } catch (const std::bad_alloc&) {
            return false;
        }
        return true;
    }

private:
    void copy_from(const MIniDataT& other)
    {
        drop_all();
        m_filename = other.m_filename;
        m_flags = other.m_flags;
        m_lastError = other.m_lastError;
        std::string content;
        if (!other.GetContentString(&content) || !SetContentString(content)) {
            MERRLOG("MIniData::operator=(): copying the content failed");
            _MErrTrace_DumpContextToMErrLog();
        }
        m_isOpen = other.m_isOpen;
        m_hasNoFile = other.m_hasNoFile;
        m_readFailed = other.m_readFailed;
        m_isSaved = other.m_isSaved;
    }

    bool set_open(const char* filename)
    {
        m_isOpen = true;
        m_filename = filename;
        return true;
    }

    bool changed(bool ok)
    {
        if (ok)
            m_isSaved = false;
        return ok;
    }

    void drop_all()
    {
        for (MIniDataLine* line : m_headerLines)
            delete line;
        m_headerLines.clear();
        for (auto& kv : m_sectionMap)
            delete kv.second;
        m_sectionMap.clear();
        m_currentSection = nullptr;
    }

    template <class F>
    void for_each_line(F f) const
    {
        for (const MIniDataLine* line : m_headerLines)
            f(*line->GetLinePtr());
        for (const auto& kv : m_sectionMap) {
            for (const MIniDataLine* line : kv.second->GetLineVec())
                f(*line->GetLinePtr());
        }
    }

    /* strtol/strtod of the value: leading white space is skipped, trailing
     * text ignored; at least one character must convert. */
    template <class T, class Convert>
    bool get_number(const std::string& section, const std::string& entry, T* value, Convert convert) const
    {
        const MIniDataEntry* e = find_entry(section, entry);
        if (e == nullptr)
            return false;
        char* end;
        T v = convert(e->GetValuePtr(), &end);
        if (end == e->GetValuePtr())
            return false;
        *value = v;
        return true;
    }

    const MIniDataEntry* find_entry(const std::string& section, const std::string& entry) const
    {
        const Section* s = GetSectionPtr(section);
        return s == nullptr ? nullptr : s->GetEntryPtr(minidata_detail::strip_trailing_blanks(entry));
    }

    /* A new section gets "[name]" as its header and is appended to the map. */
    Section* find_or_add_section(const std::string& name, const char* caller)
    {
        Section* s = GetSectionPtr(name);
        if (s == nullptr) {
            try {
                s = add_new_section(name, "[" + name + "]");
            } catch (const std::bad_alloc&) {
                s = nullptr;
            }
            if (s == nullptr)
                MERRTRACE("MIniData::%s(): add_new_section() failed", caller);
        }
        return s;
    }

    /* The section starts its own line vector; null when out of memory. */
    Section* add_new_section(const std::string& name, const std::string& header)
    {
        try {
            std::unique_ptr<Section> section(new Section(header));
            if (!m_sectionMap.emplace(name, section.get()).second)
                return GetSectionPtr(name); /* callers check first; never taken */
            return section.release();
        } catch (const std::bad_alloc&) {
            set_last_error("out of memory (%s)", strerror(ENOMEM));
            MERRTRACE("MIniData::SetDoubleEntry(): new MIniDataSectionT() failed: %.50s", strerror(ENOMEM));
            return nullptr;
        }
    }

    /* Blank lines and comments go to the current section, or before the first
     * section to the header lines. */
    bool add_plain_line(const std::string& line)
    {
        std::unique_ptr<MIniDataLine> plain(new MIniDataLine(line));
        if (m_currentSection != nullptr)
            return m_currentSection->AppendLine(plain.release());
        m_headerLines.push_back(plain.get());
        plain.release();
        return true;
    }

    /* May throw std::bad_alloc; parse_line catches it. */
    bool parse_line_into_model(const std::string& line)
    {
        using namespace minidata_detail;
        size_t first = line.find_first_not_of(" \t");
        if (first == std::string::npos)
            return add_plain_line(line);

        if (line[0] == '[') {
            size_t close = line.find(']', 1);
            if (close == std::string::npos) {
                set_last_error("no matching ']' found in \"%.50s\"", line.c_str());
                return false;
            }
            std::string name = line.substr(1, close - 1);
            if (DoesSectionExist(name)) {
                if (!(m_flags & MINIDATA_FLAG_REPLACE_SECTIONS)) {
                    set_last_error("Section [%s] seen twice", name.c_str());
                    return false;
                }
                if (!DeleteSection(name)) {
                    set_last_error("Section [%s] deleting previous version failed", name.c_str());
                    return false;
                }
            }
            m_currentSection = add_new_section(name, line);
            return m_currentSection != nullptr;
        }

        if (is_comment_start(line[first]))
            return add_plain_line(line);

        if (m_currentSection == nullptr) {
            set_last_error("Possible entry \"%s\" found before first section", line.c_str());
            return false;
        }
        size_t eq = line.find('=');
        if (eq == std::string::npos || eq <= first) {
            if (m_flags & (MINIDATA_FLAG_RELAXED_SYNTAX | MINIDATA_FLAG_REPLACE_SECTIONS))
                return add_plain_line(line);
            const char* header = m_currentSection->GetLinePtr()->c_str();
            if (eq == std::string::npos)
                set_last_error("No '=' found in \"%.50s\" in section %s", line.c_str(), header);
            else
                set_last_error("No entry name found before '=' in \"%s\" in section %s", line.c_str(), header);
            return false;
        }
        std::string name = entry_name(line, first, eq);
        if (m_currentSection->GetEntryPtr(name) != nullptr) {
            if (!(m_flags & MINIDATA_FLAG_REPLACE_ENTRIES)) {
                set_last_error("Entry \"%s\" seen twice in section %s", name.c_str(),
                               m_currentSection->GetLinePtr()->c_str());
                return false;
            }
            if (!m_currentSection->DeleteEntry(name)) {
                set_last_error("Entry \"%s\" deleting previous version failed", name.c_str());
                return false;
            }
        }
        m_currentSection->add_entry_line(name, line, eq + 1);
        return true;
    }

    /* Texts are cut to 1024 bytes. */
    __attribute__((format(printf, 2, 3))) void set_last_error(const char* fmt, ...)
    {
        char text[1024];
        va_list ap;
        va_start(ap, fmt);
        vsnprintf(text, sizeof text, fmt, ap);
        va_end(ap);
        try {
            m_lastError = text;
        } catch (const std::bad_alloc&) {
            m_lastError.clear();
        }
    }

    bool m_isOpen = false;
    bool m_hasNoFile = true;
    bool m_readFailed = false;
    bool m_isSaved = false;
    std::string m_filename;
    int m_flags = 0;
    std::vector<MIniDataLine*> m_headerLines;
    SectionMap m_sectionMap;
    Section* m_currentSection = nullptr;
    std::string m_lastError;
};

template <class Compare>
std::ostream& operator<<(std::ostream& os, const MIniDataT<Compare>& doc)
{
    std::string content;
    doc.GetContentString(&content);
    return os << content;
}

#endif /* __cplusplus */

#endif
