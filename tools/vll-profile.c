/* vll-profile: reads and edits profile (INI) files from the shell. It uses nothing but the public operations. */
#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "vwincompat.h"

enum { DONE = 0, NOT_FOUND = 1, USAGE = 2, TROUBLE = 3 };

/* A value has at most 1023 bytes, and a terminator. */
enum { VALUE_SIZE = 1024 };

static const char usage_text[] =
    "usage: vll-profile get FILE SECTION KEY [DEFAULT]\n"
    "       vll-profile set FILE SECTION KEY VALUE\n"
    "       vll-profile delete FILE SECTION [KEY]\n"
    "       vll-profile sections FILE\n"
    "       vll-profile keys FILE SECTION\n"
    "       vll-profile show FILE [SECTION]\n"
    "An empty SECTION means the lines before the first section header.\n"
    "Exit status: 0 done, 1 no such file, section or key, 2 wrong usage, 3 the file cannot be read or "
    "written.\n";

/* Prints the last error as a message about the file, or about something in it (what may be null): the exit status. */
static int fail(const char *file, const char *what) {
    const int error = errno;
    if (what != NULL && what[0] != '\0') {
        fprintf(stderr, "vll-profile: %s: %s: %s\n", file, what, strerror(error));
    } else {
        fprintf(stderr, "vll-profile: %s: %s\n", file, strerror(error));
    }
    if (error == ENOENT) {
        return NOT_FOUND;
    }
    return error == EINVAL ? USAGE : TROUBLE;
}

static int wrongUsage(void) {
    fputs(usage_text, stderr);
    return USAGE;
}

/* An empty argument stands for the section without a name, which is null for the library. */
static const char *sectionOf(const char *argument) {
    return argument[0] != '\0' ? argument : NULL;
}

/* Reads a list: the number of bytes, or (DWORD)-1. */
typedef DWORD (*Reader)(const char *section, char *buffer, DWORD size, const char *file);

static DWORD readSections(const char *section, char *buffer, DWORD size, const char *file) {
    (void)section;
    return vllReadAllSections(NULL, buffer, size, file);
}

/* The library gives 0 for an empty list and for a failure: only a failure sets the last error. */
static DWORD readEntries(const char *section, char *buffer, DWORD size, const char *file) {
    const DWORD count = vllGetPrivateProfileSection(section, buffer, size, file);
    return count == 0 && errno != 0 ? (DWORD)-1 : count;
}

/* The library gives ENOENT for a section without keys, too. Its list of entries shows whether it exists. */
static DWORD readKeys(const char *section, char *buffer, DWORD size, const char *file) {
    const DWORD count = vllReadAllValues(section, NULL, buffer, size, file);
    if (count == 0 && errno == ENOENT) {
        errno = 0;
        return readEntries(section, buffer, size, file);
    }
    return count;
}

/* Reads a list into a block that is large enough and that the caller frees: null with the last error. */
static char *readList(Reader reader, const char *section, const char *file) {
    DWORD size;
    for (size = 16384; size < 1U << 31; size *= 2) {
        char *buffer = malloc(size);
        DWORD count;
        if (buffer == NULL) {
            return NULL;
        }
        errno = 0;
        count = reader(section, buffer, size, file);
        if (count != (DWORD)-1 && errno == 0) {
            return buffer;
        }
        free(buffer);
        if (errno != ENOBUFS) {
            return NULL;
        }
    }
    errno = ENOMEM;
    return NULL;
}

static void printList(const char *list) {
    for (; *list != '\0'; list += strlen(list) + 1) {
        puts(list);
    }
}

static int get(const char *file, const char *section, const char *key, const char *fallback) {
    char value[VALUE_SIZE];
    DWORD size = sizeof value;
    if (vllReadConfigValue(file, sectionOf(section), key, value, &size)) {
        puts(value);
        return DONE;
    }
    if (errno == ENOENT && fallback != NULL) {
        puts(fallback);
        return DONE;
    }
    return fail(file, key);
}

