#include "console/Suggestion.h"

#include <algorithm>
#include <cctype>
#include <cstddef>

namespace vrk::app {
namespace {

constexpr std::size_t kMostSuggestions = 3;

/// Lower case, without dashes and underscores.
std::string plain(const std::string& word) {
    std::string letters;
    for (const char c : word)
        if (c != '-' && c != '_') letters += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return letters;
}

/// Letters to insert, drop, replace or swap with their neighbour to make one word of the other.
std::size_t slipsBetween(const std::string& a, const std::string& b) {
    std::vector<std::vector<std::size_t>> slips(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i <= a.size(); ++i)
        for (std::size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                slips[i][j] = i + j;
                continue;
            }
            slips[i][j] = std::min({slips[i - 1][j] + 1, slips[i][j - 1] + 1,
                                    slips[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                slips[i][j] = std::min(slips[i][j], slips[i - 2][j - 2] + 1);
        }
    return slips[a.size()][b.size()];
}

}  // namespace

std::vector<std::string> wordsLike(const std::string& typed, const std::vector<std::string>& words) {
    // A name that somebody made up may be as long as a file.
    const std::string letters = plain(typed).substr(0, 64);
    std::vector<std::string> same, longer, near;
    std::size_t fewest = std::max<std::size_t>(1, letters.size() / 3);
    for (const std::string& word : words) {
        const std::string other = plain(word);
        if (other == letters) same.push_back(word);
        if (letters.size() > 1 && other.starts_with(letters)) longer.push_back(word);
        const std::size_t slips = slipsBetween(letters, other);
        if (slips < fewest) near.clear();
        if (slips <= fewest) near.push_back(word);
        fewest = std::min(fewest, slips);
    }
    std::vector<std::string>& best = !same.empty() ? same : !longer.empty() ? longer : near;
    if (best.size() > kMostSuggestions) best.resize(kMostSuggestions);
    return best;
}

std::string didYouMean(const std::string& typed, const std::vector<std::string>& words) {
    const std::vector<std::string> best = wordsLike(typed, words);
    std::string text;
    for (std::size_t i = 0; i < best.size(); ++i)
        text += (i == 0 ? "; did you mean " : i + 1 == best.size() ? " or " : ", ") + best[i];
    return text.empty() ? text : text + "?";
}

}  // namespace vrk::app
