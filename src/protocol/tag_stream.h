// protocol/tag_stream.h: a message is a stream of records, and names are four digits.
//
//   record := "<Msg" tag ">" count "</Msg" tag ">" payload
//       tag    four characters, the message id
//       count  decimal byte count of the payload, without sign, spaces or leading zeros
//
//   Ids   0000 close notice (count 0) | 0001 cancel | 0005 to 0009 sent by the server of its own
//         accord | 0010 to 9999 a client's requests and the replies to them
//   A request code names one request of one client: "7#0011" is request 0011 of client handle 7.
//
// Readers are lenient where writers are not: byte 8 and the closing tag are not examined.
#pragma once

#include <cstdint>

#include "protocol/packet.h"

namespace nrpc {

// An id as text: four characters and a zero byte.
using MsgIDText = char[kMsgIDLen + 1];

inline constexpr int32_t kMaxTagElementLen =
    4 + 4 + 1 + 10 + 5 + 4 + 1; // with a count of 10 digits
// The longest payload that a receiver takes: its message may have kMaxReceivedTotalLen bytes.
inline constexpr int32_t kMaxPayloadLen = kMaxReceivedTotalLen - kMaxTagElementLen;
// Messages up to this id are never dropped as cancelled.
inline constexpr int32_t kLastServerMsgNumber = 9;
inline constexpr int32_t kLastMsgNumber = 9999;

// --- ids --------------------------------------------------------------------------------------

// The last four characters of "0000" followed by the number.
void FormatMsgID(int32_t number, MsgIDText text);
// The decimal value of four characters, up to the first that is no digit.
int32_t MsgNumberOf(const char *msgID);
// The number after `last` in a client's cycle 11, 12, ... 9999, 10, 11, ...
int32_t NextRequestNumber(int32_t last);

// --- records ----------------------------------------------------------------------------------

// Writes the tag element, at most kMaxTagElementLen characters, and answers its length.
int32_t FormatTagElement(const char *msgID, int32_t count, char *text);

// Parses the tag element at the start of `length` bytes. Result 1 and the three outputs; or 0 when
// there is none, tagNumber possibly written. A count beyond 31 bits is answered as INT32_MAX: no
// message is that long.
int32_t GetXMLStreamLength(const uint8_t *bytes, int32_t length, MsgIDText tagNumber,
                           int32_t *elementLen, int32_t *count);

struct Record {
    MsgIDText MsgID;
    const uint8_t *Payload; // into the message
    int32_t Len;
};

enum RecordResult : int32_t {
    kRecordTaken = 1,
    kRecordEnd = 0,    // the message is through, or what follows is malformed or cut short
    kRecordClose = -1, // a count of 0: nothing after it is read
};

// Takes the record at `*at` and moves `*at` behind it.
RecordResult NextRecord(const uint8_t *message, int32_t length, int32_t *at, Record *record);

// --- request codes ----------------------------------------------------------------------------

inline constexpr int32_t kRequestCodeSize =
    10 + 1 + kMsgIDLen + 1; // any handle, "#", id, zero byte

void FormatRequestCode(int32_t handle, const char *msgID, char *text);
// Reads a code back; the id is the first four characters behind the "#". False, nothing stored,
// when there is no "#", something else than digits stands before it, the handle has more than ten
// digits or does not fit 31 bits, or the id is shorter than four characters.
bool ParseRequestCode(const char *text, int32_t *handle, MsgIDText msgID);

} // namespace nrpc
