#include "console/Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <string_view>

namespace vrk::app {

bool canRewriteLines(int descriptor) {
    const char* terminal = std::getenv("TERM");
    return isatty(descriptor) != 0 && terminal && *terminal && std::string_view(terminal) != "dumb";
}

int columnsOf(int descriptor) {
    winsize size = {};
    if (ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
    const char* stated = std::getenv("COLUMNS");
    int columns = 0;
    if (stated) std::from_chars(stated, stated + std::string_view(stated).size(), columns);
    return columns > 0 ? columns : 0;
}

std::string fitted(const std::string& text, int columns) {
    int used = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool begins = (static_cast<unsigned char>(text[i]) & 0xC0U) != 0x80U;
        if (begins && used++ == columns) return text.substr(0, i);
    }
    return text;
}

}  // namespace vrk::app
