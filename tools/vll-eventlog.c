/* vll-eventlog: shows the event log from the shell. It uses the public operations alone. */
#include <errno.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "vwincompat.h"

enum { DONE = 0, USAGE = 2, TROUBLE = 3 };

/* The pause between two looks of --follow, and the number of shown records by which it finds its place again. */
enum { FOLLOW_US = 500000, ANCHOR_RECORDS = 16 };

/* No record has more bytes. */
enum { RECORD_SIZE = 1024, BUFFER_SIZE = 65536 };

static const char usage_text[] =
    "usage: vll-eventlog [-r] [-n COUNT] [-f] [-j]\n"
    "       vll-eventlog --count | --clear\n"
    "  -r, --reverse     newest first\n"
    "  -n, --last COUNT  the last COUNT records only\n"
    "  -f, --follow      then show new records as they come, until interrupted\n"
    "  -j, --json        one JSON object a line\n"
    "      --count       print the number of lines of the log, those of other programs included\n"
    "      --clear       empty the log\n"
    "Exit status: 0 done, 2 wrong usage, 3 the log cannot be read or the output not be written.\n";

struct Options {
    int reverse, follow, json, count, clear;
    long last; /* -1: all */
};

/* The result of one read: records back to back, each with its Length first. */
struct Records {
    uint32_t words[BUFFER_SIZE / 4];
    DWORD size;
};

/* The records that were shown last, oldest first. */
struct Anchor {
    uint32_t words[ANCHOR_RECORDS][RECORD_SIZE / 4];
    int count;
};

static const EVENTLOGRECORD *recordAt(const uint32_t *words) {
    return (const EVENTLOGRECORD *)(const void *)words;
}

static int trouble(const char *what) {
    fprintf(stderr, "vll-eventlog: %s: %s\n", what, strerror(errno));
    return TROUBLE;
}

static const char *typeName(WORD type) {
    switch (type) {
        case EVENTLOG_ERROR_TYPE:
            return "error";
        case EVENTLOG_WARNING_TYPE:
            return "warning";
        case EVENTLOG_INFORMATION_TYPE:
            return "information";
        default:
            return "success";
    }
}

/* The length of the UTF-8 character at text, or 0 when there is none. */
static size_t characterLength(const unsigned char *text) {
    static const struct {
        unsigned char mask, lead;
        size_t length;
        uint32_t least;
    } forms[] = {{0x80, 0, 1, 0}, {0xE0, 0xC0, 2, 0x80}, {0xF0, 0xE0, 3, 0x800}, {0xF8, 0xF0, 4, 0x10000}};
    size_t form, i;
    for (form = 0; form < sizeof forms / sizeof forms[0]; ++form) {
        if ((text[0] & forms[form].mask) == forms[form].lead) {
            uint32_t value = text[0] & (unsigned char)~forms[form].mask;
            for (i = 1; i < forms[form].length; ++i) {
                if ((text[i] & 0xC0) != 0x80) {
                    return 0;
                }
                value = value << 6 | (text[i] & 0x3FU);
            }
            return value < forms[form].least || value > 0x10FFFF || value >> 11 == 0x1B ? 0
                                                                                        : forms[form].length;
        }
    }
    return 0;
}

static void printJsonText(const char *text) {
    const unsigned char *at = (const unsigned char *)text;
    putchar('"');
    while (*at != '\0') {
        const size_t length = characterLength(at);
        if (length == 0) {
            fputs("\\ufffd", stdout);
        } else if (*at < 0x20 || *at == 0x7F) {
            printf("\\u%04x", *at);
        } else {
            if (*at == '"' || *at == '\\') {
                putchar('\\');
            }
            fwrite(at, 1, length, stdout);
        }
        at += length != 0 ? length : 1;
    }
    putchar('"');
}

/* Control characters are replaced, since a terminal acts on them. */
static void printPlainText(const char *text) {
    for (; *text != '\0'; ++text) {
        const unsigned char c = (unsigned char)*text;
        putchar((c < 0x20 && c != '\t') || c == 0x7F ? '?' : c);
    }
}

static void printRecord(const EVENTLOGRECORD *record, int json) {
    const char *const source = (const char *)record + sizeof *record;
    const char *const computer = source + strlen(source) + 1;
    const char *const text = (const char *)record + record->StringOffset;
    SYSTEMTIME t;
    memset(&t, 0, sizeof t);
    vllFileTimeToSystemTime(&record->TimeGenerated, &t);
    if (json) {
        printf("{\"record\":%u,\"time\":\"%04u-%02u-%02uT%02u:%02u:%02u\",\"type\":\"%s\",\"source\":",
               record->RecordNumber, t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond,
               typeName(record->EventType));
        printJsonText(source);
        fputs(",\"computer\":", stdout);
        printJsonText(computer);
        fputs(",\"text\":", stdout);
        printJsonText(text);
        fputs("}\n", stdout);
        return;
    }
    printf("%6u  %04u-%02u-%02u %02u:%02u:%02u  %-11s  ", record->RecordNumber, t.wYear, t.wMonth, t.wDay,
           t.wHour, t.wMinute, t.wSecond, typeName(record->EventType));
    printPlainText(source);
    fputs("  ", stdout);
    printPlainText(text);
    putchar('\n');
}

