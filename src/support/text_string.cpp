#include "support/text_string.h"

#include <algorithm>
#include <cstring>

namespace nrpc {

// `count` bytes, and one behind them that may be read, become the text of `out`.
static void CopyTerminated(NString *out, const void *bytes, int32_t count) {
    if (CMem_CopyFrom(out, bytes, count + 1) != 0) {
        out->Ptr[count] = 0;
    }
}

// The same in a fresh block; a count below 0 leaves none.
static void SetBytes(NString *str, const void *bytes, int32_t count) {
    CMem old;
    CMem_init_(&old);
    if (CMem_Holds(str, bytes)) {
        CMem_XchgMem(str, &old); // lives until the bytes are copied
    }
    CMem_Free(str);
    if (count >= 0) {
        CopyTerminated(str, bytes, count);
    }
    CMem_Free(&old);
}

// Puts `count` bytes, the last of them a terminator, in the place of the terminator.
static int32_t AddTerminated(NString *str, const void *bytes, int32_t count) {
    const int32_t length = NString_GetLength(str);
    return CMem_Replace(str, length, str->Size - length, bytes, count);
}

void NString_init_text_(NString *str, const char *text) {
    CMem_init_(str);
    NString_SetText(str, text);
}

int32_t NString_init_str_(NString *str, const NString *other) {
    CMem_init_(str);
    return NString_SetStr(str, other);
}

void NString_SetText(NString *str, const char *text) {
    NString_SetTextPart(str, text, -1);
}

int32_t NString_SetStr(NString *str, const NString *other) {
    return CMem_CopyFrom(str, other->Ptr, other->Size);
}

void NString_SetTextPart(NString *str, const char *text, int32_t count) {
    const int32_t length = TextLen(text);
    const bool whole = count < 0 || count > length;
    SetBytes(str, text, length == 0 ? -1 : whole ? length : count);
}

void NString_SetChar(NString *str, char character) {
    const char text[] = {character, 0};
    NString_SetText(str, text);
}

const char *NString_GetText(const NString *str) {
    return str->Size == 0 ? "" : reinterpret_cast<const char *>(str->Ptr);
}

int32_t NString_GetLength(const NString *str) {
    const int32_t end = FindByte(str->Ptr, str->Size, 0);
    return end < 0 ? str->Size : end;
}

int32_t NString_IsEmpty(const NString *str) {
    return NString_GetLength(str) == 0 ? 1 : 0;
}

void NString_Empty(NString *str) {
    CMem_Free(str);
}

void NString_AddChar(NString *str, char character) {
    const char text[] = {character, 0};
    NString_AddText(str, text);
}

void NString_AddText(NString *str, const char *text) {
    const int32_t length = TextLen(text);
    if (length > 0) {
        AddTerminated(str, text, length + 1);
    }
}

int32_t NString_AddStr(NString *str, const NString *other) {
    return NString_IsEmpty(other) != 0 ? 1 : AddTerminated(str, other->Ptr, other->Size);
}

int32_t NString_Insert(NString *str, int32_t position, const char *text) {
    if (position < 0 || position > NString_GetLength(str)) {
        return 0;
    }
    const int32_t length = TextLen(text);
    const bool withTerminator = str->Size == 0 && length > 0;
    return CMem_Insert(str, position, text, withTerminator ? length + 1 : length);
}

void NString_Delete(NString *str, int32_t position, int32_t count) {
    const int32_t length = NString_GetLength(str);
    if (position >= 0 && position < length) {
        CMem_Remove(str, position, std::min(count, length - position));
    }
}

static void GetPart(const NString *str, int32_t position, int32_t count, NString *out) {
    if (count < 1) {
        CMem_Empty(out);
        return;
    }
    CopyTerminated(out, str->Ptr + position, count);
}

void NString_GetLeft(const NString *str, int32_t count, NString *out) {
    GetPart(str, 0, std::min(count, NString_GetLength(str)), out);
}

void NString_GetRight(const NString *str, int32_t count, NString *out) {
    const int32_t length = NString_GetLength(str);
    const int32_t taken = std::min(count, length);
    GetPart(str, length - std::max(taken, 0), taken, out);
}

void NString_TrimLeft(NString *str) {
    int32_t spaces = 0;
    while (spaces < str->Size && str->Ptr[spaces] == ' ') {
        ++spaces;
    }
    CMem_Remove(str, 0, spaces);
}

void NString_TrimRight(NString *str) {
    const int32_t length = NString_GetLength(str);
    int32_t kept = length;
    while (kept > 0 && str->Ptr[kept - 1] == ' ') {
        --kept;
    }
    if (kept < length) {
        str->Ptr[kept] = 0;
        CMem_Realloc(str, kept + 1);
    }
}

// Flips the case of the ASCII letters from `first` on. In a two-byte character the second byte may
// look like a letter.
static void FlipCase(NString *str, uint8_t first) {
    constexpr uint8_t kCaseBit = 'a' - 'A';
    const int32_t length = NString_GetLength(str);
    for (int32_t at = 0; at < length; ++at) {
        uint8_t &byte = str->Ptr[at];
        if ((byte & 0x80) != 0) {
            ++at;
        } else if (byte >= first && byte < first + 26) {
            byte ^= kCaseBit;
        }
    }
}

void NString_MakeLower(NString *str) {
    FlipCase(str, 'A');
}
void NString_MakeUpper(NString *str) {
    FlipCase(str, 'a');
}

int32_t NString_EndOfChar(const NString *str, char character) {
    const char text[] = {character, 0};
    return character != 0 ? NString_EndOfText(str, text) : 0;
}

int32_t NString_EndOfText(const NString *str, const char *text) {
    const int32_t length = NString_GetLength(str);
    const int32_t endLen = TextLen(text);
    if (endLen == 0) {
        return 1;
    }
    if (endLen > length) {
        return 0;
    }
    const auto count = static_cast<size_t>(endLen);
    return std::memcmp(str->Ptr + (length - endLen), text, count) == 0 ? 1 : 0;
}

} // namespace nrpc
