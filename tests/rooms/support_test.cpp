// Buffers, strings and word arrays against plain models, their storage, and the pool under load.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/byte_buffer.h"
#include "support/text_string.h"
#include "support/threads.h"
#include "support/word_array.h"

using namespace nrpc;

namespace {

using Bytes = std::vector<uint8_t>;

template <typename Record>
struct Owned : Record {
    Owned() { CMem_init_(this); }
    ~Owned() { CMem_Free(this); }
    Owned(const Owned &) = delete;
    Owned &operator=(const Owned &) = delete;
};
using Buffer = Owned<CMem>;
using String = Owned<NString>;

std::mt19937 s_Random(20240607);

int32_t Pick(int32_t low, int32_t high) {
    return std::uniform_int_distribution<int32_t>(low, high)(s_Random);
}

// Now and then a number that no buffer can have as its size or position.
int32_t PickNumber(int32_t low, int32_t high) {
    static constexpr int32_t kBad[] = {INT32_MIN, kMaxMemSize + 1, INT32_MAX - 1, INT32_MAX};
    return Pick(0, 29) == 0 ? kBad[Pick(0, 3)] : Pick(low, high);
}

bool IsPooled(const CMem &mem) {
    return mem.Ptr >= _m_membuf.Slots[0] && mem.Ptr < _m_membuf.Slots[0] + sizeof _m_membuf.Slots;
}

Bytes BytesOf(const CMem &mem) {
    return Bytes(mem.Ptr, mem.Ptr + mem.Size);
}

int32_t CapacityFor(CMem *mem, int32_t size) {
    CMem_Realloc(mem, size);
    return mem->Capacity;
}

} // namespace

TEST(Buffer, AgreesWithVectorInEveryOperation) {
    Buffer mems[kPoolSlotCount + 8];
    Bytes models[std::size(mems)];
    for (int32_t step = 0; step < 60000; ++step) {
        const int32_t index = Pick(0, std::size(mems) - 1);
        CMem *mem = &mems[index];
        Bytes &model = models[index];
        const int32_t other = Pick(0, std::size(mems) - 1);
        const int32_t size = mem->Size;
        const int32_t position = PickNumber(-2, size + (Pick(0, 3) == 0 ? 9 : 0));
        const int32_t oldCount = PickNumber(-1, Pick(0, 3) == 0 ? 500 : 20);
        int32_t count = PickNumber(-2, Pick(0, 19) == 0 ? 900 : 40);

        // What goes in: zeros, bytes from elsewhere, or a stretch of the buffer itself.
        Bytes data(static_cast<size_t>(count < 0 || count > 900 ? 0 : count));
        Bytes elsewhere;
        const uint8_t *source = nullptr;
        if (const int32_t kind = Pick(0, 3); kind == 0 && size > 0) {
            source = mem->Ptr + Pick(0, size - 1);
            count = std::min(count, static_cast<int32_t>(mem->Ptr + size - source));
            data.assign(source, source + std::max(count, 0));
        } else if (kind != 1) {
            std::generate(data.begin(), data.end(), [] { return uint8_t(Pick(0, 255)); });
            elsewhere = data;
            source = elsewhere.data();
        }

        bool wanted = true;
        int32_t result = 1;
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
        const std::function<void()> operations[] = {
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
            [&] { model.clear(), CMem_Empty(mem); },
            [&] { model.clear(), CMem_Free(mem); },
            [&] { std::swap(model, models[other]), CMem_XchgMem(mem, &mems[other]); }};
        const auto operation = static_cast<size_t>(Pick(0, std::size(operations) - 1));
        operations[operation]();
        if (unsetEnd > size && unsetEnd <= mem->Size) {
            std::fill(mem->Ptr + size, mem->Ptr + unsetEnd, uint8_t{0});
        }
        ASSERT_EQ(result, wanted ? 1 : 0) << operation << " in step " << step;
        ASSERT_EQ(BytesOf(*mem), model) << operation << " in step " << step;
        ASSERT_EQ(CMem_GetPtr(mem), model.empty() ? nullptr : mem->Ptr);
        ASSERT_TRUE(IsPooled(*mem) ? mem->Capacity == kPoolSlotLen : mem->Capacity >= mem->Size);
        ASSERT_EQ(std::count_if(std::begin(mems), std::end(mems), IsPooled), _m_membuf.UsedCount);
    }
}

