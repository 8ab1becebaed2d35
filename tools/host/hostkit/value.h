// hostkit/value.h: arguments of commands, built into cells as the host builds them, and the host's
// variables that receive results.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "host/frame.h"
#include "hostkit/heap.h"

namespace nrpc::hostkit {

using Bytes = std::vector<uint8_t>;
using ByteSpan = std::span<const uint8_t>;

inline ByteSpan BytesOf(std::string_view text) {
    return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
}

// A variable of the host: one word whose text, byte set or array lies in the host's heap. Its
// address goes to the library, so it stays where it is. Reading a variable that has not the layout
// of its type is recorded as Heap::kBadValue and answers an empty value.
class Variable {
  public:
    Variable(const Variable &) = delete;
    Variable &operator=(const Variable &) = delete;
    uint32_t Type() const { return m_Type; }
    HostWord *Slot() { return &m_Slot; }
    bool IsNull() const { return m_Slot == 0; }

  protected:
    Variable(Heap &heap, uint32_t type) : m_Heap(heap), m_Type(type) {}
    ~Variable() = default;
    void FreeBlock();
    // The counted block in the slot, or null when it is null or not sound.
    const uint8_t *CountedBlock(size_t elementLen, size_t *count) const;
    void StoreCounted(const void *elements, size_t count, size_t elementLen, size_t blockLen);

    Heap &m_Heap;
    HostWord m_Slot = 0;

  private:
    uint32_t m_Type;
};

class TextVariable : public Variable {
  public:
    explicit TextVariable(Heap &heap, std::string_view initial = {});
    ~TextVariable() { FreeBlock(); }
    std::string Get() const;
};

class ByteSetVariable : public Variable {
  public:
    explicit ByteSetVariable(Heap &heap, ByteSpan initial = {});
    ~ByteSetVariable() { FreeBlock(); }
    Bytes Get() const;
};

class IntegerVariable : public Variable {
  public:
    explicit IntegerVariable(Heap &heap, int32_t initial = 0);
    int32_t Get() const;
};

// Starts as the empty array, a block of its own.
class IntegerArrayVariable : public Variable {
  public:
    explicit IntegerArrayVariable(Heap &heap, const std::vector<int32_t> &initial = {});
    ~IntegerArrayVariable() { FreeBlock(); }
    std::vector<int32_t> Get() const;
};

// One argument. It owns the text or the bytes that its cell points to, in memory that is not the
// host's heap: the library may not free them.
class Value {
  public:
    static Value Integer(int32_t number);
    static Value Address(HostWord message); // of a message: the handler's word
    static Value Logical(bool truth);
    static Value Text(std::string_view text); // an empty text is a pointer to a zero byte
    static Value NullText();
    static Value ByteSet(ByteSpan bytes); // an empty one is a block of no bytes
    static Value NullByteSet();
    // A byte set whose head does not fit its bytes.
    static Value WrongByteSet(int32_t dimensions, int32_t count, ByteSpan bytes);
    static Value Subroutine(HostWord address);
    static Value Subroutine(const void *) = delete;
    // The argument was left out; its value bytes hold anything.
    static Value Omitted();
    static Value Output(Variable &variable);
    static Value Any(HostWord word, uint32_t typeCode);

    // Valid as long as this value.
    HostValue Cell() const;

  private:
    Value(HostWord word, uint32_t typeCode) : m_Word(word), m_TypeCode(typeCode) {}
    Value(Bytes memory, uint32_t typeCode) : m_Memory(std::move(memory)), m_TypeCode(typeCode) {}

    Bytes m_Memory; // when not empty, the cell holds its address
    HostWord m_Word = 0;
    uint32_t m_TypeCode;
};

} // namespace nrpc::hostkit
