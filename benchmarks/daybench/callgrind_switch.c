/* Tells callgrind when to count. Outside valgrind these do nothing. */
#include <valgrind/callgrind.h>

void start_counting(void) {
    CALLGRIND_START_INSTRUMENTATION;
    CALLGRIND_ZERO_STATS;
}

void stop_counting(const char* name) {
    CALLGRIND_DUMP_STATS_AT(name);
    CALLGRIND_STOP_INSTRUMENTATION;
}
