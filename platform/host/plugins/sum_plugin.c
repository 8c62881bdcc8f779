/* libqvsum.so: a plug-in of the device's "QVLibrary_" interface without the optional
 * notification functions. It adds up the whole numbers in its parameters (argv[0], the caller's
 * name, aside).
 *
 * Status: 0 nothing yet, 1 parameters taken, 2 added up, -2 a parameter is not a whole number.
 * Result: the sum of the last run. */
#include <errno.h>
#include <stdlib.h>

enum { kIdle = 0, kReady = 1, kDone = 2, kNotANumber = -2 };

static long long pending;
static int status = kIdle;
static int result;

void QVLibrary_SetParameters(int argc, const char* const* argv) {
    pending = 0;
    status = kReady;
    for (int i = 1; argv && i < argc; ++i) {
        char* end = NULL;
        errno = 0;
        const long long value = argv[i] ? strtoll(argv[i], &end, 10) : 0;
        if (!argv[i] || end == argv[i] || *end != '\0' || errno == ERANGE) {
            status = kNotANumber;
            return;
        }
        pending += value;
    }
}

void QVLibrary_Run(void) {
    if (status != kReady) return;
    result = (int)pending;
    status = kDone;
}

int QVLibrary_GetStatus(void) {
    return status;
}
int QVLibrary_GetResult(void) {
    return result;
}
