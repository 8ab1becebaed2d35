// planted_fault leak|overflow|use-after-free|race: commits it. The sanitized builds run it to see
// that their sanitizers really report here: a run without any report proves nothing where they are
// silent.
#include <cstdlib>
#include <string_view>
#include <thread>

static volatile int s_Value = 2147483647;

int main(int argc, char **argv) {
    const std::string_view fault = argc == 2 ? argv[1] : "";
    if (fault == "leak") {
        void *volatile lost = std::malloc(100);
        lost = nullptr;
    } else if (fault == "overflow") {
        s_Value = s_Value + 1;
    } else if (fault == "use-after-free") {
        auto *volatile block = static_cast<char *>(std::malloc(1));
        std::free(block);
        block[0] = 1;
    } else if (fault == "race") {
        std::thread other([] { s_Value = 1; });
        s_Value = 2;
        other.join();
    } else {
        return 2;
    }
    return 0;
}
