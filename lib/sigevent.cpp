#include "sigevent.h"

#include <event2/event.h>

#include <memory>
#include <vector>

#include "thread.h"

namespace {
struct event_deleter {
    void operator()(event *ev) const { event_free(ev); }
};
std::vector<std::unique_ptr<event, event_deleter>> registered;

void on_signal(evutil_socket_t, short, void *arg) {
    auto *sig = static_cast<zsignal_t *>(arg);
    sig->caught = 0;
    if (sig->handler != nullptr) {
        sig->handler();
    }
}
}  // namespace

void signal_init(thread_master *m, int sigc, zsignal_t signals[]) {
    std::signal(SIGPIPE, SIG_IGN);
    event_base *base = thread_master_event_base(m);
    if (base == nullptr) {
        return;
    }
    for (int i = 0; i < sigc; ++i) {
        zsignal_t *sig = &signals[i];
        sig->caught = 0;
        std::unique_ptr<event, event_deleter> ev(
            event_new(base, sig->signal, EV_SIGNAL | EV_PERSIST, on_signal, sig));
        if (ev && event_add(ev.get(), nullptr) == 0) {
            registered.push_back(std::move(ev));
        }
    }
}
