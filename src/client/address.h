// client/address.h: the server address as the user gives it: a dotted IPv4 address or a host name.
#pragma once

#include <cstdint>

#include "support/word_array.h"

namespace nrpc {

// "255.255.255.255" and a zero byte.
inline constexpr int32_t kAddressTextSize = 16;

// 1 when the text is four parts separated by points, each of at most three digits and at most 255;
// an empty part counts as 0. 0 otherwise, also for a null text.
int32_t IsIP(const char *text);

// Appends heap copies of the parts between the separators to the array; the caller frees each with
// std::free, and the array. Without a separator in the text there are no parts. `maximum` is the
// number of separators after which splitting ends without the rest, -1 for all. False when memory
// is exhausted.
bool Split(const char *text, const char *separator, int32_t maximum, CDWordArray *parts);

// The host's first IPv4 address in dotted form, in `buffer` of kAddressTextSize characters; null
// when the name does not resolve. Takes as long as the system's resolver does.
char *GetIpFromUrl(const char *name, char *buffer);

} // namespace nrpc
