// demo.h: what the processes of the demonstration agree on.
//
// Server and client each run as a subcommand of their own and write their findings to standard
// output, a pipe to the process that started them: lines "port N" (the server listens there),
// "ok ..." and "FAIL ...". The server stops when its standard input ends.
#pragma once

#include <algorithm>
#include <atomic>
#include <thread>

#include "program.h"

namespace nrpc::tool {

// Texts in UTF-8; they travel as GBK.
inline const std::string kGreeting = "你好，远程服务";
inline const std::string kGreetingReply = "收到：你好，远程服务";
inline const std::string kSlowRequest = "answer this one too late";
inline const std::string kLateReply = "the late reply";
inline const std::string kNextRequest = "answer this one in time";
inline const std::string kNextReply = "the reply in time";

inline const std::string kBurstRequest = "burst "; // and its number
inline const std::string kBurstReply = "reply to burst ";
inline const std::string kPushRequest = "push to me";
inline const std::string kPush = "news that nobody asked for";
inline const std::string kKickRequest = "disconnect me";

inline constexpr size_t kByteCounts[] = {20000, 1024 * 1024};
inline constexpr size_t kBurstCount = 50;
// Of the synchronous client, and of the asynchronous one.
inline constexpr size_t kRequestCount = 3 + std::size(kByteCounts) + kBurstCount + 2;
inline constexpr size_t kClientCount = 2;
inline constexpr int32_t kPatientMs = 10000; // for what ought to happen
inline constexpr int32_t kImpatientMs = 700; // for what must not

// The reply to a byte request: each byte inverted, so that a mere echo is not taken for it.
inline hostkit::Bytes Inverted(hostkit::Bytes bytes) {
    std::transform(bytes.begin(), bytes.end(), bytes.begin(),
                   [](uint8_t byte) { return static_cast<uint8_t>(~byte); });
    return bytes;
}

// Looks often, so that a demonstration loses little time. False: it did not come true in time.
template <typename Condition>
bool WaitUntil(Condition condition, int32_t limitMs = kPatientMs) {
    for (int32_t waited = 0; !condition(); waited += 5) {
        if (waited >= limitMs) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// Reports and counts findings; any thread may use it.
class Findings {
  public:
    template <typename... Args>
    void Check(bool passed, fmt::format_string<Args...> format, Args &&...args) {
        PrintLine("{} {}", passed ? "ok" : "FAIL",
                  fmt::format(format, std::forward<Args>(args)...));
        m_Failures += passed ? 0 : 1;
    }
    void CheckHeap(hostkit::Heap &heap) {
        const auto violations = heap.Violations();
        Check(violations.empty() && heap.LiveBlockCount() == 0,
              "the host's heap is as before: {} left, {}", Counted(heap.LiveBlockCount(), "block"),
              violations.empty() ? "no misuse" : ToText(violations.front()));
    }
    int Status() const { return m_Failures == 0 ? kDone : kFailed; }

  private:
    std::atomic<int> m_Failures{0};
};

} // namespace nrpc::tool
