// --info and --cover.
#include "aeplay_info.h"

#include "aeplay_cover.h"
#include "aeplay_format.h"
#include "aeplay_playlist.h"

using tavrel::utilities::IPlayer;

namespace aeplay {

namespace {

// Tags and chapter titles come from the media file: they go through printable() so that
// control characters in them cannot reach the terminal.
void print_info(IPlayer *player, const std::string &path) {
    std::printf("%s\n  duration: %s\n", printable(path).c_str(),
                clock_text(player->GetTrackSize()).c_str());
    const auto tags = player->getMetadata();
    if (tags.empty())
        std::printf("  tags: none\n");
    for (const auto &entry : tags)
        std::printf("  %s: %s\n", printable(entry.first).c_str(), printable(entry.second).c_str());
    const auto chapters = player->getChapters();
    std::printf("  chapters: %zu\n", chapters.size());
    for (const auto &chapter : chapters)
        std::printf("    %d. %s - %s  %s\n", chapter.index + 1,
                    clock_text(chapter.start / 1000).c_str(),
                    clock_text(chapter.end / 1000).c_str(), printable(chapter.title).c_str());
    if (const qz_bitmap *cover = player->getCover())
        std::printf("  cover: %dx%d %s\n", cover->width, cover->height,
                    cover->format == QZ_BITMAP_RGB24 ? "colour" : "grey");
    else
        std::printf("  cover: none\n");
}

} // namespace

int showInfo(const Options &options, IPlayer *player, const std::vector<std::string> &paths,
             FILE *errors) {
    int status = 0;
    bool coverWritten = false;
    for (const std::string &path : paths) {
        if (player->openFile(path) != 0) {
            std::fprintf(errors, "aeplay: cannot open %s\n", printable(path).c_str());
            status = 1;
            continue;
        }
        if (options.info)
            print_info(player, path);
        if (!options.cover.empty() && !coverWritten) {
            coverWritten = true;
            std::string error;
            const qz_bitmap *cover = player->getCover();
            if (cover == nullptr) {
                std::fprintf(errors, "aeplay: %s has no cover picture\n", printable(path).c_str());
                status = 1;
            } else if (!write_png(*cover, options.cover, &error)) {
                std::fprintf(errors, "aeplay: %s\n", error.c_str());
                status = 1;
            } else {
                std::printf("cover %dx%d written to %s\n", cover->width, cover->height,
                            options.cover.c_str());
            }
            if (!options.info)
                break;
        }
    }
    return status;
}

} // namespace aeplay
