/*
 * INI documents: the class MIniData and, for plain-function callers, the
 * handle interface MIniData_* on an opaque MINIDATA_HANDLE.
 *
 *   MINIDATA_HANDLE h = MIniData_Create();
 *   MIniData_Open(h, path);             an absent file is an empty document
 *   MIniData_SetLongEntry(h, "counters", "uptime", 42);
 *   MIniData_Save(h);
 *   MIniData_Destroy(h);
 *
 * The int results are 1 for success (or true) and 0 for failure (or false).
 */
#ifndef ZFL_MINIDATA_H
#define ZFL_MINIDATA_H

#include <stddef.h>

#include "MIniData_template_core.h" /* the MINIDATA_FLAG_* bits; for C++ the templates */

typedef struct MIniDataHandle_* MINIDATA_HANDLE;

#ifdef __cplusplus
extern "C" {
#endif

MINIDATA_HANDLE MIniData_Create(void);
MINIDATA_HANDLE MIniData_CreateWithFlags(int flags);
/* Null is ignored. */
void MIniData_Destroy(MINIDATA_HANDLE h);

int MIniData_Open(MINIDATA_HANDLE h, const char* filename);
int MIniData_Close(MINIDATA_HANDLE h);
int MIniData_IsOpen(MINIDATA_HANDLE h);
int MIniData_HasNoFile(MINIDATA_HANDLE h);
/* 1 when the last open found the file but could not read it (an I/O error,
 * not its content). */
int MIniData_ReadFailed(MINIDATA_HANDLE h);
int MIniData_Reload(MINIDATA_HANDLE h);
int MIniData_Save(MINIDATA_HANDLE h);

int MIniData_SetContentString(MINIDATA_HANDLE h, const char* text);
/* A malloc'ed copy of the content for the caller to free(); null on failure. */
char* MIniData_GetContentString(MINIDATA_HANDLE h);

int MIniData_GetNumSections(MINIDATA_HANDLE h);
int MIniData_DoesSectionExist(MINIDATA_HANDLE h, const char* section);
/* 0 for an unknown section. */
int MIniData_GetNumEntries(MINIDATA_HANDLE h, const char* section);
int MIniData_DoesEntryExist(MINIDATA_HANDLE h, const char* section, const char* entry);

/* 1 if the entry exists and its value starts with a number. */
int MIniData_GetDoubleEntry(MINIDATA_HANDLE h, const char* section, const char* entry, double* value);
int MIniData_GetLongEntry(MINIDATA_HANDLE h, const char* section, const char* entry, long* value);
/* Copies the value and its NUL; 0 when that does not fit into size bytes. */
int MIniData_GetStringEntry(MINIDATA_HANDLE h, const char* section, const char* entry, char* buffer,
                            size_t size);

int MIniData_SetDoubleEntry(MINIDATA_HANDLE h, const char* section, const char* entry, double value);
int MIniData_SetLongEntry(MINIDATA_HANDLE h, const char* section, const char* entry, long value);
int MIniData_SetStringEntry(MINIDATA_HANDLE h, const char* section, const char* entry, const char* value);

/* Sets in h every entry of changed that base lacks or holds with another
 * value: what was changed in a copy of base, carried over to h. */
int MIniData_ApplyChanges(MINIDATA_HANDLE h, MINIDATA_HANDLE base, MINIDATA_HANDLE changed);

int MIniData_DeleteSection(MINIDATA_HANDLE h, const char* section);
int MIniData_DeleteEntry(MINIDATA_HANDLE h, const char* section, const char* entry);

#ifdef __cplusplus
}

extern template class MIniDataSectionT<MIniDataCaseSensitiveCompare>;
extern template class MIniDataT<MIniDataCaseSensitiveCompare>;

class MIniData : public MIniDataT<MIniDataCaseSensitiveCompare> {
public:
    explicit MIniData(int flags) : MIniDataT<MIniDataCaseSensitiveCompare>(flags) {}
};
#endif

#endif
