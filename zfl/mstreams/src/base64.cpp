#include "base64.h"

#include <array>
#include <cstdint>
#include <new>

#include "mtrace.h"

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<int8_t, 256> make_values()
{
    std::array<int8_t, 256> v{};
    for (int8_t& x : v)
        x = -1;
    for (int i = 0; i < 64; i++)
        v[static_cast<unsigned char>(kAlphabet[i])] = static_cast<int8_t>(i);
    return v;
}

constexpr std::array<int8_t, 256> kValues = make_values();

size_t padding_of(const char* text, size_t length)
{
    if (length < 4 || text[length - 1] != '=')
        return 0;
    return text[length - 2] == '=' ? 2 : 1;
}

} // namespace

extern "C" {

size_t MBase64_EncodedLength(size_t size)
{
    return 4 * ((size + 2) / 3);
}

size_t MBase64_DecodedMaxLength(size_t length)
{
    return length / 4 * 3;
}

bool MBase64_Encode(const void* data, size_t size, char* dest, size_t* dest_len)
{
    size_t need = MBase64_EncodedLength(size);
    if (dest == nullptr || dest_len == nullptr || *dest_len < need || (data == nullptr && size > 0))
        return false;
    const unsigned char* in = static_cast<const unsigned char*>(data);
    char* out = dest;
    for (size_t i = 0; i < size; i += 3) {
        size_t left = size - i;
        uint32_t group = static_cast<uint32_t>(in[i]) << 16;
        if (left > 1)
            group |= static_cast<uint32_t>(in[i + 1]) << 8;
        if (left > 2)
            group |= in[i + 2];
        *out++ = kAlphabet[(group >> 18) & 63];
        *out++ = kAlphabet[(group >> 12) & 63];
        *out++ = left > 1 ? kAlphabet[(group >> 6) & 63] : '=';
        *out++ = left > 2 ? kAlphabet[group & 63] : '=';
    }
    *dest_len = need;
    return true;
}

bool MBase64_Decode(const char* text, size_t length, void* dest, size_t* dest_len)
{
    if (dest_len == nullptr || (text == nullptr && length > 0)) {
        MERRTRACE("MBase64_Decode(): no text or no target length");
        return false;
    }
    if (length % 4 != 0) {
        MERRTRACE("MBase64_Decode(): length %zu is not a multiple of 4", length);
        return false;
    }
    size_t pad = padding_of(text, length);
    size_t size = MBase64_DecodedMaxLength(length) - pad;
    if ((dest == nullptr && size > 0) || *dest_len < size) {
        MERRTRACE("MBase64_Decode(): target too small (%zu < %zu)", dest == nullptr ? 0 : *dest_len, size);
        return false;
    }
    unsigned char* out = static_cast<unsigned char*>(dest);
    size_t written = 0;
    for (size_t i = 0; i < length; i += 4) {
        uint32_t group = 0;
        for (size_t j = i; j < i + 4; j++) {
            unsigned char c = static_cast<unsigned char>(text[j]);
            int value = j >= length - pad ? 0 : kValues[c];
            if (value < 0) {
                MERRTRACE("MBase64_Decode(): invalid character 0x%02x at %zu", c, j);
                return false;
            }
            group = group << 6 | static_cast<uint32_t>(value);
        }
        unsigned char bytes[3] = {static_cast<unsigned char>(group >> 16), static_cast<unsigned char>(group >> 8),
                                  static_cast<unsigned char>(group)};
        size_t n = size - written < 3 ? size - written : 3;
        /* the bits behind the last byte must be zero, or two texts would
         * decode to the same bytes */
        if (n < 3 && bytes[n] != 0) {
            MERRTRACE("MBase64_Decode(): padding bits not zero at %zu", i);
            return false;
        }
        for (size_t k = 0; k < n; k++)
            out[written++] = bytes[k];
    }
    *dest_len = size;
    return true;
}

} // extern "C"

namespace {

bool resize(std::string* s, size_t size, const char* who)
{
    try {
        s->resize(size);
    } catch (const std::bad_alloc&) {
        MERRTRACE("%s(): out of memory for %zu bytes", who, size);
        return false;
    }
    return true;
}

} // namespace

bool MBase64_Encode(const void* data, size_t size, std::string* text)
{
    if (!resize(text, MBase64_EncodedLength(size), "MBase64_Encode"))
        return false;
    size_t len = text->size();
    return MBase64_Encode(data, size, text->data(), &len);
}

bool MBase64_Decode(const char* text, size_t length, std::string* data)
{
    if (!resize(data, MBase64_DecodedMaxLength(length), "MBase64_Decode"))
        return false;
    size_t len = data->size();
    bool ok = MBase64_Decode(text, length, data->data(), &len);
    data->resize(ok ? len : 0);
    return ok;
}
