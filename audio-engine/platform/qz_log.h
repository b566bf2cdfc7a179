/* Device logging call (platform library). */
#ifndef AUDIO_ENGINE_PLATFORM_QZ_LOG_H
#define AUDIO_ENGINE_PLATFORM_QZ_LOG_H

#ifdef __cplusplus
extern "C" {
#endif

/* Writes one log line: level (2 failure, 4 progress, 5 device detail), the source file and
 * line, the calling function's signature, then the printf-style message. */
void qz_print_log2(int level, const char *file, int line, const char *function,
                   const char *format, ...) __attribute__((format(printf, 5, 6)));

#ifdef __cplusplus
}
#endif

#endif
