// Text aeplay shows.
#include "aeplay_format.h"

#include <cstdio>
#include <strings.h>

namespace aeplay {

std::string clock_text(int seconds) {
    if (seconds < 0)
        seconds = 0;
    char text[32];
    if (seconds >= 3600)
        std::snprintf(text, sizeof text, "%d:%02d:%02d", seconds / 3600, seconds / 60 % 60,
                      seconds % 60);
    else
        std::snprintf(text, sizeof text, "%d:%02d", seconds / 60, seconds % 60);
    return text;
}

std::string tag(const std::map<std::string, std::string> &tags, const std::string &name) {
    for (const auto &entry : tags) {
        if (strcasecmp(entry.first.c_str(), name.c_str()) == 0)
            return entry.second;
    }
    return "";
}

std::string fit(const std::string &text, int columns) {
    int count = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80 && ++count > columns)
            return text.substr(0, i);
    }
    return text;
}

} // namespace aeplay
