/*
 * Linked into the test programs by mutate.py, beside objects compiled with -fsanitize-coverage=trace-pc: marks each
 * place of the library that runs in a file that all processes of a test share, so that also those count that end
 * without a word. It calls the kernel itself, for the tests replace functions of the C library.
 */
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#define MAP_BYTES (8 << 20)

extern char __ehdr_start __attribute__((visibility("hidden")));
static unsigned char *volatile marks;

static __attribute__((constructor(101))) void openMarks(void) {
    const char *path = getenv(MARKS_VARIABLE);
    const long fd = path != NULL ? syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC, 0) : -1;
    if (fd != -1) {
        const long address = syscall(SYS_mmap, NULL, MAP_BYTES, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        syscall(SYS_close, fd);
        marks = address > 0 || address < -4095 ? (unsigned char *)address : NULL;
    }
}

void __sanitizer_cov_trace_pc(void);
__attribute__((visibility("hidden"))) void __sanitizer_cov_trace_pc(void) {
    const uintptr_t offset = (uintptr_t)__builtin_return_address(0) - (uintptr_t)&__ehdr_start;
    if (marks != NULL && offset < MAP_BYTES) {
        marks[offset] = 1;
    }
}
