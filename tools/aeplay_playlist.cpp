// Building aeplay's play list from files, folders, playlists and zip archives.
#include "aeplay_playlist.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <sys/stat.h>

#include <zip.h>

namespace aeplay {

namespace {

const char kZipTag[] = ":#zip(";
const int kMaxNesting = 8; // playlists naming playlists, at most this deep

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

void expand(const std::string &input, int depth, PlayList *list);

void expand_folder(const std::string &dir, int depth, PlayList *list) {
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
                expand_folder(path, depth + 1, list);
        } else if (is_file(path) && has_audio_extension(name)) {
            list->paths.push_back(path);
        }
    }
}

void expand_playlist(const std::string &file, int depth, PlayList *list) {
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
            list->errors.push_back("playlists nested too deeply at " + entry);
        else
            expand(entry, depth + 1, list);
    }
}

void expand(const std::string &input, int depth, PlayList *list) {
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
        expand_folder(input, depth, list);
    } else if (!is_file(input)) {
        list->errors.push_back("no such file: " + input);
    } else if (is_playlist(input)) {
        expand_playlist(input, depth, list);
    } else if (is_zip(input)) {
        std::string error;
        if (!list_zip_members(input, &list->paths, &error))
            list->errors.push_back(error);
    } else {
        list->paths.push_back(input);
    }
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
        if (name == nullptr || ends_with(name, "/") || !has_audio_extension(name))
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
    for (const std::string &input : inputs)
        expand(input, 0, &list);
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

} // namespace aeplay
