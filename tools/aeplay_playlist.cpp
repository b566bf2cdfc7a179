// Building aeplay's play list from files, folders, playlists and zip archives.
#include "aeplay_playlist.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <set>
#include <sys/stat.h>
#include <utility>

#include <zip.h>

namespace aeplay {

namespace {

const char kZipTag[] = ":#zip(";
const int kMaxNesting = 8; // folders in folders and playlists naming playlists, at most this deep

std::string lower(std::string s) {
    for (char &c : s)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

bool ends_with(const std::string &s, const std::string &suffix) {
    return s.size() >= suffix.size() &&
           s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool is_dir(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool is_file(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::string parent_dir(const std::string &path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string join(const std::string &dir, const std::string &name) {
    if (dir.empty() || dir == ".")
        return name;
    return dir.back() == '/' ? dir + name : dir + "/" + name;
}

bool is_playlist(const std::string &path) {
    const std::string l = lower(path);
    return ends_with(l, ".m3u") || ends_with(l, ".m3u8");
}

bool is_zip(const std::string &path) {
    return ends_with(lower(path), ".zip");
}

// Folders and playlists by device and inode number.
using FileId = std::pair<dev_t, ino_t>;

// One expansion of the inputs: the list being built and the folders and playlists being
// expanded on the current path. A symbolic link back into a folder above, or a playlist that
// names itself (directly or through another one), is met again while it is still open and
// skipped, instead of repeating until the nesting limit.
struct Walk {
    PlayList *list;
    std::set<FileId> open;
};

// Marks a folder or playlist as open for the lifetime of this object. repeated(): it already
// was, further up the path, so it must not be expanded again here.
class Visit {
public:
    Visit(const std::string &path, Walk *walk) : walk_(walk) {
        struct stat st;
        if (stat(path.c_str(), &st) != 0)
            return; // not identifiable; opening it will fail and be reported
        id_ = FileId(st.st_dev, st.st_ino);
        entered_ = walk_->open.insert(id_).second;
        repeated_ = !entered_;
    }
    ~Visit() {
        if (entered_)
            walk_->open.erase(id_);
    }
    Visit(const Visit &) = delete;
    Visit &operator=(const Visit &) = delete;

    bool repeated() const { return repeated_; }

private:
    Walk *walk_;
    FileId id_{};
    bool entered_ = false;
    bool repeated_ = false;
};

void expand(const std::string &input, int depth, Walk *walk);

void expand_folder(const std::string &dir, int depth, Walk *walk) {
    PlayList *list = walk->list;
    const Visit visit(dir, walk);
    if (visit.repeated()) {
        list->errors.push_back("skipped folder " + dir + ": it leads back into itself");
        return;
    }
    DIR *d = opendir(dir.c_str());
    if (d == nullptr) {
        list->errors.push_back("cannot read folder " + dir + ": " + std::strerror(errno));
        return;
    }
    std::vector<std::string> names;
    while (dirent *entry = readdir(d)) {
        if (entry->d_name[0] != '.') // hidden files, "." and ".."
            names.push_back(entry->d_name);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    for (const std::string &name : names) {
        const std::string path = join(dir, name);
        if (is_dir(path)) {
            if (depth < kMaxNesting)
                expand_folder(path, depth + 1, walk);
            else
                list->errors.push_back("folders nested too deeply, skipped " + path);
        } else if (is_file(path) && has_audio_extension(name)) {
            list->paths.push_back(path);
        }
    }
}

void expand_playlist(const std::string &file, int depth, Walk *walk) {
    PlayList *list = walk->list;
    const Visit visit(file, walk);
    if (visit.repeated()) {
        list->errors.push_back("skipped playlist " + file + ": it includes itself");
        return;
    }
    std::ifstream in(file);
    if (!in) {
        list->errors.push_back("cannot read playlist " + file);
        return;
    }
    const std::string base = parent_dir(file);
    std::string line;
    bool first = true;
    while (std::getline(in, line)) {
        if (first && line.compare(0, 3, "\xEF\xBB\xBF") == 0) // UTF-8 byte order mark
            line.erase(0, 3);
        first = false;
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t'))
            line.pop_back();
        const size_t start = line.find_first_not_of(" \t");
        if (start == std::string::npos || line[start] == '#')
            continue;
        line.erase(0, start);
        const std::string entry = line[0] == '/' ? line : join(base, line);
        if (depth >= kMaxNesting)
            list->errors.push_back("playlists nested too deeply, skipped " + entry);
        else
            expand(entry, depth + 1, walk);
    }
}

void expand(const std::string &input, int depth, Walk *walk) {
    PlayList *list = walk->list;
    const size_t tag = input.find(kZipTag);
    if (tag != std::string::npos && !input.empty() && input.back() == ')') {
        const std::string archive = input.substr(0, tag);
        if (is_file(archive))
            list->paths.push_back(input);
        else
            list->errors.push_back("no such archive: " + archive);
        return;
    }
    if (is_dir(input)) {
        expand_folder(input, depth, walk);
    } else if (!is_file(input)) {
        list->errors.push_back("no such file: " + input);
    } else if (is_playlist(input)) {
        expand_playlist(input, depth, walk);
    } else if (is_zip(input)) {
        std::string error;
        if (!list_zip_members(input, &list->paths, &error))
            list->errors.push_back(error);
    } else {
        list->paths.push_back(input);
    }
}

// Whether a zip member is left out of the list: hidden files and folders (a name part starting
// with '.', as in folder listings) and the "__MACOSX/" tree of resource forks some archivers
// add.
bool is_hidden_member(const std::string &name) {
    if (name.compare(0, 9, "__MACOSX/") == 0)
        return true;
    for (size_t begin = 0; begin < name.size();) {
        if (name[begin] == '.')
            return true;
        const size_t slash = name.find('/', begin);
        if (slash == std::string::npos)
            break;
        begin = slash + 1;
    }
    return false;
}

} // namespace

bool has_audio_extension(const std::string &name) {
    static const char *const kExtensions[] = {
        ".mp3", ".mp2", ".m4a", ".m4b",  ".aac", ".flac", ".ogg", ".oga", ".opus", ".wav",
        ".wma", ".mka", ".aif", ".aiff", ".ape", ".wv",   ".ac3", ".amr", ".mp4",  ".webm"};
    const std::string l = lower(name);
    for (const char *ext : kExtensions) {
        if (ends_with(l, ext))
            return true;
    }
    return false;
}

bool list_zip_members(const std::string &archive, std::vector<std::string> *paths,
                      std::string *error) {
    int err = 0;
    zip_t *zip = zip_open(archive.c_str(), ZIP_RDONLY, &err);
    if (zip == nullptr) {
        zip_error_t ze;
        zip_error_init_with_code(&ze, err);
        *error = "cannot read archive " + archive + ": " + zip_error_strerror(&ze);
        zip_error_fini(&ze);
        return false;
    }
    const zip_int64_t count = zip_get_num_entries(zip, 0);
    size_t found = 0;
    for (zip_int64_t i = 0; i < count; ++i) {
        const char *name = zip_get_name(zip, static_cast<zip_uint64_t>(i), 0);
        if (name == nullptr || ends_with(name, "/") || !has_audio_extension(name) ||
            is_hidden_member(name))
            continue;
        paths->push_back(archive + kZipTag + name + ")");
        ++found;
    }
    zip_discard(zip); // opened read-only: nothing to write back
    if (found == 0) {
        *error = "no audio in archive " + archive;
        return false;
    }
    return true;
}

PlayList build_playlist(const std::vector<std::string> &inputs) {
    PlayList list;
    Walk walk{&list, {}};
    for (const std::string &input : inputs)
        expand(input, 0, &walk);
    return list;
}

std::string display_name(const std::string &path) {
    const size_t tag = path.find(kZipTag);
    if (tag != std::string::npos && path.back() == ')')
        return path.substr(tag + std::strlen(kZipTag),
                           path.size() - tag - std::strlen(kZipTag) - 1);
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string printable(const std::string &text) {
    std::string out = text;
    for (size_t i = 0; i < out.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(out[i]);
        if (c == '\t' || c == '\n' || c == '\r') {
            out[i] = ' ';
        } else if (c < 0x20 || c == 0x7F) {
            out[i] = '?';
        } else if (c == 0xC2 && i + 1 < out.size() &&
                   (static_cast<unsigned char>(out[i + 1]) & 0xE0) == 0x80) {
            out.replace(i, 2, "?"); // a C1 control character, two bytes in UTF-8
        }
    }
    return out;
}

} // namespace aeplay
