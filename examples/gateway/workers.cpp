// Worker threads. Jobs wait in a list with a lock. An auto-reset event wakes one worker, which wakes the next one when
// more jobs wait. Finished jobs go back through a second list and event.

#include <pthread.h>
#include <cctype>
#include <cstdio>

#include "gateway.h"

namespace {

constexpr DWORD kStopTimeoutMs = 5000;

struct JobList {
    pthread_mutex_t lock;
    Job *first;
    Job **last;
};

JobList waiting = {PTHREAD_MUTEX_INITIALIZER, nullptr, &waiting.first};
JobList finished = {PTHREAD_MUTEX_INITIALIZER, nullptr, &finished.first};
HANDLE work_event = 0;      // auto-reset: there are jobs
HANDLE finished_event = 0;  // auto-reset: there are answers
HANDLE stop_event = 0;      // manual-reset: no more jobs will come
HANDLE threads[kMaxWorkers];
int thread_count = 0;

void append(JobList *list, Job *job) {
    pthread_mutex_lock(&list->lock);
    job->next = nullptr;
    *list->last = job;
    list->last = &job->next;
    pthread_mutex_unlock(&list->lock);
}

// Takes the first job, or null, and stores whether there are more.
Job *takeFirst(JobList *list, bool *more) {
    pthread_mutex_lock(&list->lock);
    Job *job = list->first;
    if (job != nullptr) {
        list->first = job->next;
        if (list->first == nullptr) {
            list->last = &list->first;
        }
    }
    *more = list->first != nullptr;
    pthread_mutex_unlock(&list->lock);
    return job;
}

// "line\n" becomes "count LINE\n".
void answerLines(Job *job) {
    int out = 0;
    bool at_start = true;
    for (int in = 0; in < job->length; ++in) {
        if (at_start) {
            out += snprintf(job->answer + out, kCountDigits + 2, "%u ", ++job->lines);
        }
        const char byte = job->text[in];
        at_start = byte == '\n';
        if (byte != '\r' || in + 1 == job->length || job->text[in + 1] != '\n') {
            job->answer[out++] = static_cast<char>(toupper(static_cast<unsigned char>(byte)));
        }
    }
    job->answer_length = out;
}

void workOff() {
    bool more = false;
    while (Job *job = takeFirst(&waiting, &more)) {
        if (more) {
            vllSetEvent(work_event);
        }
        answerLines(job);
        append(&finished, job);
        vllSetEvent(finished_event);
    }
}

uint32_t work(LPVOID) {
    const HANDLE objects[] = {work_event, stop_event};
    DWORD result;
    do {
        result = vllWaitForMultipleObjects(2, objects, INFINITE);
        workOff();
    } while (result == WAIT_OBJECT_0);
    return 0;
}

void collectAnswers(void *) {
    bool more = false;
    while (Job *job = takeFirst(&finished, &more)) {
        clientJobDone(job);
    }
}

}  // namespace

bool workersStart() {
    work_event = vllCreateEvent(FALSE, FALSE, nullptr);
    finished_event = vllCreateEvent(FALSE, FALSE, nullptr);
    stop_event = vllCreateEvent(TRUE, FALSE, nullptr);
    if (work_event == 0 || finished_event == 0 || stop_event == 0 ||
        !loopAdd(finished_event, Turn::urgent, collectAnswers, nullptr)) {
        return false;
    }
    while (thread_count < settings.workers) {
        const HANDLE thread = vllCreateThread(0, work, nullptr, nullptr, 0);
        if (thread == 0) {
            return false;
        }
        threads[thread_count++] = thread;
    }
    return true;
}

void workersSubmit(Job *job) {
    append(&waiting, job);
    vllSetEvent(work_event);
}

bool workersStop() {
    bool all_ended = true;
    vllSetEvent(stop_event);
    while (thread_count > 0) {
        const HANDLE thread = threads[--thread_count];
        all_ended = vllWaitForSingleObject(thread, kStopTimeoutMs) == WAIT_OBJECT_0 && all_ended;
        vllCloseHandle(thread);
    }
    collectAnswers(nullptr);
    loopRemove(finished_event);
    vllCloseHandle(work_event);
    vllCloseHandle(finished_event);
    vllCloseHandle(stop_event);
    return all_ended;
}
