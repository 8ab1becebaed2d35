// protocol/records.h: takes a whole message apart into its records. A message of one record, as
// every writer makes them, is not copied again: its block is handed on with the record.
#pragma once

#include "protocol/assembly.h"
#include "protocol/tag_stream.h"

namespace nrpc {

struct RecordReader {
    MessageChunk *Block; // the message; null once it was handed on
    int32_t At;
};

// Takes over the chunks. False, all freed, when memory is exhausted.
bool OpenRecords(RecordReader *reader, MessageChunk *chunks);
void CloseRecords(RecordReader *reader);

// The next record; after kRecordEnd or kRecordClose nothing more may be read.
RecordResult ReadRecord(RecordReader *reader, Record *record);

// A block that holds the payload of the record just read, which points into it from now on. It is
// the caller's, to be freed with FreeChunks. Null when memory is exhausted, or when a message of
// countless records would exceed the budget.
MessageChunk *TakePayload(RecordReader *reader, Record *record);

} // namespace nrpc
