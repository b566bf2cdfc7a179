// Host zip reader over libzip: one archive open at a time, one member selected, read
// sequentially. Stored members skip forward with zip_fseek; compressed members skip by reading
// into a scratch buffer. A read error (bad CRC, broken deflate stream) ends the member: the bytes
// obtained so far are returned and every later Read returns 0.
#include "QzZipManager.h"

#include <zip.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <vector>

namespace tavrel {

struct QzZipManager::Impl {
    zip_t *archive = nullptr;
    zip_file_t *file = nullptr;
    zip_uint64_t index = 0;
    std::uint64_t size = 0;
    std::uint64_t pos = 0;
    bool seekable = false; // stored and unencrypted: zip_fseek works
    bool failed = false;   // a read error ended the member
    std::vector<char> scratch;

    void CloseMember() {
        if (file)
            zip_fclose(file);
        file = nullptr;
        size = 0;
        pos = 0;
        seekable = false;
        failed = false;
    }

    void CloseArchive() {
        CloseMember();
        if (archive)
            zip_discard(archive); // opened read-only: nothing to write back
        archive = nullptr;
    }

    int SelectMember(const std::string &member) {
        CloseMember();
        if (!archive || member.empty() || member.back() == '/')
            return -1;
        zip_int64_t found = zip_name_locate(archive, member.c_str(), 0);
        if (found < 0)
            return -1;
        zip_stat_t st;
        zip_stat_init(&st);
        if (zip_stat_index(archive, static_cast<zip_uint64_t>(found), 0, &st) != 0 ||
            !(st.valid & ZIP_STAT_SIZE))
            return -1;
        if ((st.valid & ZIP_STAT_NAME) && st.name && st.name[0] != '\0' &&
            st.name[std::char_traits<char>::length(st.name) - 1] == '/')
            return -1; // a directory entry
        zip_file_t *f = zip_fopen_index(archive, static_cast<zip_uint64_t>(found), 0);
        if (!f)
            return -1;
        file = f;
        index = static_cast<zip_uint64_t>(found);
        size = st.size;
        pos = 0;
        seekable =
            (st.valid & ZIP_STAT_COMP_METHOD) && st.comp_method == ZIP_CM_STORE &&
            (!(st.valid & ZIP_STAT_ENCRYPTION_METHOD) || st.encryption_method == ZIP_EM_NONE);
        return 0;
    }

    // Reopens the selected member at its start (after a failed seek the old handle may be left
    // in an error state).
    bool Rewind() {
        zip_file_t *f = zip_fopen_index(archive, index, 0);
        if (!f)
            return false;
        zip_fclose(file);
        file = f;
        pos = 0;
        failed = false;
        return true;
    }

    // Reads and drops `count` bytes; false when the member ended early on an error.
    bool Discard(std::uint64_t count) {
        if (scratch.empty())
            scratch.resize(256 * 1024);
        while (count > 0) {
            std::uint64_t chunk = std::min<std::uint64_t>(count, scratch.size());
            if (ReadSome(scratch.data(), chunk) != chunk)
                return false;
            count -= chunk;
        }
        return true;
    }

    // Reads up to `want` bytes; stops early only at the end of the member or on an error.
    std::uint64_t ReadSome(char *out, std::uint64_t want) {
        if (!file || failed)
            return 0;
        want = std::min(want, size - pos);
        std::uint64_t got = 0;
        while (got < want) {
            zip_int64_t n = zip_fread(file, out + got, want - got);
            if (n < 0) {
                failed = true;
                break;
            }
            if (n == 0)
                break;
            got += static_cast<std::uint64_t>(n);
        }
        pos += got;
        return got;
    }
};

QzZipManager::QzZipManager() : impl(new Impl) {}

QzZipManager::~QzZipManager() {
    impl->CloseArchive();
}

int QzZipManager::Open(const std::string &archive, const std::string &member) {
    impl->CloseArchive();
    int error = 0;
    zip_t *za = zip_open(archive.c_str(), ZIP_RDONLY, &error);
    if (!za)
        return -1;
    impl->archive = za;
    if (impl->SelectMember(member) != 0) {
        impl->CloseArchive();
        return -1;
    }
    return 0;
}

bool QzZipManager::IsOpen() const {
    return impl->archive != nullptr;
}

int QzZipManager::Close() {
    impl->CloseArchive();
    return 0;
}

int QzZipManager::Read(void *buffer, unsigned int size) {
    if (!buffer || size == 0)
        return 0;
    std::uint64_t want = std::min<std::uint64_t>(size, INT_MAX);
    return static_cast<int>(impl->ReadSome(static_cast<char *>(buffer), want));
}

int QzZipManager::Skip(unsigned int count) {
    if (!impl->file)
        return -1;
    if (impl->failed)
        return impl->pos == impl->size ? 0 : -1;
    std::uint64_t step = std::min<std::uint64_t>(count, impl->size - impl->pos);
    if (step == 0)
        return 0;
    if (impl->seekable) {
        std::uint64_t target = impl->pos + step;
        if (zip_fseek(impl->file, static_cast<zip_int64_t>(target), SEEK_SET) == 0) {
            impl->pos = target;
            return 0;
        }
        // Seeking is not supported after all: start again and read up to the target.
        impl->seekable = false;
        if (!impl->Rewind())
            return -1;
        return impl->Discard(target) ? 0 : -1;
    }
    // Compressed member: decompress and discard.
    return impl->Discard(step) ? 0 : -1;
}

int QzZipManager::Tell() const {
    if (!impl->file)
        return -1;
    return static_cast<int>(std::min<std::uint64_t>(impl->pos, INT_MAX));
}

int QzZipManager::ChangeFile(const std::string &member) {
    if (!impl->archive)
        return -1;
    return impl->SelectMember(member);
}

unsigned int QzZipManager::GetCurrentFileSize() const {
    if (!impl->file)
        return 0;
    return static_cast<unsigned int>(std::min<std::uint64_t>(impl->size, UINT_MAX));
}

} // namespace tavrel
