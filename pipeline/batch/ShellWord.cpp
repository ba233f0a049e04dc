#include "pipeline/batch/ShellWord.h"

namespace vrk {

std::string shellWord(const std::string& word) {
    std::string text = "'";
    for (const char sign : word)
        text += sign == '\'' ? std::string("'\\''") : std::string(1, sign);
    return text + "'";
}

}  // namespace vrk
