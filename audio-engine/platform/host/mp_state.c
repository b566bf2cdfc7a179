/* Host media-player state: hw_mp_setstate and BanSleep only record their calls (tests read
 * them back through host_platform_calls), and pkmpc points to a zeroed shared record. */
#include "mp_state.h"
#include "host_platform.h"

#include <pthread.h>
#include <string.h>

/* The shared media-player record: zero-initialised, 256 bytes, aligned for any field. */
static _Alignas(16) unsigned char mp_record[256];
struct mp_control *pkmpc = (struct mp_control *)mp_record;

_Static_assert(MP_CONTROL_VOLUME_OFFSET + sizeof(int16_t) <= sizeof mp_record,
               "the record holds the volume");

/* Call log: a ring of the most recent CALL_CAPACITY calls. The pause loop reports its state
 * every 10 ms, so the log is bounded: once full, each new call drops the oldest one. */
enum { CALL_CAPACITY = 65536 };
static pthread_mutex_t call_lock = PTHREAD_MUTEX_INITIALIZER;
static host_platform_call calls[CALL_CAPACITY];
static size_t call_first; /* index of the oldest record */
static size_t call_count; /* records held, at most CALL_CAPACITY */

static void record_call(char kind, int value) {
    pthread_mutex_lock(&call_lock);
    size_t slot = (call_first + call_count) % CALL_CAPACITY;
    calls[slot].kind = kind;
    calls[slot].value = value;
    if (call_count < CALL_CAPACITY)
        call_count++;
    else
        call_first = (call_first + 1) % CALL_CAPACITY;
    pthread_mutex_unlock(&call_lock);
}

void hw_mp_setstate(int state) {
    record_call('S', state);
}

void BanSleep(int reason) {
    record_call('B', reason);
}

/* Returns the number of calls held (at most CALL_CAPACITY; older ones have been dropped) and
 * copies the oldest `max` of them. */
size_t host_platform_calls(host_platform_call *out, size_t max) {
    pthread_mutex_lock(&call_lock);
    size_t n = call_count;
    if (out) {
        for (size_t i = 0; i < n && i < max; i++)
            out[i] = calls[(call_first + i) % CALL_CAPACITY];
    }
    pthread_mutex_unlock(&call_lock);
    return n;
}

void host_platform_clear_calls(void) {
    pthread_mutex_lock(&call_lock);
    call_first = 0;
    call_count = 0;
    pthread_mutex_unlock(&call_lock);
}