TEST(Buffer, TakesAndLeavesStorageAtTheStatedSizes) {
    Buffer mem;
    EXPECT_EQ(CapacityFor(&mem, 200), 256);
    EXPECT_EQ(mem.Ptr, _m_membuf.Slots[0]);
    EXPECT_EQ(CapacityFor(&mem, 256), 256);
    EXPECT_EQ(CapacityFor(&mem, 300), 428);
    EXPECT_EQ(_m_membuf.UsedCount, 0);
    EXPECT_EQ(CapacityFor(&mem, 10), 138); // never back into the pool
    CMem_Free(&mem);
    EXPECT_EQ(CapacityFor(&mem, 257), 385);
    EXPECT_EQ(CapacityFor(&mem, 1000), 1128);
    EXPECT_EQ(CapacityFor(&mem, 872), 1128);
    EXPECT_EQ(CapacityFor(&mem, 871), 999);

    Buffer crowd[kPoolSlotCount];
    for (Buffer &each : crowd) {
        EXPECT_EQ(CMem_Alloc(&each, 256), _m_membuf.Slots[&each - crowd]);
    }
    Buffer late;
    EXPECT_EQ(CapacityFor(&late, 5), 133);
    CMem_Free(&crowd[9]);
    CMem_Free(&late);
    EXPECT_EQ(CMem_Alloc(&late, 5), _m_membuf.Slots[9]);
}

TEST(Buffer, AppendsValuesAsTheyLieInMemory) {
    Buffer mem;
    CMem_AddByte(&mem, 'B');
    CMem_AddShort(&mem, -2);
    CMem_AddWord(&mem, 0x1234);
    CMem_AddInt(&mem, -2);
    CMem_AddDWord(&mem, 0x89ABCDEF);
    CMem_AddLong(&mem, 3);
    CMem_AddFloat(&mem, 1.0F);
    CMem_AddDouble(&mem, -2.0);
    CMem_AddText(&mem, nullptr);
    CMem_AddText(&mem, "xy");
    CMem_AddStr(&mem, "z");
    CMem_AddStr(&mem, nullptr);
    constexpr char kWanted[] = "B\xFE\xFF\x34\x12\xFE\xFF\xFF\xFF\xEF\xCD\xAB\x89\3\0\0\0\0\0\x80?"
                               "\0\0\0\0\0\0\0\xC0xyz\0"; // and the literal's own zero
    EXPECT_EQ(BytesOf(mem), Bytes(std::begin(kWanted), std::end(kWanted)));
    EXPECT_EQ(FindByte(mem.Ptr, 4, 0x12), -1);
    EXPECT_EQ(FindByte(mem.Ptr, 5, 0x12), 4);
    EXPECT_EQ(FindByte(mem.Ptr, 0, 'B'), -1);
}

TEST(BufferFile, ReadsWhatWasWrittenAndReportsTheRest) {
    std::string folder = testing::TempDir() + "support_XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    const std::string path = folder + "/data";
    Buffer mem;
    Buffer back;
    CMem_Append(&mem, nullptr, 4999);
    CMem_AddByte(&mem, 9);
    EXPECT_EQ(CMem_WriteFile(&mem, path.c_str(), -1), 1);
    for (const int32_t count : {-1, 10, 6000}) { // all, a part, more than there is
        EXPECT_EQ(CMem_ReadFile(&back, path.c_str(), count), count == 10 ? 10 : 5000);
        EXPECT_EQ(back.Size, count == 10 ? 10 : 5000);
    }
    EXPECT_EQ(BytesOf(back), BytesOf(mem));

    const auto readToNothing = [](const std::string &name, int32_t count) {
        Buffer used;
        CMem_AddInt(&used, 1);
        const int32_t result = CMem_ReadFile(&used, name.c_str(), count);
        EXPECT_TRUE(used.Ptr == nullptr && used.Size == 0 && used.Capacity == 0);
        return result;
    };
    EXPECT_EQ(readToNothing(path, INT32_MAX), -1);
    ASSERT_EQ(truncate64(path.c_str(), (off64_t{1} << 32) + 10), 0);
    EXPECT_EQ(readToNothing(path, -1), -1);
    EXPECT_EQ(CMem_ReadFile(&back, path.c_str(), 10), 10);
    EXPECT_EQ(CMem_WriteFile(&mem, path.c_str(), 0), 1); // leaves an empty file all the same
    EXPECT_EQ(readToNothing(path, -1), 0);
    EXPECT_EQ(readToNothing(path, 10), 0);
    EXPECT_EQ(readToNothing(path + "?", -1), -1);
    EXPECT_EQ(readToNothing(folder, 10), -1); // opens, but cannot be read
    EXPECT_EQ(CMem_WriteFile(&mem, folder.c_str(), -1), 0);
    EXPECT_EQ(CMem_WriteFile(&mem, "/dev/full", 1), 0); // noticed only when it is closed
    EXPECT_EQ(unlink(path.c_str()), 0);
    EXPECT_EQ(rmdir(folder.c_str()), 0);
}