/* Adds a record to those that were shown, in the order of the log. */
static void remember(struct Anchor *anchor, const EVENTLOGRECORD *record) {
    if (anchor->count == ANCHOR_RECORDS) {
        memmove(anchor->words[0], anchor->words[1], sizeof anchor->words - sizeof anchor->words[0]);
        --anchor->count;
    }
    memcpy(anchor->words[anchor->count++], record, record->Length);
}

/* True when two records are equal but for their numbers. */
static int sameRecord(const EVENTLOGRECORD *a, const EVENTLOGRECORD *b) {
    return a->Length == b->Length && a->TimeGenerated == b->TimeGenerated && a->EventType == b->EventType &&
           memcmp(a + 1, b + 1, a->Length - sizeof *a) == 0;
}

static int readSome(void *log, DWORD flags, DWORD number, struct Records *records) {
    DWORD needed;
    return vllReadEventLog(log, flags, number, records->words, sizeof records->words, &records->size,
                           &needed);
}

/* Shows the records of a read and of all sequential reads after it. */
static void showFrom(void *log, DWORD flags, DWORD number, const struct Options *options,
                     struct Anchor *anchor) {
    static struct Records records;
    while (readSome(log, flags, number, &records)) {
        DWORD at;
        for (at = 0; at < records.size; at += recordAt(records.words + at / 4)->Length) {
            const EVENTLOGRECORD *const record = recordAt(records.words + at / 4);
            printRecord(record, options->json);
            remember(anchor, record);
        }
        flags = EVENTLOG_SEQUENTIAL_READ | (flags & (EVENTLOG_FORWARDS_READ | EVENTLOG_BACKWARDS_READ));
    }
}

/* The number of the count-th record from the newest, or of the oldest when there are fewer; 0 when there is none. */
static DWORD numberFromEnd(void *log, DWORD total, long count) {
    static struct Records records;
    DWORD flags = EVENTLOG_SEEK_READ | EVENTLOG_BACKWARDS_READ;
    DWORD number = 0;
    while (count > 0 && readSome(log, flags, total, &records)) {
        DWORD at;
        for (at = 0; at < records.size && count > 0; --count) {
            number = recordAt(records.words + at / 4)->RecordNumber;
            at += recordAt(records.words + at / 4)->Length;
        }
        flags = EVENTLOG_SEQUENTIAL_READ | EVENTLOG_BACKWARDS_READ;
    }
    return number;
}

/* True when the records up to this number equal those of the anchor, as far as the log goes back. */
static int isPlace(void *log, const struct Anchor *anchor, DWORD number) {
    static struct Records records;
    int left = anchor->count;
    DWORD at = 0;
    if (!readSome(log, EVENTLOG_SEEK_READ | EVENTLOG_BACKWARDS_READ, number, &records)) {
        return 0;
    }
    while (at < records.size && left > 0) {
        const EVENTLOGRECORD *const record = recordAt(records.words + at / 4);
        if (!sameRecord(record, recordAt(anchor->words[--left]))) {
            return 0;
        }
        at += record->Length;
    }
    return 1;
}

/* The present number of the record that was shown last, which a rotation of the log changes. 0: the record is gone. */
static DWORD findPlace(void *log, const struct Anchor *anchor, DWORD total) {
    static struct Records records;
    const EVENTLOGRECORD *last;
    DWORD flags = EVENTLOG_SEEK_READ | EVENTLOG_BACKWARDS_READ;
    DWORD end = total;
    if (anchor->count == 0) {
        return 0;
    }
    last = recordAt(anchor->words[anchor->count - 1]);
    if (last->RecordNumber <= total && isPlace(log, anchor, last->RecordNumber)) {
        return last->RecordNumber;
    }
    while (end != 0 && readSome(log, flags, end, &records)) {
        DWORD at;
        for (at = 0; at < records.size; at += recordAt(records.words + at / 4)->Length) {
            const EVENTLOGRECORD *const record = recordAt(records.words + at / 4);
            if (sameRecord(record, last) && isPlace(log, anchor, record->RecordNumber)) {
                return record->RecordNumber;
            }
            end = record->RecordNumber - 1;
        }
    }
    return 0;
}

static int writeOut(void) {
    return fflush(stdout) == 0 && !ferror(stdout) ? DONE : trouble("output");
}

