#include "hostkit/value.h"

#include <cstring>
#include <new>

namespace nrpc::hostkit {

// In the value bytes of a cell that nobody should read.
static constexpr int kNothingByte = 0xA5;
// An array without elements is a block of this length all the same.
static constexpr size_t kEmptyArrayLen = kCountedHeadLen + sizeof(int32_t);

// --- variables --------------------------------------------------------------------------------

void Variable::FreeBlock() {
    m_Heap.Free(reinterpret_cast<void *>(m_Slot));
    m_Slot = 0;
}

const uint8_t *Variable::CountedBlock(size_t elementLen, size_t *count) const {
    *count = 0;
    const auto *block = reinterpret_cast<const uint8_t *>(m_Slot);
    if (block == nullptr) {
        return nullptr;
    }
    const std::optional<size_t> size = m_Heap.SizeOf(block);
    int32_t head[2] = {};
    if (size.has_value() && *size >= sizeof(head)) {
        std::memcpy(head, block, sizeof(head));
    }
    // An empty array still has room for one element, and an empty byte set has no block at all.
    const size_t elements = head[1] < 1 ? 1 : static_cast<size_t>(head[1]);
    if (head[0] != kOneDimension || head[1] < 0 ||
        *size != kCountedHeadLen + elements * elementLen) {
        m_Heap.ReportBadValue(block);
        return nullptr;
    }
    *count = static_cast<size_t>(head[1]);
    return block + sizeof(head);
}

void Variable::StoreCounted(const void *elements, size_t count, size_t elementLen,
                            size_t blockLen) {
    auto *block = static_cast<uint8_t *>(m_Heap.Alloc(blockLen));
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    const int32_t head[] = {kOneDimension, static_cast<int32_t>(count)};
    std::memset(block, 0, blockLen);
    std::memcpy(block, head, sizeof(head));
    if (count != 0) {
        std::memcpy(block + kCountedHeadLen, elements, count * elementLen);
    }
    m_Slot = reinterpret_cast<HostWord>(block);
}

TextVariable::TextVariable(Heap &heap, std::string_view initial) : Variable(heap, kText) {
    if (initial.empty()) {
        return;
    }
    auto *block = static_cast<char *>(m_Heap.Alloc(initial.size() + 1));
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    std::memcpy(block, initial.data(), initial.size());
    block[initial.size()] = 0;
    m_Slot = reinterpret_cast<HostWord>(block);
}

std::string TextVariable::Get() const {
    const auto *text = reinterpret_cast<const char *>(m_Slot);
    if (text == nullptr) {
        return {};
    }
    // An empty text has no block, and a block ends with the text.
    const std::optional<size_t> size = m_Heap.SizeOf(text);
    if (!size.has_value() || *size < 2 || strnlen(text, *size) != *size - 1) {
        m_Heap.ReportBadValue(text);
        return {};
    }
    return {text, *size - 1};
}

ByteSetVariable::ByteSetVariable(Heap &heap, ByteSpan initial) : Variable(heap, kByteSet) {
    if (!initial.empty()) {
        StoreCounted(initial.data(), initial.size(), 1, kCountedHeadLen + initial.size());
    }
}

Bytes ByteSetVariable::Get() const {
    size_t count = 0;
    const uint8_t *bytes = CountedBlock(1, &count);
    return {bytes, bytes + count};
}

IntegerVariable::IntegerVariable(Heap &heap, int32_t initial) : Variable(heap, kInteger) {
    std::memcpy(Slot(), &initial, sizeof(initial));
}

int32_t IntegerVariable::Get() const {
    int32_t number = 0;
    std::memcpy(&number, &m_Slot, sizeof(number));
    return number;
}

IntegerArrayVariable::IntegerArrayVariable(Heap &heap, const std::vector<int32_t> &initial)
    : Variable(heap, kInteger) {
    StoreCounted(initial.data(), initial.size(), sizeof(int32_t),
                 initial.empty() ? kEmptyArrayLen
                                 : kCountedHeadLen + initial.size() * sizeof(int32_t));
}

std::vector<int32_t> IntegerArrayVariable::Get() const {
    size_t count = 0;
    const uint8_t *elements = CountedBlock(sizeof(int32_t), &count);
    std::vector<int32_t> numbers(count);
    if (count != 0) {
        std::memcpy(numbers.data(), elements, count * sizeof(int32_t));
    }
    return numbers;
}

// --- arguments --------------------------------------------------------------------------------

Value Value::Integer(int32_t number) {
    return {static_cast<HostWord>(number), kInteger};
}

Value Value::Address(HostWord message) {
    return {message, kInteger};
}

Value Value::Logical(bool truth) {
    return {HostWord{truth}, kLogical};
}

Value Value::Text(std::string_view text) {
    Bytes memory(text.size() + 1);
    if (!text.empty()) {
        std::memcpy(memory.data(), text.data(), text.size());
    }
    return {std::move(memory), kText};
}

Value Value::NullText() {
    return {HostWord{0}, kText};
}

Value Value::ByteSet(ByteSpan bytes) {
    return WrongByteSet(kOneDimension, static_cast<int32_t>(bytes.size()), bytes);
}

Value Value::NullByteSet() {
    return {HostWord{0}, kByteSet};
}

Value Value::WrongByteSet(int32_t dimensions, int32_t count, ByteSpan bytes) {
    const int32_t head[] = {dimensions, count};
    const auto *headBytes = reinterpret_cast<const uint8_t *>(head);
    Bytes memory;
    memory.reserve(sizeof(head) + bytes.size()); // exactly: reading beyond it shows
    memory.insert(memory.end(), headBytes, headBytes + sizeof(head));
    memory.insert(memory.end(), bytes.begin(), bytes.end());
    return {std::move(memory), kByteSet};
}

Value Value::Subroutine(HostWord address) {
    return {address, kSubroutinePointer};
}

Value Value::Omitted() {
    HostWord nothing = 0;
    std::memset(&nothing, kNothingByte, sizeof(nothing));
    return {nothing, kNoType};
}

Value Value::Output(Variable &variable) {
    return {reinterpret_cast<HostWord>(variable.Slot()), variable.Type()};
}

Value Value::Any(HostWord word, uint32_t typeCode) {
    return {word, typeCode};
}

HostValue Value::Cell() const {
    HostValue cell;
    std::memset(&cell, kNothingByte, sizeof(cell));
    cell.Word = m_Memory.empty() ? m_Word : reinterpret_cast<HostWord>(m_Memory.data());
    cell.TypeCode = m_TypeCode;
    return cell;
}

} // namespace nrpc::hostkit
