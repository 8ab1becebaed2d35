// Buffers, strings and word arrays: their operations, their storage, and the pool under load.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
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

Bytes BytesOf(const CMem &mem) {
    return Bytes(mem.Ptr, mem.Ptr + mem.Size);
}

int32_t CapacityFor(CMem *mem, int32_t size) {
    CMem_Realloc(mem, size);
    return mem->Capacity;
}

} // namespace

TEST(WordArray, KeepsItsElementsInOrder) {
    Owned<CDWordArray> array;
    for (const ArrayWord value : {1U, 3U, 4U}) {
        EXPECT_EQ(CDWordArray_Add(&array, value), 1);
    }
    EXPECT_EQ(CDWordArray_InsertAt(&array, 1, 2), 1);
    EXPECT_EQ(CDWordArray_Append(&array, &array), 4);
    EXPECT_EQ(CDWordArray_RemoveAt(&array, 2, 3), 1);
    CDWordArray_SetAt(&array, 0, UINTPTR_MAX);
    EXPECT_EQ(CDWordArray_SetSize(&array, 6), 1);
    CDWordArray_SetAt(&array, 5, 0);
    for (const auto &[index, count] : {std::pair(-1, 1), {6, 1}, {INT32_MAX, 1}, {0, -1}}) {
        EXPECT_EQ(CDWordArray_RemoveAt(&array, index, count), 0) << index;
    }
    EXPECT_EQ(CDWordArray_InsertAt(&array, -1, 1), 0);
    EXPECT_EQ(CDWordArray_SetSize(&array, kMaxMemSize), 0);
    std::vector<ArrayWord> words;
    for (int32_t i = 0; i <= CDWordArray_GetUpperBound(&array); ++i) {
        words.push_back(CDWordArray_GetAt(&array, i));
    }
    EXPECT_EQ(words, (std::vector<ArrayWord>{UINTPTR_MAX, 2, 2, 3, 4, 0}));
    EXPECT_EQ(CDWordArray_Find(&array, 2), 1);
    EXPECT_EQ(CDWordArray_Find(&array, 7), -1);
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
    const std::string path = testing::TempDir() + "support_test." + std::to_string(getpid());
    Buffer mem;
    Buffer back;
    CMem_Append(&mem, nullptr, 4999);
    CMem_AddByte(&mem, 9);
    EXPECT_EQ(CMem_WriteFile(&mem, path.c_str(), -1), 1);
    for (const int32_t count : {10, 6000, -1}) { // a part, more than there is, all
        EXPECT_EQ(CMem_ReadFile(&back, path.c_str(), count), count == 10 ? 10 : 5000);
        EXPECT_EQ(back.Size, count == 10 ? 10 : 5000);
    }
    EXPECT_EQ(BytesOf(back), BytesOf(mem));
    EXPECT_EQ(CMem_ReadFile(&back, path.c_str(), INT32_MAX), -1);
    EXPECT_TRUE(back.Ptr == nullptr && back.Size == 0);
    EXPECT_EQ(truncate64(path.c_str(), (off64_t{1} << 32) + 10), 0);
    EXPECT_EQ(CMem_ReadFile(&back, path.c_str(), -1), -1);
    EXPECT_EQ(CMem_ReadFile(&back, path.c_str(), 10), 10);
    EXPECT_EQ(CMem_WriteFile(&mem, path.c_str(), 0), 1); // leaves an empty file all the same
    EXPECT_EQ(CMem_ReadFile(&back, path.c_str(), -1), 0);
    EXPECT_EQ(unlink(path.c_str()), 0);
    EXPECT_EQ(CMem_ReadFile(&back, path.c_str(), -1), -1);
    EXPECT_EQ(CMem_ReadFile(&back, "/tmp", 10), -1);    // opens, but cannot be read
    EXPECT_EQ(CMem_WriteFile(&mem, "/dev/full", 1), 0); // noticed only when it is closed
}

// Forks go on meanwhile: in each child the pool must be usable, whoever held its lock. A child
// keeps to the slot it has from its parent: the heap of a sanitizer may stay locked in a child.
TEST(Pool, ServesManyThreadsAndForks) {
    Buffer slot;
    CMem_Append(&slot, nullptr, 1);
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
        const pid_t child = fork();
        if (child == 0) {
            alarm(20); // ends a child that waits for a lock for ever
            CMem_Free(&slot);
            _exit(CapacityFor(&slot, 1) > 0 ? 0 : 1);
        }
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    stop = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(broken, 0);
    CMem_Free(&slot);
    EXPECT_EQ(_m_membuf.UsedCount, 0);
    EXPECT_EQ(FindByte(_m_membuf.InUse, kPoolSlotCount, 1), -1);
}

TEST(String, MapsTheCaseOfLettersButNotOfGbkCharacters) {
    String str; // letters, their neighbours, second bytes that look like letters, half a character
    NString_init_text_(&str, "@aZ[`z{\xB0\x61\x81\x5A-bY\xC4\xE3q\xC4");
    NString_MakeUpper(&str);
    EXPECT_STREQ(NString_GetText(&str), "@AZ[`Z{\xB0\x61\x81\x5A-BY\xC4\xE3Q\xC4");
    NString_MakeLower(&str);
    EXPECT_STREQ(NString_GetText(&str), "@az[`z{\xB0\x61\x81\x5A-by\xC4\xE3q\xC4");
}

thread_local char s_Much[300 * 1024]; // a host may have as much

TEST(Threads, StartInAProgramWithMuchThreadLocalData) {
    const auto body = [](void *arg) -> void * {
        s_Much[0] = 1;
        *static_cast<int *>(arg) += s_Much[0];
        return nullptr;
    };
    pthread_t thread = 0;
    int value = 1;
    ASSERT_EQ(MyCreateThread(&thread, body, &value, kLibraryStackLen), 1);
    EXPECT_TRUE(MyJoinThread(thread, 30000));
    EXPECT_EQ(value, 2);
}

TEST(Clock, IsTheOneThatNobodySets) {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    EXPECT_LT(MonotonicMs() - static_cast<uint64_t>(now.tv_sec) * 1000, 60000U);
}
