// Commits the fault that it is told to. The sanitized builds run it to see that their sanitizers
// really report here: a run without any report proves nothing where they are silent.
#include <pthread.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

volatile int s_Shared;

void *WriteShared(void *) {
    s_Shared = 1;
    return nullptr;
}

void Race() {
    pthread_t thread;
    if (pthread_create(&thread, nullptr, WriteShared, nullptr) == 0) {
        s_Shared = 2;
        pthread_join(thread, nullptr);
    }
}

void Leak() {
    void *volatile lost = std::malloc(100);
    lost = nullptr;
}

void Overflow() {
    volatile int largest = 2147483647;
    largest = largest + 1;
}

void UseAfterFree() {
    auto *volatile block = static_cast<char *>(std::malloc(1));
    std::free(block);
    block[0] = 1;
}

const struct {
    const char *Name;
    void (*Commit)();
} kFaults[] = {
    {"leak", Leak}, {"overflow", Overflow}, {"use-after-free", UseAfterFree}, {"race", Race}};

} // namespace

int main(int argc, char **argv) {
    for (const auto &fault : kFaults) {
        if (argc == 2 && std::strcmp(argv[1], fault.Name) == 0) {
            fault.Commit();
            return 0;
        }
    }
    std::fprintf(stderr, "usage: planted_fault leak|overflow|use-after-free|race\n");
    return 2;
}
