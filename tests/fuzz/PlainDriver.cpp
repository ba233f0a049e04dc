// Runs a fuzz target without libFuzzer: every file of its corpus, then changed ones. The changes are random
// numbers of a seed, so the same call runs the same inputs. Options are named as libFuzzer's:
//   fuzz_TARGET [-runs=N] [-seed=N] [-dict=FILE] [-artifact_prefix=PATH] FILE|FOLDER...
// The input in hand lies in the file PATHinput, which stays when the target fails.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

struct Options {
    long runs = 0;
    std::uint64_t seed = 1;
    std::string prefix = "./";
    std::vector<std::string> words;
    std::vector<std::string> corpus;
};

std::string contentOf(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error(path.string() + " cannot be read");
    return {std::istreambuf_iterator<char>(file), {}};
}

/// The words of a dictionary: one a line in quotes, with \\, \" and \xNN.
std::vector<std::string> wordsOf(const std::string& path) {
    std::vector<std::string> words;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        const std::size_t begin = line.find('"'), end = line.rfind('"');
        if (line.starts_with('#') || begin == end) continue;
        std::string word;
        for (std::size_t i = begin + 1; i < end; ++i) {
            char sign = line[i];
            if (sign == '\\' && (sign = line[++i]) == 'x') {
                sign = static_cast<char>(std::stoi(line.substr(i + 1, 2), nullptr, 16));
                i += 2;
            }
            word += sign;
        }
        words.push_back(word);
    }
    if (words.empty()) throw std::runtime_error(path + " holds no words");
    return words;
}

Options optionsOf(int count, char** arguments) {
    Options options;
    for (const std::string_view argument : std::vector<std::string_view>(arguments + 1, arguments + count)) {
        const std::size_t equals = argument.find('=');
        const std::string value(argument.substr(equals == std::string_view::npos ? 0 : equals + 1));
        if (argument.starts_with("-runs="))
            options.runs = std::stol(value);
        else if (argument.starts_with("-seed="))
            options.seed = std::stoull(value);
        else if (argument.starts_with("-dict="))
            options.words = wordsOf(value);
        else if (argument.starts_with("-artifact_prefix="))
            options.prefix = value;
        else if (argument.starts_with('-'))
            throw std::runtime_error(std::string(argument) + " is no option here");
        else {
            std::vector<std::filesystem::path> files{argument};
            if (std::filesystem::is_directory(argument))
                files.assign(std::filesystem::directory_iterator(argument), {});
            std::ranges::sort(files);
            std::ranges::transform(files, std::back_inserter(options.corpus), contentOf);
        }
    }
    if (options.corpus.empty()) throw std::runtime_error("there is no corpus");
    return options;
}

/// Makes new inputs of those of a corpus.
class Mutator {
public:
    explicit Mutator(const Options& options) : m_options(options), m_random(options.seed) {}

    std::string next() {
        std::string input = m_options.corpus[below(m_options.corpus.size())];
        for (std::size_t changes = 1 + below(6); changes > 0; --changes)
            change(input);
        input.resize(std::min(input.size(), std::size_t{4096}));
        return input;
    }

private:
    /// A number from 0 to count - 1; 0 for a count of 0.
    std::size_t below(std::size_t count) { return count > 0 ? m_random() % count : 0; }

    void change(std::string& input) {
        const std::size_t at = below(input.size() + 1);
        const std::size_t length = std::min(std::size_t{1} << below(7), input.size() - at);
        const std::size_t kind = below(10);
        if (kind == 0)
            input.erase(at, length);
        else if (kind == 1)
            input.insert(at, input.substr(below(input.size()), length));
        else if (kind == 2)
            input.resize(at);
        else if (kind == 3)
            input.insert(at, 1 + below(8), static_cast<char>(below(256)));
        else if (kind == 4)
            splice(input, at);
        else if (kind == 5)
            number(input, at);
        else if (kind < 8)
            word(input, at, length);
        else if (at < input.size())
            input[at] = static_cast<char>(input[at] ^ (1 << below(8)));
    }

    /// The end of another input from here on.
    void splice(std::string& input, std::size_t at) {
        const std::string& other = m_options.corpus[below(m_options.corpus.size())];
        input.replace(at, std::string::npos, other.substr(std::min(at + below(8), other.size())));
    }

    /// A whole number of 1 to 8 bytes, mostly one at a border.
    void number(std::string& input, std::size_t at) {
        std::uint64_t value = below(3) == 0 ? m_random() : std::uint64_t{1} << below(64);
        value -= below(3);
        if (below(2) == 0) value = ~value;
        if (below(4) == 0) value = __builtin_bswap64(value);
        const std::size_t size = std::min(std::size_t{1} << below(4), input.size() - at);
        std::memcpy(input.data() + at, &value, size);
    }

    /// A word of the dictionary or a number as text.
    void word(std::string& input, std::size_t at, std::size_t length) {
        constexpr std::string_view kTexts[] = {"0",   "-1",    "1e308", "-1e-308", "nan", "inf", "2147483648",
                                               "1e9", "65536", ",",     "\n",      " ",   "\"",  "{"};
        const std::size_t which = below(m_options.words.size() + std::size(kTexts));
        const std::string_view text = which < m_options.words.size()
                                          ? std::string_view(m_options.words[which])
                                          : kTexts[which - m_options.words.size()];
        input.replace(at, below(2) == 0 ? 0 : length, text);
    }

    const Options& m_options;
    std::mt19937_64 m_random;
};

/// Runs inputs, each of which lies in a file meanwhile.
class Runner {
public:
    explicit Runner(const std::string& path)
        : m_path(path), m_file(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)) {
        if (m_file < 0) throw std::runtime_error(path + " cannot be written");
        std::fprintf(stderr, "fuzz: the input in hand lies in %s\n", path.c_str());
    }

    void run(const std::string& input) {
        const auto size = static_cast<off_t>(input.size());
        if (ftruncate(m_file, size) != 0 || pwrite(m_file, input.data(), input.size(), 0) != size)
            throw std::runtime_error(m_path + " cannot be written");
        // A copy of its own size, beyond which no byte may be read.
        const std::vector<std::uint8_t> bytes(input.begin(), input.end());
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
        ++m_runs;
    }

    void finish() {
        close(m_file);
        std::filesystem::remove(m_path);
        std::printf("fuzz: %ld runs\n", m_runs);
    }

private:
    std::string m_path;
    int m_file;
    long m_runs = 0;
};

}  // namespace

int main(int count, char** arguments) try {
    const Options options = optionsOf(count, arguments);
    Runner runner(options.prefix + "input");
    for (const std::string& input : options.corpus)
        runner.run(input);
    Mutator mutator(options);
    for (long i = static_cast<long>(options.corpus.size()); i < options.runs; ++i)
        runner.run(mutator.next());
    runner.finish();
} catch (const std::exception& error) {
    std::fprintf(stderr, "fuzz: %s\n", error.what());
    return 2;
}
