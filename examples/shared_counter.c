/*
 * Two processes share a block of counters.
 *
 *   shared_counter create   makes the block and shows it until Enter is pressed, then removes it
 *   shared_counter add      adds 1,000 steps to it, one at a time
 *
 * A read or write moves the whole block under a lock, so nobody ever sees a half-written one: the two counters
 * in it always agree. Reading, adding and writing back are three steps, though, which no lock joins: run one
 * "add" at a time.
 */
#include <stdio.h>
#include <string.h>
#include <vwincompat.h>

enum { STEPS = 1000 };

typedef struct {
    uint32_t up;   /* steps made */
    uint32_t down; /* the same, counted down from 0 */
} Counters;

static const char *const kName = "/vwincompat-example-counter";

static int fail(const char *what) {
    fprintf(stderr, "shared_counter: %s: %s\n", what, strerror((int)vllGetLastError()));
    return 1;
}

static int create(void) {
    Counters counters;
    SharedVar *variable = vllSharedVarInit(kName, sizeof counters, SHVAR_CREATE);
    if (variable == NULL) {
        return fail("create");
    }
    printf("Run \"shared_counter add\" elsewhere, then press Enter.\n");
    fflush(stdout);
    while (getchar() != '\n' && !feof(stdin)) {
    }
    if (vllSharedVarManipulate(&counters, variable, SHVAR_READ) != 1) {
        return fail("read");
    }
    printf("%u steps, %s\n", (unsigned)counters.up,
           counters.up + counters.down == 0 ? "in agreement" : "torn");
    return vllSharedVarDeallocate(variable, SHVAR_CREATE) ? 0 : fail("remove");
}

static int add(void) {
    Counters counters;
    SharedVar *variable = vllSharedVarInit(kName, sizeof counters, SHVAR_OPEN);
    if (variable == NULL) {
        return fail("open");
    }
    for (int i = 0; i < STEPS; ++i) {
        if (vllSharedVarManipulate(&counters, variable, SHVAR_READ) != 1) {
            return fail("read");
        }
        ++counters.up;
        --counters.down;
        if (vllSharedVarManipulate(&counters, variable, SHVAR_WRITE) != 1) {
            return fail("write");
        }
    }
    printf("now at %u\n", (unsigned)counters.up);
    return vllSharedVarDeallocate(variable, SHVAR_OPEN) ? 0 : fail("close");
}

int main(int argc, char **argv) {
    int status = 2;
    vllvwincompatMain();
    if (argc == 2 && strcmp(argv[1], "create") == 0) {
        status = create();
    } else if (argc == 2 && strcmp(argv[1], "add") == 0) {
        status = add();
    } else {
        fprintf(stderr, "usage: shared_counter create | add\n");
    }
    vllvwincompatExit();
    return status;
}