/* True when a value is read back as it is written. Blanks at its ends, comments and quotes prevent it. */
static int isPlain(const char *value) {
    const char *c;
    if (value[0] == '"' || value[0] == '\'' || isspace((unsigned char)value[0])) {
        return 0;
    }
    for (c = value; *c != '\0'; ++c) {
        if (isspace((unsigned char)*c) && (c[1] == '\0' || c[1] == ';' || c[1] == '#')) {
            return 0;
        }
    }
    return 1;
}

/* Puts a value between quotes: null when it would still not be read back as it is. */
static const char *quoted(const char *value, char *buffer) {
    const char quote = strchr(value, '"') == NULL ? '"' : '\'';
    const size_t length = strlen(value);
    if (strchr(value, quote) != NULL || value[length - 1] == '\\' || length + 3 > VALUE_SIZE) {
        return NULL;
    }
    sprintf(buffer, "%c%s%c", quote, value, quote);
    return buffer;
}

static int set(const char *file, const char *section, const char *key, const char *value) {
    char buffer[VALUE_SIZE];
    const char *text = isPlain(value) ? value : quoted(value, buffer);
    if (text == NULL || strchr(value, '\n') != NULL) {
        errno = EINVAL; /* a newline would make further lines of the file */
        return fail(file, key);
    }
    return vllWritePrivateProfileString(sectionOf(section), key, text, file) ? DONE : fail(file, key);
}

static int delete (const char *file, const char *section, const char *key) {
    const BOOL done = key != NULL ? vllDeleteConfigValue(file, sectionOf(section), key)
                                  : vllDeleteConfigSection(file, sectionOf(section));
    return done ? DONE : fail(file, key != NULL ? key : section);
}

static int list(Reader reader, const char *section, const char *file) {
    char *names = readList(reader, section, file);
    if (names == NULL) {
        return fail(file, section);
    }
    printList(names);
    free(names);
    return DONE;
}

/* True when a section of this name was shown already. Of several, the library reads the first. */
static int isRepeated(const char *names, const char *name) {
    for (; names < name; names += strlen(names) + 1) {
        if (strcasecmp(names, name) == 0) {
            return 1;
        }
    }
    return 0;
}

static int showAll(const char *file) {
    const char *name;
    int status;
    char *names = readList(readSections, NULL, file);
    if (names == NULL) {
        return fail(file, NULL);
    }
    status = list(readEntries, NULL, file);
    for (name = names; status == DONE && *name != '\0'; name += strlen(name) + 1) {
        if (!isRepeated(names, name)) {
            printf("[%s]\n", name);
            status = list(readEntries, name, file);
        }
    }
    free(names);
    return status;
}

/* Runs the command: its exit status. The count includes the names of the program and of the command. */
static int run(int count, char **arguments) {
    const char *command = count > 2 ? arguments[1] : "";
    const char *file = count > 2 ? arguments[2] : "";
    const char *section = count > 3 ? arguments[3] : NULL;
    const char *key = count > 4 ? arguments[4] : NULL;
    const char *value = count > 5 ? arguments[5] : NULL;
    if (strcmp(command, "get") == 0 && (count == 5 || count == 6)) {
        return get(file, section, key, value);
    }
    if (strcmp(command, "set") == 0 && count == 6) {
        return set(file, section, key, value);
    }
    if (strcmp(command, "delete") == 0 && (count == 4 || count == 5)) {
        return delete (file, section, key);
    }
    if (strcmp(command, "sections") == 0 && count == 3) {
        return list(readSections, NULL, file);
    }
    if (strcmp(command, "keys") == 0 && count == 4) {
        return list(readKeys, sectionOf(section), file);
    }
    if (strcmp(command, "show") == 0 && count == 3) {
        return showAll(file);
    }
    if (strcmp(command, "show") == 0 && count == 4) {
        return list(readEntries, sectionOf(section), file);
    }
    return wrongUsage();
}

int main(int argc, char **argv) {
    int status;
    if (argc == 2 && strcmp(argv[1], "--help") == 0) {
        fputs(usage_text, stdout);
        return DONE;
    }
    vllvwincompatMain();
    status = run(argc, argv);
    if (fflush(stdout) != 0 || ferror(stdout)) {
        fprintf(stderr, "vll-profile: standard output: %s\n", strerror(errno));
        status = TROUBLE;
    }
    vllvwincompatExit();
    return status;
}
