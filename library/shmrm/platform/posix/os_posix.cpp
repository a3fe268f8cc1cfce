// What every POSIX system gives the same way: the calling thread's last error, the process-local
// lock, pauses and the process id.
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "os.h"

namespace vex::os {

namespace {
thread_local unsigned t_last_error = 0;
}

unsigned last_error() {
    return t_last_error;
}
void set_last_error(unsigned error) {
    t_last_error = error;
}

void LocalLock::init() {
    static_assert(sizeof(storage_) >= sizeof(pthread_mutex_t));
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(new (storage_) pthread_mutex_t, &attr);
    pthread_mutexattr_destroy(&attr);
}

void LocalLock::destroy() {
    pthread_mutex_destroy(std::launder(reinterpret_cast<pthread_mutex_t*>(storage_)));
}
void LocalLock::enter() {
    pthread_mutex_lock(std::launder(reinterpret_cast<pthread_mutex_t*>(storage_)));
}
void LocalLock::leave() {
    pthread_mutex_unlock(std::launder(reinterpret_cast<pthread_mutex_t*>(storage_)));
}

void sleep_ms(unsigned ms) {
    timespec ts{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

unsigned long process_id() {
    return static_cast<unsigned long>(getpid());
}

}  // namespace vex::os
