#include "MIniData.h"

#include <cstdlib>
#include <cstring>

template class MIniDataSectionT<MIniDataCaseSensitiveCompare>;
template class MIniDataT<MIniDataCaseSensitiveCompare>;

namespace {

MIniData* doc(MINIDATA_HANDLE h)
{
    return reinterpret_cast<MIniData*>(h);
}

/* Callers never pass null names, but a null must not reach std::string. */
bool names_ok(const char* a, const char* b = "", const char* c = "")
{
    return a != nullptr && b != nullptr && c != nullptr;
}

} // namespace

extern "C" {

MINIDATA_HANDLE MIniData_Create(void)
{
    return MIniData_CreateWithFlags(0);
}

MINIDATA_HANDLE MIniData_CreateWithFlags(int flags)
{
    MIniData* d = new (std::nothrow) MIniData(flags);
    if (d == nullptr)
        MERRTRACE("MIniData_CreateWithFlags(): out of memory");
    return reinterpret_cast<MINIDATA_HANDLE>(d);
}

void MIniData_Destroy(MINIDATA_HANDLE h)
{
    delete doc(h);
}

int MIniData_Open(MINIDATA_HANDLE h, const char* filename)
{
    return h != nullptr && doc(h)->Open(filename);
}

int MIniData_Close(MINIDATA_HANDLE h)
{
    return h != nullptr && doc(h)->Close();
}

int MIniData_IsOpen(MINIDATA_HANDLE h)
{
    return h != nullptr && doc(h)->IsOpen();
}

int MIniData_HasNoFile(MINIDATA_HANDLE h)
{
    return h != nullptr && doc(h)->HasNoFile();
}

int MIniData_ReadFailed(MINIDATA_HANDLE h)
{
    return h != nullptr && doc(h)->ReadFailed();
}

int MIniData_Reload(MINIDATA_HANDLE h)
{
    return h != nullptr && doc(h)->Reload();
}

int MIniData_Save(MINIDATA_HANDLE h)
{
    return h != nullptr && doc(h)->Save();
}

int MIniData_SetContentString(MINIDATA_HANDLE h, const char* text)
{
    return h != nullptr && names_ok(text) && doc(h)->SetContentString(text);
}

char* MIniData_GetContentString(MINIDATA_HANDLE h)
{
    std::string content;
    if (h == nullptr || !doc(h)->GetContentString(&content))
        return nullptr;
    char* copy = static_cast<char*>(malloc(content.size() + 1));
    if (copy == nullptr) {
        MERRTRACE("MIniData_GetContentString(): malloc() failed: %.50s", strerror(errno));
        return nullptr;
    }
    memcpy(copy, content.c_str(), content.size() + 1);
    return copy;
}

int MIniData_GetNumSections(MINIDATA_HANDLE h)
{
    return h != nullptr ? doc(h)->GetNumSections() : 0;
}

int MIniData_DoesSectionExist(MINIDATA_HANDLE h, const char* section)
{
    return h != nullptr && names_ok(section) && doc(h)->DoesSectionExist(section);
}

int MIniData_GetNumEntries(MINIDATA_HANDLE h, const char* section)
{
    return h != nullptr && names_ok(section) ? doc(h)->GetNumEntries(section) : 0;
}

int MIniData_DoesEntryExist(MINIDATA_HANDLE h, const char* section, const char* entry)
{
    return h != nullptr && names_ok(section, entry) && doc(h)->DoesEntryExist(section, entry);
}

int MIniData_GetDoubleEntry(MINIDATA_HANDLE h, const char* section, const char* entry, double* value)
{
    return h != nullptr && names_ok(section, entry) && value != nullptr &&
           doc(h)->GetDoubleEntry(section, entry, value);
}

int MIniData_GetLongEntry(MINIDATA_HANDLE h, const char* section, const char* entry, long* value)
{
    return h != nullptr && names_ok(section, entry) && value != nullptr &&
           doc(h)->GetLongEntry(section, entry, value);
}

int MIniData_GetStringEntry(MINIDATA_HANDLE h, const char* section, const char* entry, char* buffer, size_t size)
{
    std::string value;
    if (h == nullptr || !names_ok(section, entry) || !doc(h)->GetStringEntry(section, entry, &value))
        return 0;
    if (buffer == nullptr || value.size() >= size) {
        MERRTRACE("MIniData_GetStringEntry(): returned string too long for target (%zu)", size);
        return 0;
    }
    memcpy(buffer, value.c_str(), value.size() + 1);
    return 1;
}

int MIniData_SetDoubleEntry(MINIDATA_HANDLE h, const char* section, const char* entry, double value)
{
    return h != nullptr && names_ok(section, entry) && doc(h)->SetDoubleEntry(section, entry, value);
}

int MIniData_SetLongEntry(MINIDATA_HANDLE h, const char* section, const char* entry, long value)
{
    return h != nullptr && names_ok(section, entry) && doc(h)->SetLongEntry(section, entry, value);
}

int MIniData_SetStringEntry(MINIDATA_HANDLE h, const char* section, const char* entry, const char* value)
{
    return h != nullptr && names_ok(section, entry, value) && doc(h)->SetStringEntry(section, entry, value);
}

int MIniData_ApplyChanges(MINIDATA_HANDLE h, MINIDATA_HANDLE base, MINIDATA_HANDLE changed)
{
    if (h == nullptr || base == nullptr || changed == nullptr)
        return 0;
    for (const std::string& section : doc(changed)->GetSectionNames()) {
        for (const std::string& entry : doc(changed)->GetEntryNames(section)) {
            std::string now, before;
            if (!doc(changed)->GetStringEntry(section, entry, &now))
                return 0;
            if (doc(base)->GetStringEntry(section, entry, &before) && before == now)
                continue;
            if (!doc(h)->SetStringEntry(section, entry, now))
                return 0;
        }
    }
    return 1;
}

int MIniData_DeleteSection(MINIDATA_HANDLE h, const char* section)
{
    return h != nullptr && names_ok(section) && doc(h)->DeleteSection(section);
}

int MIniData_DeleteEntry(MINIDATA_HANDLE h, const char* section, const char* entry)
{
    return h != nullptr && names_ok(section, entry) && doc(h)->DeleteEntry(section, entry);
}

} // extern "C"
