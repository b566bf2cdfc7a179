// Zip archive reader (platform library): reads one member of an archive sequentially.
#ifndef AUDIO_ENGINE_PLATFORM_QZZIPMANAGER_H
#define AUDIO_ENGINE_PLATFORM_QZZIPMANAGER_H

#include <memory>
#include <string>

namespace tavrel {

class QzZipManager {
public:
    QzZipManager();
    ~QzZipManager();
    QzZipManager(const QzZipManager &) = delete;
    QzZipManager &operator=(const QzZipManager &) = delete;

    // Opens `archive` (closing any archive open before) and selects `member`, positioned at
    // its start. 0 on success, non-zero on failure (then nothing is open).
    int Open(const std::string &archive, const std::string &member);
    bool IsOpen() const;
    int Close();
    // Reads up to `size` bytes of the selected member at the current position; returns the
    // number of bytes read (0 at the end or on failure).
    int Read(void *buffer, unsigned int size);
    // Advances `count` bytes; stops at the end of the member. 0 on success.
    int Skip(unsigned int count);
    // Current position in the selected member, -1 when none is selected.
    int Tell() const;
    // Selects another member of the open archive, positioned at its start. 0 on success.
    int ChangeFile(const std::string &member);
    // Uncompressed size of the selected member (0 when none).
    unsigned int GetCurrentFileSize() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

} // namespace tavrel

#endif