// Forks go on meanwhile: in each child the pool must be usable, whoever held its lock.
TEST(Pool, ServesManyThreadsAndForks) {
    std::atomic<bool> stop = false;
    std::atomic<int32_t> broken = 0;
    std::vector<std::thread> threads;
    for (uint8_t id = 1; id <= 8; ++id) {
        threads.emplace_back([&stop, &broken, id] {
            for (int32_t round = 0; round < 1000 || !stop; ++round) {
                Buffer mems[6]; // 48 in all: the pool overflows to the heap and back
                for (Buffer &mem : mems) {
                    CMem_Append(&mem, nullptr, 1 + round % 256);
                    std::fill_n(mem.Ptr, mem.Size, id);
                }
                for (const Buffer &mem : mems) {
                    broken += std::count(mem.Ptr, mem.Ptr + mem.Size, id) != mem.Size;
                }
            }
        });
    }
    for (int32_t round = 0, status = 0; round < 100 && status == 0; ++round) {
        Buffer mem;
        const pid_t child = fork();
        if (child == 0) {
            alarm(20); // ends a child that waits for a lock for ever
            _exit(CapacityFor(&mem, 1) > 0 ? 0 : 1);
        }
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    stop = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(broken, 0);
    EXPECT_EQ(_m_membuf.UsedCount, 0);
    EXPECT_EQ(FindByte(_m_membuf.InUse, kPoolSlotCount, 1), -1);
}

TEST(String, AgreesWithStdStringInEveryOperation) {
    String strings[3];
    std::string models[3];
    for (int32_t step = 0; step < 60000; ++step) {
        const int32_t index = Pick(0, 2);
        const int32_t otherIndex = Pick(0, 2); // often the string itself
        NString *str = &strings[index];
        NString *other = &strings[otherIndex];
        std::string &model = models[index];
        std::string &otherModel = models[otherIndex];
        const auto length = static_cast<int32_t>(model.size());

        // A text from elsewhere, or the end of the string itself.
        std::string text;
        for (int32_t left = Pick(0, 8) == 0 ? Pick(0, 400) : Pick(0, 5); left > 0; --left) {
            text += " aZ\xB0\xC1"[Pick(0, 4)];
        }
        const std::string elsewhere = text;
        const char *source = elsewhere.c_str();
        if (Pick(0, 4) == 0) {
            source = NString_GetText(str) + Pick(0, length);
            text = source;
        }
        const char character = "a Z"[Pick(0, 3)]; // also the zero behind them
        const std::string added(character != '\0', character);
        const int32_t count = PickNumber(-1, length + 2);
        const size_t n = static_cast<size_t>(std::max(count, 0));
        const int32_t position = PickNumber(-1, length + 2);
        const bool isInside = position >= 0 && position <= length;
        const size_t at = isInside ? static_cast<size_t>(position) : model.size();

        int32_t result = 1;
        int32_t wanted = 1;
        const std::function<void()> operations[] = {
            [&] {
                NString_SetText(str, source), model = text;
                ASSERT_EQ(CMem_IsEmpty(str), text.empty() ? 1 : 0); // no block for no text
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
            [&] { NString_TrimRight(str), model.erase(model.find_last_not_of(' ') + 1); }};
        operations[Pick(0, std::size(operations) - 1)]();
        if (model.size() > 2000) { // strings added to themselves grow without end
            NString_Empty(str), model.clear();
        }
        ASSERT_EQ(result, wanted) << "step " << step;
        for (const int32_t each : {index, otherIndex}) {
            const auto wantedLen = static_cast<int32_t>(models[each].size());
            ASSERT_EQ(NString_GetText(&strings[each]), models[each]) << "step " << step;
            ASSERT_EQ(NString_GetLength(&strings[each]), wantedLen);
            ASSERT_EQ(strings[each].Size, wantedLen + (strings[each].Size == 0 ? 0 : 1));
        }
        ASSERT_EQ(NString_EndOfText(str, elsewhere.c_str()), model.ends_with(elsewhere) ? 1 : 0);
        ASSERT_EQ(NString_EndOfChar(str, character), model.ends_with(character) ? 1 : 0);
    }
}

TEST(String, MapsTheCaseOfLettersButNotOfGbkCharacters) {
    String str; // letters, their neighbours, second bytes that look like letters, half a character
    NString_init_text_(&str, "@aZ[`z{\xB0\x61\x81\x5A-bY\xC4\xE3q\xC4");
    NString_MakeUpper(&str);
    EXPECT_STREQ(NString_GetText(&str), "@AZ[`Z{\xB0\x61\x81\x5A-BY\xC4\xE3Q\xC4");
    NString_MakeLower(&str);
    EXPECT_STREQ(NString_GetText(&str), "@az[`z{\xB0\x61\x81\x5A-by\xC4\xE3q\xC4");
}

TEST(WordArray, KeepsItsElementsInEveryOperation) {
    constexpr ArrayWord kTop = UINTPTR_MAX;
    Owned<CDWordArray> array;
    const auto holds = [&array](const std::vector<ArrayWord> &wanted) {
        std::vector<ArrayWord> all;
        for (int32_t index = 0; index <= CDWordArray_GetUpperBound(&array); ++index) {
            all.push_back(CDWordArray_GetAt(&array, index));
        }
        return all == wanted;
    };
    for (const ArrayWord value : {ArrayWord{1}, kTop, ArrayWord{3}}) {
        EXPECT_EQ(CDWordArray_Add(&array, value), 1);
    }
    EXPECT_EQ(CDWordArray_InsertAt(&array, 1, 9), 1);
    EXPECT_EQ(CDWordArray_Append(&array, &array), 4);
    EXPECT_TRUE(holds({1, 9, kTop, 3, 1, 9, kTop, 3}));
    EXPECT_EQ(CDWordArray_Find(&array, kTop), 2);
    EXPECT_EQ(CDWordArray_Find(&array, 4), -1);
    EXPECT_EQ(CDWordArray_RemoveAt(&array, 1, 2), 1);
    EXPECT_EQ(CDWordArray_RemoveAt(&array, 3, 99), 1);
    for (const int32_t bad : {-1, INT32_MAX / 4 + 1, INT32_MAX}) { // as bytes these are no sizes
        EXPECT_EQ(CDWordArray_RemoveAt(&array, bad, 1), 0);
        EXPECT_EQ(CDWordArray_RemoveAt(&array, 0, bad), 0);
        EXPECT_EQ(CDWordArray_InsertAt(&array, bad, 5), 0);
        EXPECT_EQ(CDWordArray_SetSize(&array, bad), 0);
    }
    EXPECT_EQ(CDWordArray_Copy(&array, &array), 1);
    EXPECT_TRUE(holds({1, 3, 1}));
    EXPECT_EQ(CDWordArray_SetSize(&array, 2), 1);
    CDWordArray_SetAt(&array, 1, 8);
    EXPECT_TRUE(holds({1, 8}));
    EXPECT_EQ(CDWordArray_SetSize(&array, 0), 0);
    EXPECT_EQ(CDWordArray_GetUpperBound(&array), -1);
}

TEST(Clock, IsTheOneThatNobodySets) {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    EXPECT_LT(MonotonicMs() - static_cast<uint64_t>(now.tv_sec) * 1000, 60000U);
}
