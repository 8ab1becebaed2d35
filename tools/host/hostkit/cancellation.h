// hostkit/cancellation.h: keeping the library's request to end a thread away from the host's locks.
#pragma once

#include <pthread.h>

namespace nrpc::hostkit {

// While it lives, the calling thread is not ended. The library ends handlers that are overdue; one
// that just holds a lock of the kit must give it back first.
class HoldOffCancel {
  public:
    HoldOffCancel() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_Before); }
    ~HoldOffCancel() { pthread_setcancelstate(m_Before, nullptr); }
    HoldOffCancel(const HoldOffCancel &) = delete;
    HoldOffCancel &operator=(const HoldOffCancel &) = delete;

  private:
    int m_Before = PTHREAD_CANCEL_ENABLE;
};

} // namespace nrpc::hostkit
