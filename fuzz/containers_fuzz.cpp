// The first byte chooses a kind of container, the others the operations on a few of them and their
// arguments, also such that nobody should pass. Each must stay like the plain model beside it.
#include <algorithm>
#include <numeric>
#include <string>
#include <vector>

#include "check.h"
#include "support/byte_buffer.h"
#include "support/text_string.h"

using namespace nrpc;

namespace {

// Numbers made of the input's bytes; the lowest ones when it is used up.
struct Choices {
    const uint8_t *At;
    const uint8_t *End;

    int32_t Pick(int32_t low, int32_t high) {
        const auto range = static_cast<uint32_t>(high - low);
        uint32_t number = 0;
        for (uint32_t rest = range; rest > 0 && At < End; rest >>= 8) {
            number = number << 8 | *At++;
        }
        return low + static_cast<int32_t>(number % (range + 1));
    }
    // Now and then a number that no container can have as its size or position, from `tooMany` on.
    int32_t PickNumber(int32_t low, int32_t high, int32_t tooMany = kMaxMemSize + 1) {
        const int32_t bad[] = {INT32_MIN, tooMany, INT32_MAX - 1, INT32_MAX};
        return Pick(0, 29) == 0 ? bad[Pick(0, 3)] : Pick(low, high);
    }
};

template <typename Record>
struct Owned : Record {
    Owned() { CMem_init_(this); }
    ~Owned() { CMem_Free(this); }
    Owned(const Owned &) = delete;
    Owned &operator=(const Owned &) = delete;
};

using Bytes = std::vector<uint8_t>;

} // namespace

// Does one of the operations.
template <typename... Operations>
static void Do(int32_t which, const Operations &...operations) {
    int32_t at = 0;
    ((at++ == which ? operations() : void()), ...);
}

// --- buffers ----------------------------------------------------------------------------------

static bool IsPooled(const CMem &mem) {
    const void *block = mem.Ptr;
    return block >= std::begin(_m_membuf.Slots) && block < std::end(_m_membuf.Slots);
}

static void CheckBuffers(Choices choices) {
    Owned<CMem> mems[kPoolSlotCount + 8];
    Bytes models[std::size(mems)];
    while (choices.At < choices.End) {
        const int32_t index = choices.Pick(0, std::size(mems) - 1);
        const int32_t other = choices.Pick(0, std::size(mems) - 1);
        CMem *mem = &mems[index];
        Bytes &model = models[index];
        const int32_t size = mem->Size;
        const bool far = choices.Pick(0, 3) == 0;
        const int32_t position = choices.PickNumber(-2, size + (far ? 9 : 0));
        const int32_t oldCount = choices.PickNumber(-1, far ? 500 : 20);
        int32_t count = choices.PickNumber(-2, choices.Pick(0, 19) == 0 ? 900 : 40);

        // What goes in: zeros, bytes from elsewhere, or a stretch of the buffer itself.
        Bytes data(static_cast<size_t>(count < 0 || count > 900 ? 0 : count));
        const uint8_t *source = nullptr;
        if (const int32_t kind = choices.Pick(0, 3); kind == 0 && size > 0) {
            source = mem->Ptr + choices.Pick(0, size - 1);
            count = std::min(count, static_cast<int32_t>(mem->Ptr + size - source));
            data.assign(source, source + std::max(count, 0));
        } else if (kind != 1) {
            std::iota(data.begin(), data.end(), static_cast<uint8_t>(choices.Pick(0, 255)));
            source = data.data();
        }

        int32_t result = 1;
        bool wanted = true;
        int32_t unsetEnd = 0; // from the old end up to here the operation sets nothing
        const auto splice = [&](bool allowed, int32_t at, int32_t removed, int32_t added) {
            wanted = allowed && (added <= 0 || int64_t{std::max(at, size)} + added <= kMaxMemSize);
            if (wanted) {
                const auto first = model.begin() + std::min(at, size);
                model.erase(first, first + std::min<std::ptrdiff_t>(removed, model.end() - first));
            }
            if (wanted && added > 0) {
                unsetEnd = at;
                model.resize(std::max(model.size(), static_cast<size_t>(at)));
                model.insert(model.begin() + at, data.begin(), data.end());
            }
        };
        const bool isPlace = position >= 0 && count >= 0;
        const bool isRange = position >= -1 && oldCount >= 0 && (position < size || oldCount == 0);
        const int32_t removeAt = position == -1 ? size - std::clamp(oldCount, 0, size) : position;
        Do(
            choices.Pick(0, 8),
            [&] { splice(true, size, 0, count), result = CMem_Append(mem, source, count); },
            [&] {
                splice(isPlace || count == 0, std::max(position, 0), 0, count);
                result = CMem_Insert(mem, position, source, count);
            },
            [&] {
                splice(isPlace && oldCount >= 0, position, oldCount, count);
                result = CMem_Replace(mem, position, oldCount, source, count);
            },
            [&] {
                splice(isRange, removeAt, oldCount, 0);
                result = CMem_Remove(mem, position, oldCount);
            },
            [&] { splice(true, 0, size, count), result = CMem_CopyFrom(mem, source, count); },
            [&] {
                wanted = count > 0 && count <= kMaxMemSize, unsetEnd = count;
                model.resize(static_cast<size_t>(wanted || count == 0 ? count : size));
                result = CMem_Realloc(mem, count) != nullptr ? 1 : 0;
            },
            [&] { model.clear(), CMem_Empty(mem); }, [&] { model.clear(), CMem_Free(mem); },
            [&] { std::swap(model, models[other]), CMem_XchgMem(mem, &mems[other]); });
        if (unsetEnd > size && unsetEnd <= mem->Size) {
            std::fill(mem->Ptr + size, mem->Ptr + unsetEnd, uint8_t{0});
        }
        CHECK(result == (wanted ? 1 : 0));
        CHECK(Bytes(mem->Ptr, mem->Ptr + mem->Size) == model);
        CHECK(CMem_GetPtr(mem) == (model.empty() ? nullptr : mem->Ptr));
        CHECK(IsPooled(*mem) ? mem->Capacity == kPoolSlotLen : mem->Capacity >= mem->Size);
        CHECK(std::count_if(std::begin(mems), std::end(mems), IsPooled) == _m_membuf.UsedCount);
    }
}

