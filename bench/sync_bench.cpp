// Mutexes and semaphores, and named objects, beside the calls of the C library that they are made of.

#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <unistd.h>

#include "pair.h"
#include "vwincompat.h"

namespace {

void mutexOurs(benchmark::State &state) {
    const HANDLE mutex = vllCreateMutex(0, nullptr);
    for (auto _ : state) {
        vllWaitForSingleObject(mutex, INFINITE);
        vllReleaseMutex(mutex);
    }
    vllCloseHandle(mutex);
}

void initRobust(pthread_mutex_t *mutex) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

void mutexRaw(benchmark::State &state) {
    pthread_mutex_t mutex;
    initRobust(&mutex);
    for (auto _ : state) {
        pthread_mutex_lock(&mutex);
        pthread_mutex_unlock(&mutex);
    }
    pthread_mutex_destroy(&mutex);
}

void semaphoreOurs(benchmark::State &state) {
    const HANDLE semaphore = vllCreateSemaphore(1, nullptr);
    for (auto _ : state) {
        vllWaitForSingleObject(semaphore, INFINITE);
        vllReleaseSemaphore(semaphore);
    }
    vllCloseHandle(semaphore);
}

void semaphoreRaw(benchmark::State &state) {
    sem_t semaphore;
    sem_init(&semaphore, 1, 1);
    for (auto _ : state) {
        sem_wait(&semaphore);
        sem_post(&semaphore);
    }
    sem_destroy(&semaphore);
}

constexpr const char *kName = "vll_sync_bench";

void namedMutexOurs(benchmark::State &state) {
    for (auto _ : state) {
        vllCloseHandle(vllCreateMutex(0, kName));
    }
    shm_unlink(kName);
}

void lockRaw(int fd, int command, short type) {
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    fcntl(fd, command, &lock);
}

void namedMutexRaw(benchmark::State &state) {
    for (auto _ : state) {
        const int fd = shm_open(kName, O_RDWR | O_CREAT, 0666);
        lockRaw(fd, F_SETLK, F_WRLCK);
        benchmark::DoNotOptimize(ftruncate(fd, 0));
        benchmark::DoNotOptimize(ftruncate(fd, sizeof(pthread_mutex_t)));
        void *address = mmap(nullptr, sizeof(pthread_mutex_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        initRobust(static_cast<pthread_mutex_t *>(address));
        lockRaw(fd, F_SETLKW, F_RDLCK);
        munmap(address, sizeof(pthread_mutex_t));
        lockRaw(fd, F_SETLK, F_WRLCK);
        benchmark::DoNotOptimize(ftruncate(fd, 0));
        lockRaw(fd, F_SETLKW, F_UNLCK);
        close(fd);
    }
    shm_unlink(kName);
}

// The least that one change of an interlocked counter needs: opening the mutex that others keep in use.
void interlockedOurs(benchmark::State &state) {
    const HANDLE used = vllCreateMutex(0, "InterlockingMutex");
    volatile LONG counter = 0;
    for (auto _ : state) {
        vllInterlockedIncrement(&counter);
    }
    vllCloseHandle(used);
}

void interlockedRaw(benchmark::State &state) {
    pthread_mutex_t mutex;
    initRobust(&mutex);
    const int kept = shm_open(kName, O_RDWR | O_CREAT, 0666);
    benchmark::DoNotOptimize(ftruncate(kept, sizeof mutex));
    volatile LONG counter = 0;
    for (auto _ : state) {
        const int fd = shm_open(kName, O_RDWR | O_CREAT, 0666);
        lockRaw(fd, F_OFD_SETLK, F_RDLCK);
        void *address = mmap(nullptr, sizeof mutex, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        pthread_mutex_lock(&mutex);
        counter = counter + 1;
        pthread_mutex_unlock(&mutex);
        munmap(address, sizeof mutex);
        close(fd);
    }
    close(kept);
    shm_unlink(kName);
}

}  // namespace

void bench::registerPairs() {
    addPair({"acquire and release an unnamed mutex", 3, mutexOurs, mutexRaw, Clock::cpu});
    addPair({"take and release an unnamed semaphore", 3, semaphoreOurs, semaphoreRaw, Clock::cpu});
    addPair({"create and close a named mutex", 1.5, namedMutexOurs, namedMutexRaw, Clock::cpu});
    addPair({"interlocked increment", 3, interlockedOurs, interlockedRaw, Clock::cpu});
}
