/* Test hooks of the host platform library (the replacement for the device's own libraries).
 * Only tests and host tools use these; the library itself never calls them. */
#ifndef AUDIO_ENGINE_PLATFORM_HOST_PLATFORM_H
#define AUDIO_ENGINE_PLATFORM_HOST_PLATFORM_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Receives every qz_print_log2 line (already formatted, no trailing newline) in addition to,
 * or instead of, standard error. The sink may be called from any thread, concurrently. */
typedef void (*host_log_sink)(int level, const char *file, int line, const char *function,
                              const char *message, void *user);
/* Installs a sink (NULL removes it). With `echo` 0 lines no longer go to standard error. */
void host_set_log_sink(host_log_sink sink, void *user, int echo);

/* Calls of hw_mp_setstate and BanSleep, in order, as one record each: kind 'S' for
 * hw_mp_setstate, 'B' for BanSleep, with the argument. */
typedef struct host_platform_call {
    char kind;
    int value;
} host_platform_call;
/* Copies up to `max` recorded calls (oldest first); returns how many were recorded. */
size_t host_platform_calls(host_platform_call *out, size_t max);
void host_platform_clear_calls(void);

/* Colour (non-zero) or grey (0) answer of device_display_colormask(); colour by default. */
void host_set_display_color(int color);

#ifdef __cplusplus
}
#endif

#endif
