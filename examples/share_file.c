/*
 * One process hands an open file to another.
 *
 *   share_file publish FILE   opens FILE and publishes it as "file" until Enter is pressed
 *   share_file fetch          fetches it and copies what is left of it to standard output
 *
 * Both then have the same open file, with one file offset: a second "fetch" finds nothing left to read.
 */
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>
#include <vwincompat.h>

static int fail(const char *what) {
    fprintf(stderr, "share_file: %s: %s\n", what, strerror((int)vllGetLastError()));
    return 1;
}

static int publish(const char *path) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd == -1 || !vllSetSharedFileDescriptor(fd, "file")) {
        return fail(path);
    }
    printf("Run \"share_file fetch\" elsewhere, then press Enter.\n");
    fflush(stdout);
    while (getchar() != '\n' && !feof(stdin)) {
    }
    vllDeallocateSharedFdList();
    close(fd);
    return 0;
}

static int fetch(void) {
    char buffer[4096];
    ssize_t length;
    const int fd = vllGetSharedFileDescriptor("file");
    if (fd == -1) {
        return fail("fetch");
    }
    while ((length = read(fd, buffer, sizeof buffer)) > 0) {
        fwrite(buffer, 1, (size_t)length, stdout);
    }
    close(fd);
    return length == 0 ? 0 : fail("read");
}

int main(int argc, char **argv) {
    int status = 2;
    vllvwincompatMain();
    if (argc == 3 && strcmp(argv[1], "publish") == 0) {
        status = publish(argv[2]);
    } else if (argc == 2 && strcmp(argv[1], "fetch") == 0) {
        status = fetch();
    } else {
        fprintf(stderr, "usage: share_file publish FILE | fetch\n");
    }
    vllvwincompatExit();
    return status;
}
