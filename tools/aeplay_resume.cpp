// The state files that keep where each book was left.
#include "aeplay_resume.h"

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace aeplay {

namespace {

const char kHeader[] = "aeplay-place 1";
const char kZipTag[] = ":#zip(";
const size_t kMaxStateBytes = 1 << 20; // far beyond any real list of inputs

std::string escape(const std::string &text) {
    std::string out;
    for (char c : text) {
        if (c == '\\')
            out += "\\\\";
        else if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out;
}

bool unescape(const std::string &text, std::string *out) {
    out->clear();
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            *out += text[i];
            continue;
        }
        if (++i == text.size() || (text[i] != '\\' && text[i] != 'n'))
            return false;
        *out += text[i] == 'n' ? '\n' : '\\';
    }
    return true;
}

bool to_long(const std::string &text, long long min, long long max, long long *value) {
    if (text.empty() || text[0] == ' ')
        return false;
    char *end = nullptr;
    errno = 0;
    const long long v = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < min || v > max)
        return false;
    *value = v;
    return true;
}

// Makes `folder` and the folders above it (private to the user, like other players' state).
bool make_folders(const std::string &folder, std::string *error) {
    for (size_t slash = 1; slash != std::string::npos;) {
        slash = folder.find('/', slash + 1);
        const std::string part = folder.substr(0, slash);
        if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
            *error = "cannot make the folder " + part + ": " + std::strerror(errno);
            return false;
        }
    }
    return true;
}

bool write_all(int fd, const std::string &text) {
    for (size_t done = 0; done < text.size();) {
        const ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

} // namespace

std::string absolute_path(const std::string &path) {
    const size_t zip = path.find(kZipTag);
    const std::string file = zip == std::string::npos ? path : path.substr(0, zip);
    const std::string rest = zip == std::string::npos ? "" : path.substr(zip);
    if (char *real = realpath(file.c_str(), nullptr)) {
        const std::string resolved = real;
        std::free(real);
        return resolved + rest;
    }
    if (!file.empty() && file[0] == '/')
        return path;
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof cwd) == nullptr)
        return path;
    return std::string(cwd) + "/" + path;
}

std::string state_folder() {
    const char *state = std::getenv("XDG_STATE_HOME");
    if (state != nullptr && state[0] == '/') // relative values are invalid and ignored
        return std::string(state) + "/aeplay";
    const char *home = std::getenv("HOME");
    if (home != nullptr && home[0] != '\0')
        return std::string(home) + "/.local/state/aeplay";
    return "";
}

std::string book_identity(const std::vector<std::string> &inputs) {
    std::string identity;
    for (const std::string &input : inputs)
        identity += absolute_path(input) + "\n";
    return identity;
}

std::string state_path(const std::string &folder, const std::string &identity) {
    uint64_t hash = 14695981039346656037ull; // FNV-1a
    for (unsigned char c : identity)
        hash = (hash ^ c) * 1099511628211ull;
    char name[32];
    std::snprintf(name, sizeof name, "%016llx.place", static_cast<unsigned long long>(hash));
    return folder + "/" + name;
}

std::string format_place(const std::string &identity, const Place &place) {
    std::string text = std::string(kHeader) + "\n";
    for (size_t begin = 0; begin < identity.size();) {
        const size_t end = identity.find('\n', begin);
        text += "input " + escape(identity.substr(begin, end - begin)) + "\n";
        begin = end == std::string::npos ? identity.size() : end + 1;
    }
    char numbers[160];
    std::snprintf(numbers, sizeof numbers, "position %d\ntempo %.4f\nwritten %lld\n",
                  place.position, place.tempo, static_cast<long long>(place.written));
    return text + "track " + std::to_string(place.track) + "\nfile " + escape(place.file) + "\n" +
           numbers + "end\n";
}

