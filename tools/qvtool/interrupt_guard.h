// Ctrl-C for long loops: while a guard lives SIGINT and SIGTERM only raise a flag, so that the
// loop stops between two items and reports what was done.
#pragma once

#include <signal.h>

#include <csignal>

namespace qvtool {

class InterruptGuard {
public:
    InterruptGuard() {
        flag() = 0;
        struct sigaction action {};
        action.sa_handler = [](int) { flag() = 1; };
        sigemptyset(&action.sa_mask);
        ::sigaction(SIGINT, &action, &previous_int_);
        ::sigaction(SIGTERM, &action, &previous_term_);
    }
    ~InterruptGuard() {
        ::sigaction(SIGINT, &previous_int_, nullptr);
        ::sigaction(SIGTERM, &previous_term_, nullptr);
    }
    InterruptGuard(const InterruptGuard&) = delete;
    InterruptGuard& operator=(const InterruptGuard&) = delete;

    static bool Interrupted() { return flag() != 0; }

private:
    static volatile std::sig_atomic_t& flag() {
        static volatile std::sig_atomic_t interrupted = 0;
        return interrupted;
    }

    struct sigaction previous_int_ {};
    struct sigaction previous_term_ {};
};

}  // namespace qvtool
