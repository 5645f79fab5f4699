// Worker threads. Jobs wait in a list behind a lock; an auto-reset event wakes one worker for it, who wakes the
// next one when there is more. Finished jobs go back through a second list and event.

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

void Append(JobList *list, Job *job) {
    pthread_mutex_lock(&list->lock);
    job->next = nullptr;
    *list->last = job;
    list->last = &job->next;
    pthread_mutex_unlock(&list->lock);
}

// The first job, or null; tells whether there are more.
Job *TakeFirst(JobList *list, bool *more) {
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
void AnswerLines(Job *job) {
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

void WorkOff() {
    bool more = false;
    while (Job *job = TakeFirst(&waiting, &more)) {
        if (more) {
            vllSetEvent(work_event);
        }
        AnswerLines(job);
        Append(&finished, job);
        vllSetEvent(finished_event);
    }
}

uint32_t Work(LPVOID) {
    const HANDLE objects[] = {work_event, stop_event};
    DWORD result;
    do {
        result = vllWaitForMultipleObjects(2, objects, INFINITE);
        WorkOff();
    } while (result == WAIT_OBJECT_0);
    return 0;
}

void CollectAnswers(void *) {
    bool more = false;
    while (Job *job = TakeFirst(&finished, &more)) {
        ClientJobDone(job);
    }
}

}  // namespace

bool WorkersStart() {
    work_event = vllCreateEvent(FALSE, FALSE, nullptr);
    finished_event = vllCreateEvent(FALSE, FALSE, nullptr);
    stop_event = vllCreateEvent(TRUE, FALSE, nullptr);
    if (work_event == 0 || finished_event == 0 || stop_event == 0 ||
        !LoopAdd(finished_event, Turn::urgent, CollectAnswers, nullptr)) {
        return false;
    }
    while (thread_count < settings.workers) {
        const HANDLE thread = vllCreateThread(0, Work, nullptr, nullptr, 0);
        if (thread == 0) {
            return false;
        }
        threads[thread_count++] = thread;
    }
    return true;
}

void WorkersSubmit(Job *job) {
    Append(&waiting, job);
    vllSetEvent(work_event);
}

bool WorkersStop() {
    bool all_ended = true;
    vllSetEvent(stop_event);
    while (thread_count > 0) {
        const HANDLE thread = threads[--thread_count];
        all_ended = vllWaitForSingleObject(thread, kStopTimeoutMs) == WAIT_OBJECT_0 && all_ended;
        vllCloseHandle(thread);
    }
    CollectAnswers(nullptr);
    LoopRemove(finished_event);
    vllCloseHandle(work_event);
    vllCloseHandle(finished_event);
    vllCloseHandle(stop_event);
    return all_ended;
}
