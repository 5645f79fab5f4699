// One wait for all objects. A wait that finds several objects signalled reports the first in its array. So the urgent
// sources come first, and the others start with a different one after each turn.

#include "gateway.h"

namespace {

struct Source {
    HANDLE object;
    Turn turn;
    void (*ready)(void *);
    void *context;
};

Source sources[MAXIMUM_WAIT_OBJECTS];
int source_count = 0;
int first_fair = 0;  // the source whose turn is next
bool ended = false;

int findSource(HANDLE object) {
    for (int i = 0; i < source_count; ++i) {
        if (sources[i].object == object) {
            return i;
        }
    }
    return -1;
}

// Stores the order of this turn, as indexes of sources.
void arrange(int *order) {
    int n = 0;
    for (int i = 0; i < source_count; ++i) {
        if (sources[i].turn == Turn::urgent) {
            order[n++] = i;
        }
    }
    for (int k = 0; k < source_count; ++k) {
        const int i = (first_fair + k) % source_count;
        if (sources[i].turn == Turn::fair) {
            order[n++] = i;
        }
    }
}

}  // namespace

bool loopAdd(HANDLE object, Turn turn, void (*ready)(void *), void *context) {
    if (source_count == MAXIMUM_WAIT_OBJECTS) {
        return false;
    }
    sources[source_count++] = {object, turn, ready, context};
    return true;
}

void loopRemove(HANDLE object) {
    const int found = findSource(object);
    if (found == -1) {
        return;
    }
    for (int i = found + 1; i < source_count; ++i) {
        sources[i - 1] = sources[i];
    }
    --source_count;
    if (found < first_fair) {
        --first_fair;
    }
}

bool loopRun() {
    while (!ended) {
        int order[MAXIMUM_WAIT_OBJECTS] = {};
        HANDLE objects[MAXIMUM_WAIT_OBJECTS];
        arrange(order);
        for (int i = 0; i < source_count; ++i) {
            objects[i] = sources[order[i]].object;
        }
        const DWORD result = vllWaitForMultipleObjects(source_count, objects, INFINITE);
        if (result >= WAIT_OBJECT_0 + static_cast<DWORD>(source_count)) {
            return false;
        }
        const Source source = sources[order[result]];
        if (source.turn == Turn::fair) {
            first_fair = order[result] + 1;
        }
        source.ready(source.context);
    }
    return true;
}

void loopEnd() {
    ended = true;
}
