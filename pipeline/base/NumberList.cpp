#include "pipeline/base/NumberList.h"

#include <charconv>
#include <cmath>
#include <sstream>

#include "pipeline/base/Failure.h"

namespace vrk {

bool parseNumber(const std::string& text, double& value) {
    const char* blanks = " \t\r\n";
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) return false;
    const std::size_t last = text.find_last_not_of(blanks);
    const char* begin = text.data() + first + (text[first] == '+' ? 1 : 0);
    const char* end = text.data() + last + 1;
    const auto [stop, error] = std::from_chars(begin, end, value);
    return error == std::errc() && stop == end && std::isfinite(value);
}

std::vector<double> numbersOf(const std::string& text, char separator, const std::string& option) {
    std::vector<double> numbers;
    std::istringstream stream(text);
    for (std::string piece; std::getline(stream, piece, separator);) {
        double value = 0;
        if (!parseNumber(piece, value))
            throw Failure(std::string(option).append(": \"").append(piece).append("\" is not a number"),
                          FailureKind::Usage);
        numbers.push_back(value);
    }
    return numbers;
}

}  // namespace vrk
