// Choosing and preparing the ALSA PCM for aeplay (see aeplay_output.h).
#include "aeplay_output.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

#include <alsa/asoundlib.h>

#ifdef AEPLAY_HOST_PLATFORM
#include "host_platform.h"
#endif

namespace aeplay {

namespace {

const char kWavPcm[] = "aeplay_wav";

std::string absolute(const std::string &path) {
    if (!path.empty() && path[0] == '/')
        return path;
    char cwd[4096];
    if (getcwd(cwd, sizeof cwd) == nullptr)
        return path;
    return std::string(cwd) + "/" + path;
}

// A double-quoted ALSA configuration string.
std::string quoted(const std::string &text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\')
            out += '\\';
        out += c;
    }
    return out + "\"";
}

std::string part_name(const std::string &path, int index) {
    char suffix[16];
    std::snprintf(suffix, sizeof suffix, ".%04d", index);
    return path + suffix;
}

uint32_t le32(const unsigned char *p) {
    return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

void put_le32(unsigned char *p, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<unsigned char>(v >> (8 * i));
}

// Finds the first "data" chunk of the RIFF/WAVE file `f`: where its bytes start and how many
// of them the file holds (the header's size, cut to the file's end).
bool find_wav_data(std::FILE *f, int64_t *offset, int64_t *size) {
    unsigned char header[12];
    if (fseeko(f, 0, SEEK_SET) != 0 || std::fread(header, 1, sizeof header, f) != sizeof header ||
        std::memcmp(header, "RIFF", 4) != 0 || std::memcmp(header + 8, "WAVE", 4) != 0 ||
        fseeko(f, 0, SEEK_END) != 0)
        return false;
    const int64_t end = ftello(f);
    int64_t pos = 12;
    while (pos + 8 <= end) {
        unsigned char chunk[8];
        if (fseeko(f, static_cast<off_t>(pos), SEEK_SET) != 0 ||
            std::fread(chunk, 1, sizeof chunk, f) != sizeof chunk)
            return false;
        const int64_t length = le32(chunk + 4);
        if (std::memcmp(chunk, "data", 4) == 0) {
            *offset = pos + 8;
            *size = std::min(length, end - *offset);
            return true;
        }
        pos += 8 + length + (length & 1);
    }
    return false;
}

// Appends the audio of PATH.0001, PATH.0002... to PATH and fixes PATH's header. The audio is
// copied in bounded pieces: a long book makes files of hundreds of megabytes.
void merge_wav_parts(const std::string &path) {
    if (access(part_name(path, 1).c_str(), F_OK) != 0)
        return; // one file, complete as ALSA wrote it
    std::FILE *whole = std::fopen(path.c_str(), "r+b");
    if (whole == nullptr)
        return;
    int64_t data = 0;
    int64_t size = 0;
    if (!find_wav_data(whole, &data, &size)) {
        std::fclose(whole);
        return;
    }
    // Only the first data chunk counts: the parts go right after it, and anything that
    // followed it is cut off below.
    int64_t end = data + size;
    bool ok = fseeko(whole, static_cast<off_t>(end), SEEK_SET) == 0;
    std::vector<char> buffer(1 << 16);
    for (int i = 1; i < 10000 && ok; ++i) {
        const std::string part = part_name(path, i);
        std::FILE *in = std::fopen(part.c_str(), "rb");
        if (in == nullptr)
            break;
        int64_t offset = 0;
        int64_t left = 0;
        if (find_wav_data(in, &offset, &left) &&
            fseeko(in, static_cast<off_t>(offset), SEEK_SET) == 0) {
            while (left > 0 && ok) {
                const size_t want = static_cast<size_t>(
                    std::min<int64_t>(left, static_cast<int64_t>(buffer.size())));
                const size_t got = std::fread(buffer.data(), 1, want, in);
                if (got == 0)
                    break;
                const size_t put = std::fwrite(buffer.data(), 1, got, whole);
                end += static_cast<int64_t>(put);
                left -= static_cast<int64_t>(got);
                ok = put == got;
            }
        }
        std::fclose(in);
        if (ok) // a part that could not be appended (a full disk) is kept
            std::remove(part.c_str());
    }
    // RIFF sizes are 32 bits: a longer file keeps its audio, with the sizes at their maximum.
    unsigned char field[4];
    put_le32(field, static_cast<uint32_t>(std::min<int64_t>(end - 8, UINT32_MAX)));
    const bool riff = std::fflush(whole) == 0 && fseeko(whole, 4, SEEK_SET) == 0 &&
                      std::fwrite(field, 1, 4, whole) == 4;
    put_le32(field, static_cast<uint32_t>(std::min<int64_t>(end - data, UINT32_MAX)));
    if (riff && fseeko(whole, static_cast<off_t>(data - 4), SEEK_SET) == 0)
        std::fwrite(field, 1, 4, whole);
    if (std::fflush(whole) == 0) {
        const int ignored = ftruncate(fileno(whole), static_cast<off_t>(end));
        (void)ignored;
    }
    std::fclose(whole);
}

#ifdef AEPLAY_HOST_PLATFORM
void drop_log_line(int, const char *, int, const char *, const char *, void *) {}
#endif

// ALSA's own diagnostics ("Unknown PCM mpd_sm" while probing) are expected here.
void quiet_alsa_error(const char *, int, const char *, int, const char *, ...) {}

} // namespace

bool pcm_available(const std::string &name) {
    snd_pcm_t *pcm = nullptr;
    int err = snd_pcm_open(&pcm, name.c_str(), SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK);
    if (err == 0)
        snd_pcm_close(pcm);
    return err == 0 || err == -EBUSY;
}

bool prepare_wav_output(const std::string &path, Output *output, std::string *error) {
    const std::string wav = absolute(path);
    // Old results would make ALSA write to numbered names instead (see finish_output).
    std::remove(wav.c_str());
    for (int i = 1; i < 10000 && std::remove(part_name(wav, i).c_str()) == 0; ++i) {
    }
    // Check now that the file can be written, so the user learns it before playback.
    if (FILE *f = std::fopen(wav.c_str(), "wb")) {
        std::fclose(f);
        std::remove(wav.c_str());
    } else {
        *error = "cannot write " + wav + ": " + std::strerror(errno);
        return false;
    }

    const char *tmp = std::getenv("TMPDIR");
    std::string config = std::string(tmp && *tmp ? tmp : "/tmp") + "/aeplay-alsa-XXXXXX";
    std::vector<char> name(config.begin(), config.end());
    name.push_back('\0');
    int fd = mkstemp(name.data());
    if (fd < 0) {
        *error =
            "cannot create a temporary ALSA configuration: " + std::string(std::strerror(errno));
        return false;
    }
    config = name.data();
    // "truncate false": when the output layer reopens the PCM after a pause, ALSA starts a new
    // numbered file instead of overwriting what was written; finish_output joins them.
    const std::string text = std::string("# Written by aeplay for this run only.\npcm.") + kWavPcm +
                             " {\n    type file\n    slave.pcm { type null }\n" + "    file " +
                             quoted(wav) + "\n    format \"wav\"\n    truncate false\n}\n";
    std::string textAll = text;
    // The library opens "mpd_sm" once when the first player is created; on a machine without
    // it that open would wait a second for a device that never appears. A silent stand-in
    // answers at once (only when the system has no "mpd_sm" of its own).
    if (!pcm_available("mpd_sm"))
        textAll += "pcm.mpd_sm { type null }\n";
    const bool written =
        write(fd, textAll.data(), textAll.size()) == static_cast<ssize_t>(textAll.size());
    close(fd);
    if (!written) {
        std::remove(config.c_str());
        *error = "cannot write " + config;
        return false;
    }

    // The system configuration (or the one already chosen through ALSA_CONFIG_PATH) stays in
    // force; the private file only adds one PCM. ALSA reloads its configuration when the list
    // of files changes, so drop what an earlier probe loaded.
    const char *current = std::getenv("ALSA_CONFIG_PATH");
    std::string base = current && *current ? current : "";
    if (base.empty()) {
        const std::string system = std::string(snd_config_topdir()) + "/alsa.conf";
        if (access(system.c_str(), R_OK) == 0)
            base = system;
    }
    const std::string search = base.empty() ? config : base + ":" + config;
    setenv("ALSA_CONFIG_PATH", search.c_str(), 1);
    snd_config_update_free_global();

    output->device = kWavPcm;
    output->wavPath = wav;
    output->configPath = config;
    return true;
}

bool choose_output(const std::string &device, const std::string &wav,
                   const std::string &fallbackWav, Output *output, std::string *error) {
    *output = Output();
    if (!wav.empty())
        return prepare_wav_output(wav, output, error);
    if (!device.empty()) {
        if (!pcm_available(device)) {
            *error = "cannot open the ALSA device '" + device + "'";
            return false;
        }
        output->device = device;
        return true;
    }
    if (pcm_available("mpd_sm"))
        return true; // the device's own output: nothing to select
    if (pcm_available("default")) {
        output->device = "default";
        return true;
    }
    std::string path = fallbackWav;
    if (path.empty()) {
        const char *tmp = std::getenv("TMPDIR");
        path = std::string(tmp && *tmp ? tmp : "/tmp") + "/aeplay.wav";
    }
    return prepare_wav_output(path, output, error);
}

void finish_output(const Output &output) {
    if (!output.wavPath.empty())
        merge_wav_parts(output.wavPath);
    if (!output.configPath.empty())
        std::remove(output.configPath.c_str());
}

FILE *set_library_log(bool verbose) {
    if (verbose)
        return stderr;
    const int saved = dup(STDERR_FILENO);
    FILE *messages = saved >= 0 ? fdopen(saved, "w") : nullptr;
    if (messages == nullptr)
        return stderr;
    setvbuf(messages, nullptr, _IOLBF, 0);
    fcntl(saved, F_SETFD, FD_CLOEXEC);
#ifdef AEPLAY_HOST_PLATFORM
    host_set_log_sink(drop_log_line, nullptr, 0);
#endif
    snd_lib_error_set_handler(quiet_alsa_error);
    const char *tmp = std::getenv("TMPDIR");
    const std::string log = std::string(tmp && *tmp ? tmp : "/tmp") + "/aeplay.log";
    const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd >= 0) {
        dup2(fd, STDERR_FILENO);
        close(fd);
    }
    return messages;
}

} // namespace aeplay
