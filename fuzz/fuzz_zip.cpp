// Zip members: the input is written as an archive file on tmpfs and the engine opens
// "<archive>:#zip(<member>)" with a member name taken from the input, then plays the member
// briefly (bounded) with seeks, which the zip input emulates by skipping and restarting.
//
// Input: [name length] [name...] [8 operation bytes] [archive...]
#include "fuzz_harness.h"

#include <cstdio>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    ae_fuzz::init();
    ae_fuzz::IAudioEngine *engine = ae_fuzz::engine();
    ae_fuzz::Input in(data, size);
    const size_t nameLength = in.u8() % 80;
    const size_t available = nameLength < in.remaining() ? nameLength : in.remaining();
    const std::string member(reinterpret_cast<const char *>(in.rest()), available);
    in.skip(available);
    uint8_t ops[8] = {};
    for (uint8_t &op : ops)
        op = in.u8();

    static const std::string archive = ae_fuzz::scratchDir() + "/archive.zip";
    FILE *f = fopen(archive.c_str(), "wb");
    if (f == nullptr)
        return 0;
    if (in.remaining() > 0 && fwrite(in.rest(), 1, in.remaining(), f) != in.remaining()) {
        fclose(f);
        return 0;
    }
    fclose(f);

    if (engine->openFile(archive + ":#zip(" + member + ")") == 0) {
        ae_fuzz::inspect(engine);
        ae_fuzz::Input opInput(ops, sizeof ops);
        ae_fuzz::playBounded(engine, opInput, 200, 200);
    }
    engine->closeFile();
    remove(archive.c_str());
    return 0;
}
