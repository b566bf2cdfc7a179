/* vcard_dump: preloaded (LD_PRELOAD) into a program that plays on the virtual card only through
 * ALSA, such as the ffmpeg tool. It links the card's library, so libasound's dlopen of the card
 * finds this instance, and at exit writes the card's write records to the file named by
 * VCARD_DUMP, one line each: "<ns> <frames> <dry_ns>". */
#include <stdio.h>
#include <stdlib.h>

#include "vcard.h"

enum { MAX_WRITES = 65536 };

__attribute__((destructor)) static void dump_writes(void) {
    const char *path = getenv("VCARD_DUMP");
    if (!path)
        return;
    static struct vcard_write writes[MAX_WRITES];
    size_t n = vcard_writes(writes, MAX_WRITES);
    FILE *out = fopen(path, "w");
    if (!out)
        return;
    for (size_t i = 0; i < n && i < MAX_WRITES; i++)
        fprintf(out, "%lld %ld %lld\n", (long long)writes[i].ns, writes[i].frames,
                (long long)writes[i].dry_ns);
    fclose(out);
}
