/* Host logging: qz_print_log2 formats one line and writes it to standard error and/or to the
 * sink installed by a test. Each line leaves in a single write(2), so lines logged by several
 * threads at once never interleave. */
#define _POSIX_C_SOURCE 200809L

#include "qz_log.h"
#include "host_platform.h"

#include <errno.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* Loggers hold the read side while they use the sink; host_set_log_sink takes the write side,
 * so once it returns the previous sink is no longer running on any thread (a test may free the
 * sink's state right after removing it). A sink may itself log, but must not install a sink. */
static pthread_rwlock_t sink_lock = PTHREAD_RWLOCK_INITIALIZER;
static host_log_sink sink_fn;
static void *sink_user;
static int sink_echo = 1;

void host_set_log_sink(host_log_sink sink, void *user, int echo) {
    pthread_rwlock_wrlock(&sink_lock);
    sink_fn = sink;
    sink_user = user;
    sink_echo = sink ? (echo != 0) : 1;
    pthread_rwlock_unlock(&sink_lock);
}

/* printf into `stack` when it fits, otherwise into a heap block; NULL only when out of memory.
 * The caller frees the result when it differs from `stack`. */
static char *format_into(char *stack, size_t stack_size, const char *format, va_list args) {
    va_list again;
    va_copy(again, args);
    int n = vsnprintf(stack, stack_size, format, args);
    if (n < 0) {
        va_end(again);
        stack[0] = '\0';
        return stack;
    }
    if ((size_t)n < stack_size) {
        va_end(again);
        return stack;
    }
    char *heap = malloc((size_t)n + 1);
    if (heap)
        vsnprintf(heap, (size_t)n + 1, format, again);
    va_end(again);
    return heap;
}

static void write_all(int fd, const char *text, size_t len) {
    while (len > 0) {
        ssize_t w = write(fd, text, len);
        if (w < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        text += w;
        len -= (size_t)w;
    }
}

static void echo_line(int level, const char *file, int line, const char *function,
                      const char *message) {
    char stack[1024];
    const char *fmt = "[L%d] %s:%d %s: %s\n";
    int n = snprintf(stack, sizeof stack, fmt, level, file, line, function, message);
    if (n < 0)
        return;
    if ((size_t)n < sizeof stack) {
        write_all(STDERR_FILENO, stack, (size_t)n);
        return;
    }
    char *heap = malloc((size_t)n + 1);
    if (!heap) {
        write_all(STDERR_FILENO, stack, sizeof stack - 1);
        write_all(STDERR_FILENO, "\n", 1);
        return;
    }
    snprintf(heap, (size_t)n + 1, fmt, level, file, line, function, message);
    write_all(STDERR_FILENO, heap, (size_t)n);
    free(heap);
}

void qz_print_log2(int level, const char *file, int line, const char *function, const char *format,
                   ...) {
    if (!file)
        file = "?";
    if (!function)
        function = "?";

    char stack[512];
    char *formatted = NULL;
    const char *message = "";
    if (format) {
        va_list args;
        va_start(args, format);
        formatted = format_into(stack, sizeof stack, format, args);
        va_end(args);
        message = formatted ? formatted : "(log message lost: out of memory)";
    }

    /* A message ending in a newline still makes exactly one line. */
    if (formatted) {
        size_t len = strlen(formatted);
        if (len > 0 && formatted[len - 1] == '\n')
            formatted[len - 1] = '\0';
    }

    pthread_rwlock_rdlock(&sink_lock);
    if (sink_fn)
        sink_fn(level, file, line, function, message, sink_user);
    int echo = sink_echo;
    pthread_rwlock_unlock(&sink_lock);

    if (echo)
        echo_line(level, file, line, function, message);

    if (formatted && formatted != stack)
        free(formatted);
}
