// A scope that holds a POSIX mutex, for the units whose locks are pthread mutexes (they pair them
// with pthread condition variables and timed waits on the wall clock). Unlock and Lock let a
// scope step out, for a callback that must run with no lock held.
#pragma once

#include <pthread.h>

namespace quorvel {
namespace utilities {

class PthreadLock {
public:
    explicit PthreadLock(pthread_mutex_t& mutex) : mutex_(mutex) { Lock(); }
    ~PthreadLock() {
        if (locked_) pthread_mutex_unlock(&mutex_);
    }
    PthreadLock(const PthreadLock&) = delete;
    PthreadLock& operator=(const PthreadLock&) = delete;

    void Lock() {
        pthread_mutex_lock(&mutex_);
        locked_ = true;
    }
    void Unlock() {
        pthread_mutex_unlock(&mutex_);
        locked_ = false;
    }

private:
    pthread_mutex_t& mutex_;
    bool locked_ = false;
};

}  // namespace utilities
}  // namespace quorvel