static int follow(void *log, const struct Options *options, struct Anchor *anchor) {
    for (;;) {
        DWORD total;
        int status = writeOut();
        if (status != DONE) {
            return status;
        }
        usleep(FOLLOW_US);
        if (!vllGetNumberOfEventLogRecords(log, &total)) {
            return trouble("log");
        }
        showFrom(log, EVENTLOG_SEEK_READ | EVENTLOG_FORWARDS_READ, findPlace(log, anchor, total) + 1, options,
                 anchor);
    }
}

/* Shows the records from the newest to one of them. */
static void showReverse(void *log, DWORD newest, DWORD oldest, const struct Options *options) {
    static struct Records records;
    DWORD flags = EVENTLOG_SEEK_READ | EVENTLOG_BACKWARDS_READ;
    while (oldest != 0 && readSome(log, flags, newest, &records)) {
        DWORD at;
        for (at = 0; at < records.size; at += recordAt(records.words + at / 4)->Length) {
            if (recordAt(records.words + at / 4)->RecordNumber >= oldest) {
                printRecord(recordAt(records.words + at / 4), options->json);
            }
        }
        flags = EVENTLOG_SEQUENTIAL_READ | EVENTLOG_BACKWARDS_READ;
    }
}

static int show(void *log, const struct Options *options) {
    static struct Anchor anchor;
    DWORD total;
    DWORD first = 1;
    if (!vllGetNumberOfEventLogRecords(log, &total)) {
        return trouble("log");
    }
    if (options->last >= 0) {
        first = numberFromEnd(log, total, options->last);
    }
    if (options->reverse) {
        showReverse(log, total, first, options);
    } else if (first != 0) {
        showFrom(log, EVENTLOG_SEEK_READ | EVENTLOG_FORWARDS_READ, first, options, &anchor);
    }
    if (!options->follow) {
        return writeOut();
    }
    if (anchor.count == 0) {
        /* The records that are there already are not new, also when none of them was to be shown. */
        static struct Records newest;
        if (readSome(log, EVENTLOG_SEEK_READ | EVENTLOG_BACKWARDS_READ, total, &newest)) {
            remember(&anchor, recordAt(newest.words));
        }
    }
    return follow(log, options, &anchor);
}

static int count(void) {
    DWORD total;
    if (!vllGetNumberOfEventLogRecords(NULL, &total)) {
        return trouble("log");
    }
    printf("%u\n", total);
    return writeOut();
}

static int clear(void) {
    DWORD total;
    vllClearEventLog(NULL, NULL);
    if (!vllGetNumberOfEventLogRecords(NULL, &total)) {
        return trouble("log");
    }
    if (total != 0) {
        fprintf(stderr, "vll-eventlog: log: %u lines are left\n", total);
        return TROUBLE;
    }
    return DONE;
}

/* The options of the command line: DONE or USAGE. */
static int parse(int argc, char **argv, struct Options *options) {
    static const struct option names[] = {
        {"reverse", no_argument, NULL, 'r'}, {"last", required_argument, NULL, 'n'},
        {"follow", no_argument, NULL, 'f'},  {"json", no_argument, NULL, 'j'},
        {"count", no_argument, NULL, 'c'},   {"clear", no_argument, NULL, 'C'},
        {"help", no_argument, NULL, 'h'},    {NULL, 0, NULL, 0},
    };
    int option;
    options->last = -1;
    while ((option = getopt_long(argc, argv, "rn:fjh", names, NULL)) != -1) {
        char *end;
        switch (option) {
            case 'r':
                options->reverse = 1;
                break;
            case 'f':
                options->follow = 1;
                break;
            case 'j':
                options->json = 1;
                break;
            case 'c':
                options->count = 1;
                break;
            case 'C':
                options->clear = 1;
                break;
            case 'n':
                errno = 0;
                options->last = strtol(optarg, &end, 10);
                if (end == optarg || *end != '\0' || errno != 0 || options->last < 0) {
                    return USAGE;
                }
                break;
            case 'h':
                fputs(usage_text, stdout);
                exit(writeOut());
            default:
                return USAGE;
        }
    }
    if (optind != argc || (options->reverse && options->follow) || (options->count && options->clear)) {
        return USAGE;
    }
    return DONE;
}

int main(int argc, char **argv) {
    static struct Options options;
    void *log;
    int status;
    if (parse(argc, argv, &options) != DONE) {
        fputs(usage_text, stderr);
        return USAGE;
    }
    if (options.count) {
        return count();
    }
    if (options.clear) {
        return clear();
    }
    log = vllOpenEventLog(NULL, NULL);
    if (log == NULL) {
        return trouble("log");
    }
    status = show(log, &options);
    vllCloseEventLog(log);
    return status;
}
