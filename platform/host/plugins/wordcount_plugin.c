/* libqvwordcount.so: a plug-in of the device's "QVLibrary_" interface with every entry point.
 * It counts the words (or, run through "QVLibrary_RunLines", the lines) of the text files named
 * in its parameters. argv[0] is the caller's name, as in main(); the files follow.
 *
 * Status: 0 nothing yet, 1 parameters taken, 2 counted, -1 a file could not be read.
 * Result: the count of the last run. With notifications on, each file's count and each added
 * notification is printed to standard output as it happens. */
#include <ctype.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { kIdle = 0, kReady = 1, kDone = 2, kUnreadable = -1 };

static char** files;
static int file_count;
static int status = kIdle;
static int result;
static bool notify;
static int notifications;

static void forget_files(void) {
    for (int i = 0; i < file_count; ++i)
        free(files[i]);
    free(files);
    files = NULL;
    file_count = 0;
}

/* Runs when the library is unloaded, so that nothing it took outlives it. */
__attribute__((destructor)) static void unload(void) {
    forget_files();
}

void QVLibrary_SetParameters(int argc, const char* const* argv) {
    forget_files();
    if (argc > 1 && argv) {
        files = calloc((size_t)argc - 1, sizeof *files);
        for (int i = 1; files && i < argc; ++i)
            if (argv[i]) files[file_count++] = strdup(argv[i]);
    }
    status = kReady;
}

/* Words or lines of one file; -1 when it can't be read. */
static int count_file(const char* path, bool lines) {
    FILE* file = fopen(path, "r");
    if (!file) return -1;
    int count = 0;
    bool in_word = false;
    for (int c; (c = getc(file)) != EOF;) {
        if (lines) {
            count += c == '\n';
        } else {
            count += !in_word && !isspace(c);
            in_word = !isspace(c);
        }
    }
    const bool failed = ferror(file);
    fclose(file);
    return failed ? -1 : count;
}

static void run(bool lines) {
    int total = 0;
    for (int i = 0; i < file_count; ++i) {
        const int count = count_file(files[i], lines);
        if (count < 0) {
            status = kUnreadable;
            return;
        }
        if (notify) printf("%s: %d %s\n", files[i], count, lines ? "lines" : "words");
        total += count;
    }
    fflush(stdout);
    result = total;
    status = kDone;
}

void QVLibrary_Run(void) {
    run(false);
}
void QVLibrary_RunLines(void) {
    run(true);
}
int QVLibrary_GetStatus(void) {
    return status;
}
int QVLibrary_GetResult(void) {
    return result;
}
void QVLibrary_SetNotificationFlag(bool on) {
    notify = on;
}

void QVLibrary_AddNotification(void) {
    ++notifications;
    if (notify) {
        printf("notification %d\n", notifications);
        fflush(stdout);
    }
}