// --- strings ----------------------------------------------------------------------------------

static void CheckStrings(Choices choices) {
    Owned<NString> strings[3];
    std::string models[3];
    while (choices.At < choices.End) {
        const int32_t index = choices.Pick(0, 2);
        const int32_t otherIndex = choices.Pick(0, 2); // often the string itself
        NString *str = &strings[index];
        NString *other = &strings[otherIndex];
        std::string &model = models[index];
        std::string &otherModel = models[otherIndex];
        const auto length = static_cast<int32_t>(model.size());

        // A text from elsewhere, or the end of the string itself.
        std::string text;
        for (int32_t left = choices.Pick(0, choices.Pick(0, 8) == 0 ? 400 : 5); left > 0; --left) {
            text += " aZ\xB0\xC1"[choices.Pick(0, 4)];
        }
        const std::string elsewhere = text;
        const char *source = elsewhere.c_str();
        if (choices.Pick(0, 4) == 0) {
            source = NString_GetText(str) + choices.Pick(0, length);
            text = source;
        }
        const char character = "a Z"[choices.Pick(0, 3)]; // also the zero behind them
        const std::string added(character != '\0', character);
        const int32_t count = choices.PickNumber(-1, length + 2);
        const size_t n = static_cast<size_t>(std::max(count, 0));
        const int32_t position = choices.PickNumber(-1, length + 2);
        const bool isInside = position >= 0 && position <= length;
        const size_t at = isInside ? static_cast<size_t>(position) : model.size();

        int32_t result = 1;
        int32_t wanted = 1;
        Do(
            choices.Pick(0, 12),
            [&] {
                NString_SetText(str, source), model = text;
                CHECK(CMem_IsEmpty(str) == (text.empty() ? 1 : 0)); // no block for no text
            },
            [&] { result = NString_SetStr(str, other), model = otherModel; },
            [&] { NString_SetTextPart(str, source, count), model = text.substr(0, size_t(count)); },
            [&] { NString_SetChar(str, character), model = added; },
            [&] { NString_AddChar(str, character), model += added; },
            [&] { NString_AddText(str, source), model += text; },
            [&] { result = NString_AddStr(str, other), model += std::string(otherModel); },
            [&] {
                result = NString_Insert(str, position, source), wanted = isInside ? 1 : 0;
                model.insert(at, isInside ? text : "");
            },
            [&] { NString_Delete(str, position, count), model.erase(at, n); },
            [&] { NString_GetLeft(str, count, other), otherModel = model.substr(0, n); },
            [&] {
                NString_GetRight(str, count, other);
                otherModel = model.substr(model.size() - std::min(model.size(), n));
            },
            [&] { NString_TrimLeft(str), model.erase(0, model.find_first_not_of(' ')); },
            [&] { NString_TrimRight(str), model.erase(model.find_last_not_of(' ') + 1); });
        CHECK(result == wanted);
        if (model.size() > 2000) { // strings added to themselves grow without end
            NString_Empty(str);
            model.clear();
        }
        for (const int32_t each : {index, otherIndex}) {
            const auto wantedLen = static_cast<int32_t>(models[each].size());
            CHECK(NString_GetText(&strings[each]) == models[each]);
            CHECK(NString_GetLength(&strings[each]) == wantedLen);
            CHECK(strings[each].Size == wantedLen + (strings[each].Size == 0 ? 0 : 1));
        }
        CHECK(NString_EndOfText(str, elsewhere.c_str()) == (model.ends_with(elsewhere) ? 1 : 0));
        CHECK(NString_EndOfChar(str, character) == (model.ends_with(character) ? 1 : 0));
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static constexpr void (*kKinds[])(Choices) = {CheckBuffers, CheckStrings};
    if (size > 0) {
        kKinds[data[0] % std::size(kKinds)]({data + 1, data + size});
        CHECK(_m_membuf.UsedCount == 0 && FindByte(_m_membuf.InUse, kPoolSlotCount, 1) == -1);
    }
    return 0;
}
