#include "pipeline/frames/detail/Unpacking.h"

#include <bzlib.h>
#include <zlib.h>

#include <array>
#include <utility>
#include <vector>

namespace vrk::detail {
namespace {

enum class Step { More, MemberEnds, Damaged };

/// zlib's state while it unpacks the members of one file.
class Gunzip {
public:
    static constexpr const char* kName = "gzip";
    Gunzip() {
        constexpr int gzipOnly = 16 + MAX_WBITS;
        m_good = inflateInit2(&m_stream, gzipOnly) == Z_OK;
    }
    ~Gunzip() { inflateEnd(&m_stream); }
    Gunzip(const Gunzip&) = delete;
    Gunzip& operator=(const Gunzip&) = delete;

    bool good() const { return m_good; }
    bool restart() { return inflateReset(&m_stream) == Z_OK; }
    Step step(std::span<const char>& packed, std::span<char>& target) {
        m_stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.data()));
        m_stream.avail_in = static_cast<uInt>(packed.size());
        m_stream.next_out = reinterpret_cast<Bytef*>(target.data());
        m_stream.avail_out = static_cast<uInt>(target.size());
        const int result = inflate(&m_stream, Z_NO_FLUSH);
        packed = packed.last(m_stream.avail_in);
        target = target.last(m_stream.avail_out);
        if (result == Z_STREAM_END) return Step::MemberEnds;
        return result == Z_OK || result == Z_BUF_ERROR ? Step::More : Step::Damaged;
    }

private:
    z_stream m_stream{};
    bool m_good = false;
};

class Bunzip2 {
public:
    static constexpr const char* kName = "bzip2";
    Bunzip2() { m_good = BZ2_bzDecompressInit(&m_stream, 0, 0) == BZ_OK; }
    ~Bunzip2() { BZ2_bzDecompressEnd(&m_stream); }
    Bunzip2(const Bunzip2&) = delete;
    Bunzip2& operator=(const Bunzip2&) = delete;

    bool good() const { return m_good; }
    bool restart() {
        BZ2_bzDecompressEnd(&m_stream);
        m_stream = {};
        return BZ2_bzDecompressInit(&m_stream, 0, 0) == BZ_OK;
    }
    Step step(std::span<const char>& packed, std::span<char>& target) {
        m_stream.next_in = const_cast<char*>(packed.data());
        m_stream.avail_in = static_cast<unsigned>(packed.size());
        m_stream.next_out = target.data();
        m_stream.avail_out = static_cast<unsigned>(target.size());
        const int result = BZ2_bzDecompress(&m_stream);
        packed = packed.last(m_stream.avail_in);
        target = target.last(m_stream.avail_out);
        if (result == BZ_STREAM_END) return Step::MemberEnds;
        return result == BZ_OK ? Step::More : Step::Damaged;
    }

private:
    bz_stream m_stream{};
    bool m_good = false;
};

template <class Method>
bool unpack(const ChunkReader& next, std::uint64_t most, BeyondLimit beyond, std::string& unpacked,
            std::string& reason) {
    const std::string name = Method::kName;
    const auto fail = [&](const std::string& text) {
        reason = text;
        return false;
    };
    Method method;
    bool good = method.good();
    std::vector<char> block(1 << 18);
    bool inMember = true;
    bool blockFull = false;
    std::uint64_t members = 0;
    std::uint64_t ofThisMember = 0;
    std::span<const char> packed = next();
    while (!packed.empty() || (inMember && blockFull)) {
        if (!inMember) {
            good = method.restart();
            ofThisMember = 0;
        }
        if (!good) return fail("there is no memory to unpack it");
        std::span<char> room(block);
        const std::size_t before = packed.size();
        const Step step = method.step(packed, room);
        const std::size_t got = block.size() - room.size();
        const bool stuck = got == 0 && before > 0 && packed.size() == before;
        if (step == Step::Damaged || (stuck && step == Step::More)) {
            // Some programs pad the end of the file.
            if (members > 0 && ofThisMember == 0) return true;
            return fail("it is packed by " + name + " and damaged; fetch it anew");
        }
        if (unpacked.size() + got > most && beyond == BeyondLimit::Stop) {
            unpacked.append(block.data(), most - unpacked.size());
            return true;
        }
        if (unpacked.size() + got > most)
            return fail("it unpacks to more than " + std::to_string(most >> 20) +
                        " MiB; unpack it before the import");
        unpacked.append(block.data(), got);
        ofThisMember += got;
        blockFull = room.empty();
        inMember = step == Step::More;
        members += inMember ? 0 : 1;
        if (packed.empty() && !(inMember && blockFull)) packed = next();
    }
    if (inMember) return fail("it is packed by " + name + " and truncated; fetch it anew");
    return true;
}

}  // namespace

ChunkReader chunksOf(const std::string& bytes) {
    return [&bytes, position = std::size_t{0}]() mutable {
        constexpr std::size_t chunk = 1 << 20;
        const std::span<const char> all(bytes);
        const std::span<const char> piece = all.subspan(position, std::min(chunk, all.size() - position));
        position += piece.size();
        return piece;
    };
}

ChunkReader chunksOf(std::shared_ptr<std::istream> stream) {
    const auto block = std::make_shared<std::vector<char>>(1 << 18);
    return [stream = std::move(stream), block] {
        stream->read(block->data(), static_cast<std::streamsize>(block->size()));
        return std::span<const char>(block->data(), static_cast<std::size_t>(stream->gcount()));
    };
}

bool gunzip(const ChunkReader& next, std::uint64_t most, BeyondLimit beyond, std::string& unpacked,
            std::string& reason) {
    return unpack<Gunzip>(next, most, beyond, unpacked, reason);
}

bool bunzip2(const ChunkReader& next, std::uint64_t most, BeyondLimit beyond, std::string& unpacked,
             std::string& reason) {
    return unpack<Bunzip2>(next, most, beyond, unpacked, reason);
}

}  // namespace vrk::detail
