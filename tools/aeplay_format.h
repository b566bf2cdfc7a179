// Text aeplay shows: clock times, tags by name, lines cut to the terminal's width.
#pragma once

#include <map>
#include <string>

namespace aeplay {

// "m:ss", or "h:mm:ss" from an hour on; negative times show as 0:00.
std::string clock_text(int seconds);

// A tag by name, ignoring case (containers differ: "title", "TITLE", "Title"); empty if absent.
std::string tag(const std::map<std::string, std::string> &tags, const std::string &name);

// Cuts UTF-8 text to `columns` characters (one column per character is close enough).
std::string fit(const std::string &text, int columns);

} // namespace aeplay
