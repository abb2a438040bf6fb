/* c_check.h: the little harness the C11 programs under tests/c_api share: CHECK counts
 * failed conditions, and a sink counts the ERROR lines the library writes. */
#ifndef ARDVEX_TESTS_C_CHECK_H
#define ARDVEX_TESTS_C_CHECK_H

#include <stdio.h>

static int failures = 0;
#define CHECK(cond)                                                                  \
    do {                                                                             \
        if (!(cond)) {                                                               \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            ++failures;                                                              \
        }                                                                            \
    } while (0)

static int errors_seen = 0;
static inline void count_sink(int priority, const char* format, ...) {
    (void)format;
    if (priority == 3) ++errors_seen;
}

#endif /* ARDVEX_TESTS_C_CHECK_H */
