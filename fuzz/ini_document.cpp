/* The INI document: arbitrary bytes as a file, opened, changed through the
 * setters and deleters, saved and opened again. What was saved must read back
 * identically: the same content and every value that was set.
 *
 * Input: byte 0 chooses the document flags, byte 1 seeds the edits, the rest
 * is the file. */
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "MIniData.h"
#include "fuzz_support.h"
#include "mtrace.h"

namespace {

/* The flags a caller may combine (the name-only constructor's flag plays no
 * part with Open). */
int flags_of(uint8_t b)
{
    static const int bits[] = {MINIDATA_FLAG_RELAXED_SYNTAX, MINIDATA_FLAG_REPLACE_SECTIONS, MINIDATA_FLAG_FSYNC,
                               MINIDATA_FLAG_ATOMIC_SAVE, MINIDATA_FLAG_REPLACE_ENTRIES};
    int flags = 0;
    for (size_t i = 0; i < sizeof bits / sizeof *bits; i++) {
        if (b & (1u << i))
            flags |= bits[i];
    }
    return flags;
}

std::string content_of(const MIniData& doc)
{
    std::string text;
    fz::check(doc.GetContentString(&text), "GetContentString failed");
    return text;
}

/* What a value read back must be. */
struct Expected {
    enum Kind { LONG, DOUBLE, STRING } kind;
    long l;
    double d;
    std::string s;
};

using Key = std::pair<std::string, std::string>;

/* A value of the kind callers write: no line ends, no NUL. */
std::string some_text(fz::Choices& c, const std::string& source)
{
    static const char* const fixed[] = {"", " ", "VELAL", "a b", " lead", "trail ", "x=y", "[s]", ";c", "\t"};
    if (source.empty() || c.next(2) == 0)
        return fixed[c.next(sizeof fixed / sizeof *fixed)];
    size_t from = c.next(static_cast<uint32_t>(source.size()));
    std::string s = source.substr(from, c.next(40));
    for (char& ch : s) {
        if (ch == '\r' || ch == '\n' || ch == '\0')
            ch = '_';
    }
    return s;
}

double some_double(fz::Choices& c)
{
    static const double values[] = {0.0, -0.0, 1.0, 0.1, 8.18591e-06, 1e300, -1e-300, 4.9e-324,
                                    HUGE_VAL, -HUGE_VAL, NAN, 20000.0, 0.92 * 8.18591e-06};
    return values[c.next(sizeof values / sizeof *values)];
}

long some_long(fz::Choices& c)
{
    static const long values[] = {0, -5, 1, 39830, 300, 600, 2147483648L, -2147483649L, LONG_MAX, LONG_MIN};
    const long v = values[c.next(sizeof values / sizeof *values)];
    return v == LONG_MAX ? v : v + static_cast<long>(c.next(3));
}

void apply_edits(MIniData* doc, fz::Choices& c, const std::string& source, std::map<Key, Expected>* expected)
{
    static const char* const sections[] = {"motor", "channel", "battery", "general", "uptime", "cyclecounter", ""};
    static const char* const keys[] = {"x_corr", "w_scale", "f", "machine", "ready", "batts", "k"};
    const int edits = static_cast<int>(c.next(9));
    for (int i = 0; i < edits; i++) {
        /* a section and key of the document, or a fixed one */
        std::vector<std::string> names = doc->GetSectionNames();
        std::string section;
        std::string key;
        if (!names.empty() && c.next(2) == 0) {
            section = names[c.next(static_cast<uint32_t>(names.size()))];
            std::vector<std::string> entries = doc->GetEntryNames(section);
            key = !entries.empty() && c.next(3) != 0 ? entries[c.next(static_cast<uint32_t>(entries.size()))]
                                                      : keys[c.next(sizeof keys / sizeof *keys)];
        } else {
            section = sections[c.next(sizeof sections / sizeof *sections)];
            key = keys[c.next(sizeof keys / sizeof *keys)];
        }
        const Key k(section, key);
        switch (c.next(7)) {
        case 0:
        case 1: {
            long v = some_long(c);
            fz::check(doc->SetLongEntry(section, key, v), "SetLongEntry failed");
            (*expected)[k] = Expected{Expected::LONG, v, 0, ""};
            break;
        }
        case 2: {
            double v = some_double(c);
            fz::check(doc->SetDoubleEntry(section, key, v), "SetDoubleEntry failed");
            (*expected)[k] = Expected{Expected::DOUBLE, 0, v, ""};
            break;
        }
        case 3: {
            std::string v = some_text(c, source);
            fz::check(doc->SetStringEntry(section, key, v), "SetStringEntry failed");
            (*expected)[k] = Expected{Expected::STRING, 0, 0, v};
            break;
        }
        case 4:
            if (doc->DeleteEntry(section, key)) {
                fz::check(!doc->DoesEntryExist(section, key), "a deleted entry still exists");
                expected->erase(k);
            }
            break;
        case 5:
            if (doc->DeleteSection(section)) {
                fz::check(!doc->DoesSectionExist(section), "a deleted section still exists");
                for (auto it = expected->begin(); it != expected->end();)
                    it = it->first.first == section ? expected->erase(it) : std::next(it);
            }
            break;
        default:
            fz::check(doc->AddSection(section) && doc->DoesSectionExist(section), "AddSection failed");
            break;
        }
    }
}

void check_values(const MIniData& doc, const std::map<Key, Expected>& expected)
{
    for (const auto& kv : expected) {
        const std::string& section = kv.first.first;
        const std::string& key = kv.first.second;
        const Expected& e = kv.second;
        const std::string where = "[" + section + "] " + key;
        std::string text;
        fz::check(doc.GetStringEntry(section, key, &text), "value lost: " + where);
        if (e.kind == Expected::LONG) {
            long v = 0;
            fz::check(doc.GetLongEntry(section, key, &v) && v == e.l, "long value changed: " + where);
        } else if (e.kind == Expected::DOUBLE) {
            double v = 0;
            fz::check(doc.GetDoubleEntry(section, key, &v), "double value lost: " + where);
            fz::check(std::isnan(e.d) ? std::isnan(v) : memcmp(&v, &e.d, sizeof v) == 0,
                  "double value changed: " + where);
        } else {
            /* an existing entry keeps the blanks after its '=' */
            fz::check(text.size() >= e.s.size() && text.compare(text.size() - e.s.size(), e.s.size(), e.s) == 0 &&
                      text.find_first_not_of(" \t") >= text.size() - e.s.size(),
                  "string value changed: " + where + " = [" + text + "]");
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    _MTrace_SetLevel("default", 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const int descriptors = fz::lowest_free_descriptor();
    if (size < 2)
        return 0;
    const int flags = flags_of(data[0]);
    fz::Choices choices(data[1]);
    const std::string text(reinterpret_cast<const char*>(data) + 2, size - 2);
    const std::string path = fz::scratch_dir() + "/doc.ini";
    fz::write_file(path, text);

    std::map<Key, Expected> expected;
    std::string saved;
    {
        MIniData doc(flags);
        if (!doc.Open(path.c_str())) {
            fz::check(!doc.IsOpen(), "a failed Open left the document open");
            std::string after;
            fz::check(fz::read_file(path, &after) && after == text, "a failed Open changed the file");
            MErrTrace_ClearContext();
            return 0;
        }
        fz::check(doc.IsOpen() && !doc.HasNoFile() && doc.IsSaved(), "state after Open");

        /* the content is a fixed point of SetContentString (the text ends at
         * its first NUL, so only without one) */
        const std::string content = content_of(doc);
        if (content.find('\0') == std::string::npos) {
            MIniData copy(flags);
            fz::check(copy.SetContentString(content), "the content of an opened file does not parse");
            fz::check(content_of(copy) == content, "SetContentString(GetContentString()) changed the content");
        }

        apply_edits(&doc, choices, text, &expected);
        check_values(doc, expected);
        saved = content_of(doc);
        fz::check(doc.Save(), "Save failed");
        fz::check(doc.IsSaved() && !doc.HasNoFile(), "state after Save");
    }

    std::string on_disk;
    fz::check(fz::read_file(path, &on_disk), "the saved file is missing");
    fz::check(on_disk == saved, "the file differs from the saved content");

    /* reopened through the handle interface, as the program's modules do */
    MINIDATA_HANDLE h = MIniData_CreateWithFlags(flags);
    fz::check(h != nullptr, "MIniData_CreateWithFlags failed");
    fz::check(MIniData_Open(h, path.c_str()) == 1, "the saved file does not open");
    char* content = MIniData_GetContentString(h);
    fz::check(content != nullptr && std::string(content) == saved.c_str(), "the saved file reads back differently");
    free(content);
    fz::check(content_of(*reinterpret_cast<const MIniData*>(h)) == saved, "the saved file reads back differently");
    check_values(*reinterpret_cast<const MIniData*>(h), expected);
    for (const auto& kv : expected) {
        /* names with a NUL cannot be passed as C strings */
        if (kv.second.kind != Expected::STRING || strlen(kv.first.first.c_str()) != kv.first.first.size() ||
            strlen(kv.first.second.c_str()) != kv.first.second.size())
            continue;
        std::string value;
        reinterpret_cast<const MIniData*>(h)->GetStringEntry(kv.first.first, kv.first.second, &value);
        std::vector<char> buf(value.size() + 1, '\x5a');
        const char* section = kv.first.first.c_str();
        const char* key = kv.first.second.c_str();
        fz::check(MIniData_GetStringEntry(h, section, key, buf.data(), value.size()) == 0 && buf[0] == '\x5a',
              "a string value was copied into a buffer without room for its end");
        fz::check(MIniData_GetStringEntry(h, section, key, buf.data(), buf.size()) == 1 &&
                  memcmp(buf.data(), value.c_str(), buf.size()) == 0,
              "MIniData_GetStringEntry copied something else");
    }
    MIniData_Destroy(h);
    fz::check_descriptors(descriptors);
    MErrTrace_ClearContext();
    return 0;
}
