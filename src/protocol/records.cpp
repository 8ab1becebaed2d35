#include "protocol/records.h"

#include <cstring>

namespace nrpc {

bool OpenRecords(RecordReader *reader, MessageChunk *chunks) {
    *reader = {JoinChunks(chunks), 0};
    return reader->Block != nullptr;
}

void CloseRecords(RecordReader *reader) {
    FreeChunks(reader->Block);
    reader->Block = nullptr;
}

RecordResult ReadRecord(RecordReader *reader, Record *record) {
    if (reader->Block == nullptr) {
        return kRecordEnd;
    }
    return NextRecord(reader->Block->Data, static_cast<int32_t>(reader->Block->Len), &reader->At,
                      record);
}

MessageChunk *TakePayload(RecordReader *reader, Record *record) {
    MessageChunk *block = reader->Block;
    if (static_cast<uint32_t>(reader->At) == block->Len) {
        reader->Block = nullptr;
        return block;
    }
    block = BudgetIsExceeded() ? nullptr : NewChunk(static_cast<uint32_t>(record->Len));
    if (block != nullptr) {
        std::memcpy(block->Data, record->Payload, block->Len);
        record->Payload = block->Data;
    }
    return block;
}

} // namespace nrpc
