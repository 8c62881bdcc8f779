#include "event_loop_run.h"

#include <signal.h>

#include <csignal>

#include "moorglass_host.h"

namespace qvtool {
namespace {

volatile std::sig_atomic_t g_interrupted = 0;

// Stopping the loop is safe in a signal handler: it only writes to the loop's wake-up counter.
void OnInterrupt(int) {
    g_interrupted = 1;
    qvhost_stop_event_loop();
}

}  // namespace

bool RunEventLoop(mg_event_handler handler) {
    struct sigaction action {};
    struct sigaction old_int {};
    struct sigaction old_term {};
    action.sa_handler = OnInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &old_int);
    sigaction(SIGTERM, &action, &old_term);
    qvhost_run_event_loop(handler);
    sigaction(SIGINT, &old_int, nullptr);
    sigaction(SIGTERM, &old_term, nullptr);
    return g_interrupted != 0;
}

}  // namespace qvtool
