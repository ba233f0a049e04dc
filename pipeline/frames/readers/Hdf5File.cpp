/// \file
/// Frames in HDF5 files: NeXus masters, EMD, plain arrays.
#include <algorithm>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>

#include "pipeline/base/MemoryLimit.h"
#include "pipeline/frames/FrameFormat.h"
#include "pipeline/frames/detail/Hdf5Contents.h"
#include "pipeline/frames/detail/SeparateProcess.h"

namespace vrk {
namespace {

using detail::Hdf5Contents;
using detail::Hdf5Id;

/// What the process that reads the file does. The library trusts the files it reads; damaged ones crash it or
/// make it loop.
class Hdf5Server {
public:
    /// \param bytes  of the file, and of those that hold its frames when they are known already
    Hdf5Server(const FrameSource& source, std::uint64_t bytes) : m_source(source), m_bytes(bytes) {
        H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
        // A small file costs little, whatever is in it: tables of frames and masks unpack to some times its
        // size.
        constexpr std::uint64_t kLeast = std::uint64_t{192} << 20, kMost = std::uint64_t{6} << 30;
        constexpr std::uint64_t kTimes = 4096;
        detail::SeparateProcess::allowMemory(std::min(
            {kMost, kLeast + kTimes * std::min(bytes, kMost / kTimes), std::max(kLeast, memoryLeft())}));
    }

    /// "contents", or "frame STACK AXIS SLICE SIZE" once that was asked.
    void answer(const std::string& request, const detail::SeparateProcess::Reply& reply) {
        if (request == "contents") {
            detail::SeparateProcess::allowSeconds(secondsFor(m_bytes));
            m_file = detail::openHdf5(m_source);
            return reply(describe());
        }
        detail::SeparateProcess::allowSeconds(secondsFor(m_bytes + bytesIn(m_contents.parts)));
        std::istringstream words(request);
        std::string word;
        std::size_t stack = 0;
        int axis = 0;
        long long slice = 0;
        std::size_t size = 0;
        words >> word >> stack >> axis >> slice >> size;
        const std::vector<float> pixels = frame(stack, axis, slice, size);
        reply({reinterpret_cast<const char*>(pixels.data()), pixels.size() * sizeof(float)});
    }

private:
    /// Enough for any file of this size, however slow the machine.
    static double secondsFor(std::uint64_t bytes) {
        constexpr double kLeast = 0.9, kMost = 30.0, kBytesASecond = 1 << 16;
        return std::min(kLeast + static_cast<double>(bytes) / kBytesASecond, kMost);
    }

    /// Names in a file may be long and hold whatever moves a cursor.
    static std::string inOneLine(std::string text) {
        constexpr std::size_t kLongest = 500;
        if (text.size() > kLongest) text = text.substr(0, kLongest) + "...";
        std::replace_if(
            text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 127; }, '?');
        return text;
    }

    std::string describe() {
        if (!m_file) return "";
        m_contents = detail::contentsOf(m_file, m_source);
        if (const std::string array = detail::arrayOfItself(); !array.empty())
            m_contents.problem = array +
                                 " gathers its frames from itself, or by too many steps; name an "
                                 "array that holds them as " +
                                 m_source.path().string() + ":/PATH";
        if (const std::string outside = detail::fileOutside(); !outside.empty())
            m_contents.problem = "it names " + outside +
                                 ", which lies outside its folder; vrk import --allow-outside takes frames "
                                 "from anywhere";
        nlohmann::ordered_json infos = nlohmann::ordered_json::array();
        for (const FrameInfo& info : m_contents.infos) {
            nlohmann::ordered_json values = {info.width, info.height};
            for (const auto value :
                 {info.tilt, info.rotation, info.pixelSize, info.kilovolts, info.axis, info.exposure})
                values.push_back(value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json());
            infos.push_back(std::move(values));
        }
        nlohmann::ordered_json stacks = nlohmann::ordered_json::array();
        for (const detail::Hdf5Stack& stack : m_contents.stacks)
            stacks.push_back({stack.axis, stack.count});
        const nlohmann::ordered_json all = {{"infos", infos},
                                            {"stacks", stacks},
                                            {"parts", m_contents.parts},
                                            {"problem", inOneLine(m_contents.problem)}};
        const std::vector<std::uint8_t> bytes = nlohmann::ordered_json::to_cbor(all);
        return {bytes.begin(), bytes.end()};
    }

    /// None when they cannot be read.
    std::vector<float> frame(std::size_t stack, int axis, long long slice, std::size_t size) {
        // The array stays open, so that pieces of the file that hold several frames are unpacked once.
        if (!m_array || m_openStack != stack)
            m_array = detail::arrayAt(m_file.get(), m_contents.stacks.at(stack).path);
        m_openStack = stack;
        std::vector<float> pixels(size);
        if (!m_array || !detail::readSlice(m_array, axis, slice, pixels)) return {};
        markDead(pixels);
        return pixels;
    }

