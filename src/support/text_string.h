// support/text_string.h: NString, a text in a byte buffer (byte_buffer.h says who owns, shares and
// frees what, and what a failure leaves behind).
//
//   Content    the bytes of the text and one zero byte; nothing at all in a text never filled. Both
//              are the empty text. The text ends at the first zero byte.
//   Units      characters are bytes, except in the case mapping: there a byte with its high bit set
//              and the one behind it are one GBK character.
//   Arguments  texts may lie in the string itself; null is an empty text. Other strings and `out`
//              may be the string itself, and are initialised.
//   Lifetime   CMem_init_ or one of the two initialisers first, NString_Empty last.
#pragma once

#include "support/byte_buffer.h"

namespace nrpc {

struct NString : CMem {};

// On a record without content, not on one that holds a block.
void NString_init_text_(NString *str, const char *text);
int32_t NString_init_str_(NString *str, const NString *other);

// These three free the old block first, so a failure leaves the empty text.
void NString_SetText(NString *str, const char *text);
// The first `count` characters, taken unsigned: -1 is all of them.
void NString_SetTextPart(NString *str, const char *text, int32_t count);
void NString_SetChar(NString *str, char character);
// In the block that the string already has, where it serves.
int32_t NString_SetStr(NString *str, const NString *other);

// Never null; valid until the string changes.
const char *NString_GetText(const NString *str);
int32_t NString_GetLength(const NString *str);
int32_t NString_IsEmpty(const NString *str);
// Frees the block.
void NString_Empty(NString *str);

// A zero character, an empty text and an empty string add nothing. A failure leaves the text whole.
void NString_AddChar(NString *str, char character);
void NString_AddText(NString *str, const char *text);
int32_t NString_AddStr(NString *str, const NString *other);

// 0 also for a position outside the text; its length is inside.
int32_t NString_Insert(NString *str, int32_t position, const char *text);
// The count is cut to what is there; a position at or behind the end removes nothing.
void NString_Delete(NString *str, int32_t position, int32_t count);

// The first or last `count` characters, all where there are fewer; below 1 empties `out`, which
// keeps its block. When memory is exhausted `out` stays as it was.
void NString_GetLeft(const NString *str, int32_t count, NString *out);
void NString_GetRight(const NString *str, int32_t count, NString *out);

// Spaces (byte 32) only.
void NString_TrimLeft(NString *str);
void NString_TrimRight(NString *str);
// ASCII letters only.
void NString_MakeLower(NString *str);
void NString_MakeUpper(NString *str);

int32_t NString_EndOfChar(const NString *str, char character);
// 1 for an empty `text`.
int32_t NString_EndOfText(const NString *str, const char *text);

} // namespace nrpc
