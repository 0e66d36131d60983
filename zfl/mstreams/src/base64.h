/*
 * Base64 with the standard alphabet and '=' padding, as data lines carry
 * binary samples over the text protocol.
 */
#ifndef ZFL_BASE64_H
#define ZFL_BASE64_H

#include <stddef.h>

#ifdef __cplusplus
#include <string>
extern "C" {
#else
#include <stdbool.h>
#endif

/* Characters that size bytes encode to: 4 * ((size + 2) / 3). */
size_t MBase64_EncodedLength(size_t size);

/* Bytes that length characters decode to at most. */
size_t MBase64_DecodedMaxLength(size_t length);

/* Encodes size bytes into dest, without a NUL. *dest_len is the capacity on
 * entry and the number of characters on return; false (nothing written,
 * *dest_len unchanged) when dest is null or too small. */
bool MBase64_Encode(const void* data, size_t size, char* dest, size_t* dest_len);

/* Decodes length characters into dest. *dest_len is the capacity on entry and
 * the number of bytes on return. False, with an error-trace line, for a length
 * that is not a multiple of 4, a character outside the alphabet, misplaced
 * padding, padding bits that are not zero or a target that is too small. */
bool MBase64_Decode(const char* text, size_t length, void* dest, size_t* dest_len);

#ifdef __cplusplus
}

/* The same with strings; the result replaces the target's content. */
bool MBase64_Encode(const void* data, size_t size, std::string* text);
bool MBase64_Decode(const char* text, size_t length, std::string* data);
#endif

#endif