    void markDead(std::vector<float>& pixels) const {
        const Hdf5Id type(H5Dget_type(m_array.get()));
        const bool isUnsigned =
            H5Tget_class(type.get()) == H5T_INTEGER && H5Tget_sign(type.get()) == H5T_SGN_NONE;
        const float allBitsSet = std::ldexp(1.0F, static_cast<int>(8 * H5Tget_size(type.get()))) - 1;
        constexpr float dead = std::numeric_limits<float>::quiet_NaN();
        for (std::size_t i = 0; i < pixels.size(); ++i) {
            const bool masked = i < m_contents.mask.size() && m_contents.mask[i] != 0;
            if (masked || (m_contents.largestIsDead && isUnsigned && pixels[i] == allBitsSet))
                pixels[i] = dead;
        }
    }

    FrameSource m_source;
    std::uint64_t m_bytes;
    Hdf5Id m_file;
    Hdf5Contents m_contents;
    Hdf5Id m_array;
    std::size_t m_openStack = 0;
};

class Hdf5File : public FrameFile {
public:
    explicit Hdf5File(FrameSource source);

    std::vector<std::filesystem::path> parts() const override { return m_parts; }

private:
    Frame readFrame(int frame) const override;
    /// Refuses the file after the process that reads it has died.
    [[noreturn]] void refuseDamaged(const std::string& what) const;
    /// Starts the process that reads the file. Files of one frame keep none between two readings.
    nlohmann::ordered_json start() const;

    std::vector<std::array<int, 2>> m_stacks;  ///< of each the axis that counts frames, and their number
    std::vector<std::filesystem::path> m_parts;
    mutable std::unique_ptr<detail::SeparateProcess> m_process;
};

FrameFormat::Match recogniseHdf5(const FileStart& start) {
    return start.bytes.starts_with("\x89HDF\r\n\x1a\n") ? FrameFormat::Match::Yes : FrameFormat::Match::No;
}

const FrameFormat::Registration kHdf5({"HDF5", recogniseHdf5, FrameFormat::openAs<Hdf5File>});

void Hdf5File::refuseDamaged(const std::string& what) const {
    const std::string excess = m_process->excess();
    m_process.reset();
    refuse(what + (excess.empty() ? "" : "; reading it takes more " + excess + " than files of its size do"));
}

nlohmann::ordered_json Hdf5File::start() const {
    const auto server = std::make_shared<std::unique_ptr<Hdf5Server>>();
    // What is packed is unpacked here, once for both processes.
    const std::uint64_t bytes = source().open()->size() + bytesIn(m_parts);
    m_process = std::make_unique<detail::SeparateProcess>(
        [this, bytes, server](const std::string& request, const detail::SeparateProcess::Reply& reply) {
            if (!*server) *server = std::make_unique<Hdf5Server>(source(), bytes);
            (*server)->answer(request, reply);
        });
    constexpr std::size_t kLongest = std::size_t{1} << 27;
    const std::optional<std::string> answer = m_process->ask("contents", kLongest);
    nlohmann::ordered_json contents = nlohmann::ordered_json::from_cbor(answer.value_or(""), true, false);
    if (!contents.is_object()) refuseDamaged("the HDF5 file is damaged or truncated");
    return contents;
}

Hdf5File::Hdf5File(FrameSource source) : FrameFile(std::move(source)) {
    const nlohmann::ordered_json contents = start();
    const std::string problem = contents.at("problem");
    if (!problem.empty()) refuse(problem);
    if (contents.at("infos").empty()) refuse("it holds no frames");
    for (const nlohmann::ordered_json& values : contents.at("infos")) {
        FrameInfo info;
        info.width = values.at(0);
        info.height = values.at(1);
        checkSize(info.width, info.height);
        std::size_t i = 2;
        for (auto* value :
             {&info.tilt, &info.rotation, &info.pixelSize, &info.kilovolts, &info.axis, &info.exposure}) {
            if (values.at(i).is_number()) *value = values.at(i).get<double>();
            ++i;
        }
        // Damaged angles are none.
        constexpr double kMostDegrees = 36000;
        if (!(std::abs(info.tilt.value_or(0)) <= kMostDegrees)) info.tilt.reset();
        m_infos.push_back(info);
    }
    m_stacks = contents.at("stacks").get<std::vector<std::array<int, 2>>>();
    m_parts = contents.at("parts").get<std::vector<std::filesystem::path>>();
    if (count() == 1) m_process.reset();
}

Frame Hdf5File::readFrame(int frame) const {
    if (!m_process) start();
    std::size_t stack = 0;
    int slice = frame;
    while (slice >= m_stacks.at(stack)[1])
        slice -= m_stacks[stack++][1];
    const FrameInfo& info = m_infos[static_cast<std::size_t>(frame)];
    Frame result{info.width, info.height, {}};
    result.pixels.resize(static_cast<std::size_t>(info.width) * static_cast<std::size_t>(info.height));
    std::ostringstream request;
    request << "frame " << stack << ' ' << m_stacks[stack][0] << ' ' << slice << ' ' << result.pixels.size();
    const std::span pixels(reinterpret_cast<char*>(result.pixels.data()),
                           result.pixels.size() * sizeof(float));
    if (!m_process->ask(request.str(), pixels))
        refuseDamaged("frame " + std::to_string(frame + 1) +
                      " cannot be read; the file is damaged or truncated");
    if (count() == 1) m_process.reset();
    return result;
}

}  // namespace
}  // namespace vrk
