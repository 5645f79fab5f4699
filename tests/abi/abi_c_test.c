/* A C99 program over the real library: a bit of everything, and the layouts that C programs see. */
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "vwincompat.h"

static int failures = 0;

#define CHECK(condition)                                                    \
    do {                                                                    \
        if (!(condition)) {                                                 \
            fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition); \
            ++failures;                                                     \
        }                                                                   \
    } while (0)

static void checkObjects(void) {
    HANDLE event = vllCreateEvent(TRUE, FALSE, NULL);
    HANDLE timer = vllCreateWaitableTimer(NULL);
    HANDLE both[2] = {event, timer};
    HANDLE copy = vllDuplicateHandle(event);
    CHECK(vllWaitForMultipleObjects(2, both, 0) == WAIT_TIMEOUT);
    CHECK(vllSetWaitableTimer(timer, -10000));
    CHECK(vllWaitForMultipleObjects(2, both, 10000) == WAIT_OBJECT_0 + 1);
    CHECK(vllSetEvent(copy));
    CHECK(vllWaitForSingleObject(event, INFINITE) == WAIT_OBJECT_0);
    CHECK(vllCloseHandle(event) && vllCloseHandle(copy) && vllCloseHandle(timer));
    CHECK(!vllCloseHandle(event));
    CHECK(vllGetLastError() == 22); /* EINVAL */
}

static uint32_t doubleIt(LPVOID parameter) {
    *(int *)parameter *= 2;
    vllSetLastError(3);
    vllExitThread(1);
}

/* The library unwinds through its own copy of the C++ runtime. */
static void checkThreads(void) {
    int number = 21;
    HANDLE thread = vllCreateThread(0, doubleIt, &number, NULL, 0);
    vllSetLastError(5);
    CHECK(vllWaitForSingleObject(thread, 10000) == WAIT_OBJECT_0);
    CHECK(number == 42 && vllGetLastError() == 5);
    CHECK(vllCloseHandle(thread));
    thread = vllCreateThread(0, doubleIt, &number, NULL, CREATE_SUSPENDED);
    CHECK(vllTerminateThread(thread, 9));
    CHECK(vllWaitForSingleObject(thread, 10000) == WAIT_OBJECT_0);
    CHECK(number == 42);
    CHECK(vllCloseHandle(thread));
}

static void checkSockets(void) {
    int pair[2];
    char bytes[8] = "abc";
    DWORD count = 0;
    WSABUF buffer = {bytes, 3};
    WSASockData record = {0};
    WSANETWORKEVENTS events;
    HANDLE event = vllCreateEvent(FALSE, FALSE, NULL);
    CHECK(socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0);
    CHECK(vllWSAEventSelect(pair[0], event, FD_READ, &record) == 0);
    CHECK(vllWSASend(pair[1], &buffer, 1, &count) == 0 && count == 3);
    CHECK(vllWaitForSingleObject(event, 10000) == WAIT_OBJECT_0);
    CHECK(vllWSAEnumNetworkEvents(&record, event, &events) == 0 && events.lNetworkEvents == FD_READ);
    CHECK(vllCloseHandle(event) && vllCloseHandle((HANDLE)pair[0]) && vllCloseHandle((HANDLE)pair[1]));
}

int main(void) {
    char *message = NULL;
    CHECK(sizeof(HANDLE) == 4 && sizeof(DWORD) == 4 && sizeof(BOOL) == 4 && sizeof(FILETIME) == 4);
    CHECK(INVALID_HANDLE_VALUE == (HANDLE)-1);
    CHECK(offsetof(WSASockData, iErrorCode) == 20 && sizeof(WSANETWORKEVENTS) == 24);
    CHECK(vllCreateEvent(TRUE, FALSE, NULL) == 0); /* not started yet */
    vllvwincompatMain();
    checkObjects();
    checkThreads();
    checkSockets();
    CHECK(vllFormatErrorMessage(&message, "p", 2, "%d", 7) == (int32_t)strlen(message));
    free(message);
    CHECK(pthread_mutex_lock(&objMemMutex) == 0 && pthread_mutex_unlock(&objMemMutex) == 0);
    vllvwincompatExit();
    return failures == 0 ? 0 : 1;
}