bool parse_place(const std::string &text, const std::string &identity, Place *place,
                 std::string *error) {
    if (text.compare(0, sizeof kHeader - 1, kHeader) != 0 || text.size() < sizeof kHeader ||
        text[sizeof kHeader - 1] != '\n') {
        *error = "not an aeplay state file";
        return false;
    }
    Place p;
    std::string inputs;
    unsigned seen = 0; // one bit per key
    const char *const keys[] = {"track", "file", "position", "tempo", "written"};
    bool ended = false;
    for (size_t begin = sizeof kHeader; begin < text.size();) {
        const size_t newline = text.find('\n', begin);
        if (newline == std::string::npos)
            break; // a last line without its line break: cut short
        const std::string line = text.substr(begin, newline - begin);
        begin = newline + 1;
        if (ended) {
            *error = "text after its end";
            return false;
        }
        if (line == "end") {
            ended = true;
            continue;
        }
        const size_t space = line.find(' ');
        const std::string key = line.substr(0, space);
        const std::string value = space == std::string::npos ? "" : line.substr(space + 1);
        std::string path;
        long long number = 0;
        if (key == "input") {
            if (!unescape(value, &path)) {
                *error = "a damaged input line";
                return false;
            }
            inputs += path + "\n";
            continue;
        }
        unsigned bit = 0;
        while (bit < 5 && key != keys[bit])
            ++bit;
        bool ok = bit < 5 && !(seen & (1u << bit));
        if (ok && key == "track") {
            ok = to_long(value, 0, INT_MAX, &number);
            p.track = static_cast<int>(number);
        } else if (ok && key == "file") {
            ok = unescape(value, &p.file) && !p.file.empty();
        } else if (ok && key == "position") {
            ok = to_long(value, 0, 2147483, &number);
            p.position = static_cast<int>(number);
        } else if (ok && key == "tempo") {
            char *end = nullptr;
            p.tempo = std::strtod(value.c_str(), &end);
            ok = !value.empty() && *end == '\0' && p.tempo >= 0.25 && p.tempo <= 4.0;
        } else if (ok) {
            ok = to_long(value, 0, LLONG_MAX, &number);
            p.written = number;
        }
        if (!ok) {
            *error = "a bad line '" + line.substr(0, 60) + "'";
            return false;
        }
        seen |= 1u << bit;
    }
    if (!ended || seen != 0x1f) {
        *error = "it is cut short";
        return false;
    }
    if (inputs != identity) {
        *error = "it belongs to other inputs";
        return false;
    }
    *place = p;
    return true;
}

bool load_place(const std::string &path, const std::string &identity, Place *place,
                std::string *error) {
    error->clear();
    FILE *file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        if (errno != ENOENT && errno != ENOTDIR)
            *error = std::strerror(errno);
        return false;
    }
    std::string text;
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0 && text.size() <= kMaxStateBytes)
        text.append(buffer, n);
    const bool failed = std::ferror(file) != 0;
    std::fclose(file);
    if (failed) {
        *error = "cannot be read";
        return false;
    }
    if (text.size() > kMaxStateBytes) {
        *error = "far too large";
        return false;
    }
    return parse_place(text, identity, place, error);
}

bool save_place(const std::string &path, const std::string &identity, const Place &place,
                std::string *error) {
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash);
    if (!make_folders(folder, error))
        return false;
    // One temporary name per process: two players on one book never write into one file.
    const std::string temporary = path + "." + std::to_string(getpid()) + ".tmp";
    const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        *error = "cannot write " + temporary + ": " + std::strerror(errno);
        return false;
    }
    const bool written = write_all(fd, format_place(identity, place)) && fsync(fd) == 0;
    const int saved_errno = errno;
    close(fd);
    if (!written || rename(temporary.c_str(), path.c_str()) != 0) {
        *error = "cannot write " + path + ": " + std::strerror(written ? errno : saved_errno);
        unlink(temporary.c_str());
        return false;
    }
    // The rename itself reaches the disk with the folder's entry.
    const int dir = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        fsync(dir);
        close(dir);
    }
    return true;
}

void forget_place(const std::string &path) {
    unlink(path.c_str());
}

} // namespace aeplay
