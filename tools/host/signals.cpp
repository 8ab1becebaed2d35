#include "signals.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <iterator>
#include <system_error>

namespace nrpc::tool {

static int Checked(int descriptor, const char *what) {
    if (descriptor < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return descriptor;
}

EndSignals::EndSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    m_Descriptor = Checked(signalfd(-1, &signals, SFD_CLOEXEC), "signalfd");
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

EndSignals::~EndSignals() {
    close(m_Descriptor);
}

bool EndSignals::CameWithin(int ms) const {
    pollfd wait = {m_Descriptor, POLLIN, 0};
    return poll(&wait, 1, ms) > 0;
}

EndWatch::EndWatch(const EndSignals &signals, std::function<void()> action)
    : m_Over(Checked(eventfd(0, EFD_CLOEXEC), "eventfd")),
      m_Thread([this, &signals, action = std::move(action)] {
          pollfd waits[] = {{signals.Descriptor(), POLLIN, 0}, {m_Over, POLLIN, 0}};
          while (poll(waits, std::size(waits), -1) < 0) {
          }
          if (waits[0].revents != 0) {
              action();
          }
      }) {}

EndWatch::~EndWatch() {
    eventfd_write(m_Over, 1);
    m_Thread.join();
    close(m_Over);
}

} // namespace nrpc::tool
