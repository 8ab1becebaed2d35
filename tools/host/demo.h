// demo.h: what the processes of the demonstration agree on.
//
// Server and client each run as a subcommand of their own and write their findings to standard
// output, a pipe to the process that started them: lines "port N" (the server listens there),
// "ok ..." and "FAIL ...". The server stops when its standard input ends.
#pragma once

#include <algorithm>
#include <atomic>

#include "program.h"

namespace nrpc::tool {

// Texts in UTF-8; they travel as GBK.
inline const std::string kGreeting = "你好，远程服务";
inline const std::string kGreetingReply = "收到：你好，远程服务";
inline const std::string kSlowRequest = "answer this one too late";
inline const std::string kLateReply = "the late reply";
inline const std::string kNextRequest = "answer this one in time";
inline const std::string kNextReply = "the reply in time";

inline constexpr size_t kByteCounts[] = {20000, 1024 * 1024};
inline constexpr size_t kRequestCount = 3 + std::size(kByteCounts);
inline constexpr int32_t kPatientMs = 10000; // for what ought to happen
inline constexpr int32_t kImpatientMs = 700; // for what must not

// The reply to a byte request: each byte inverted, so that a mere echo is not taken for it.
inline hostkit::Bytes Inverted(hostkit::Bytes bytes) {
    std::transform(bytes.begin(), bytes.end(), bytes.begin(),
                   [](uint8_t byte) { return static_cast<uint8_t>(~byte); });
    return bytes;
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
