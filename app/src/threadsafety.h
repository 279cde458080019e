#pragma once

#include <pthread.h>

// Clang's thread-safety analysis (-Wthread-safety) checks what these say: which lock guards a
// member, which functions need it held. Other compilers ignore them.
#if defined(__clang__)
#define USBD_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define USBD_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) USBD_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY USBD_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) USBD_THREAD_ANNOTATION(guarded_by(x))
#define REQUIRES(...) USBD_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) USBD_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) USBD_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) USBD_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

namespace usbd {

// A POSIX mutex with default attributes, as the analysis can follow it.
class CAPABILITY("mutex") PosixMutex {
public:
    PosixMutex() { pthread_mutex_init(&mutex_, nullptr); }
    ~PosixMutex() { pthread_mutex_destroy(&mutex_); }
    PosixMutex(const PosixMutex &) = delete;
    PosixMutex &operator=(const PosixMutex &) = delete;

    void lock() ACQUIRE() { pthread_mutex_lock(&mutex_); }
    void unlock() RELEASE() { pthread_mutex_unlock(&mutex_); }
    pthread_mutex_t *native() { return &mutex_; }

private:
    pthread_mutex_t mutex_;
};

// Holds a PosixMutex for its scope; unlock() and lock() let go of it in between.
class SCOPED_CAPABILITY PosixMutexLock {
public:
    explicit PosixMutexLock(PosixMutex &mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~PosixMutexLock() RELEASE()
    {
        if (locked_)
            mutex_.unlock();
    }
    PosixMutexLock(const PosixMutexLock &) = delete;
    PosixMutexLock &operator=(const PosixMutexLock &) = delete;

    void unlock() RELEASE()
    {
        mutex_.unlock();
        locked_ = false;
    }
    void lock() ACQUIRE()
    {
        mutex_.lock();
        locked_ = true;
    }

private:
    PosixMutex &mutex_;
    bool locked_ = true;
};

// A POSIX condition variable with default attributes.
class PosixCondition {
public:
    PosixCondition() { pthread_cond_init(&condition_, nullptr); }
    ~PosixCondition() { pthread_cond_destroy(&condition_); }
    PosixCondition(const PosixCondition &) = delete;
    PosixCondition &operator=(const PosixCondition &) = delete;

    void wait(PosixMutex &mutex) REQUIRES(mutex) { pthread_cond_wait(&condition_, mutex.native()); }
    void signal() { pthread_cond_signal(&condition_); }

private:
    pthread_cond_t condition_;
};

} // namespace usbd
