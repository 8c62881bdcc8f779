#include "interrupt.h"

#include <signal.h>

#include <csignal>

namespace qvtool {
namespace {

volatile std::sig_atomic_t g_interrupted = 0;

void OnInterrupt(int) {
    g_interrupted = 1;
}

}  // namespace

void CatchInterruptSignals() {
    struct sigaction action {};
    action.sa_handler = OnInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool Interrupted() {
    return g_interrupted != 0;
}

}  // namespace qvtool
