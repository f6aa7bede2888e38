#include "sim/Content.h"

#include <Poco/Hash.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <list>
#include <mutex>
#include <random>
#include <vector>

#include "sim/Picture.h"

namespace flickr_sim {

namespace {

constexpr std::size_t kStamped = 64 * 1024;  // bytes of a pattern's block
constexpr std::size_t kBlock = 256 * 1024;   // bytes handed over at once; a multiple of kStamped

class TextSource : public Content::Source {
public:
    explicit TextSource(std::string text) : text_(std::move(text)) {}
    std::uint64_t size() const override { return text_.size(); }
    bool send(const Content::Sink& sink) const override { return sink(text_.data(), text_.size()); }

private:
    const std::string text_;
};

class FileSource : public Content::Source {
public:
    explicit FileSource(std::string path) : path_(std::move(path)) {}

    std::uint64_t size() const override {
        std::error_code error;
        const std::uintmax_t size = std::filesystem::file_size(path_, error);
        return error ? 0 : size;
    }

    bool send(const Content::Sink& sink) const override {
        std::ifstream file;
        file.rdbuf()->pubsetbuf(nullptr, 0);  // the block is the buffer
        file.open(path_, std::ios::binary);
        if (!file) return false;
        std::vector<char> block(kBlock);
        while (file.read(block.data(), static_cast<std::streamsize>(block.size())), file.gcount() > 0) {
            if (!sink(block.data(), static_cast<std::size_t>(file.gcount()))) return false;
        }
        return true;
    }

    Content reducedPicture(int longestSide) const override;

private:
    const std::string path_;
};

class PatternSource : public Content::Source {
public:
    PatternSource(std::uint64_t size, std::uint64_t seed, std::string head)
        : size_(size), seed_(seed), head_(std::move(head)) {}

    std::uint64_t size() const override { return size_; }

    bool send(const Content::Sink& sink) const override {
        std::vector<std::uint64_t> words(std::min<std::uint64_t>(kBlock, size_ + 7) / 8);
        std::mt19937_64 random(seed_);
        for (std::uint64_t& word : words) word = random();
        char* const block = reinterpret_cast<char*>(words.data());
        for (std::uint64_t done = 0; done < size_;) {
            const std::size_t length = std::min<std::uint64_t>(words.size() * 8, size_ - done);
            for (std::size_t at = 0; at < length; at += kStamped) words[at / 8] = (done + at) / kStamped;
            if (done == 0) {
                // The bytes behind the head have to be those of the pattern again afterwards.
                std::string first(block, length);
                first.replace(0, std::min(head_.size(), length), head_, 0, length);
                if (!sink(first.data(), length)) return false;
            } else if (!sink(block, length)) {
                return false;
            }
            done += length;
        }
        return true;
    }

private:
    const std::uint64_t size_;
    const std::uint64_t seed_;
    const std::string head_;
};

/// A drawn picture with comment segments behind its first marker.
class PictureSource : public Content::Source {
public:
    PictureSource(unsigned design, int width, int height, std::string mark, std::uint64_t size)
        : design_(design), width_(width), height_(height), mark_(std::move(mark)), wanted_(size) {}

    std::uint64_t size() const override {
        const std::uint64_t least = drawPicture(design_, width_, height_)->size() + kSegment + mark_.size();
        return wanted_ < least + kSegment ? least : wanted_;
    }

    bool send(const Content::Sink& sink) const override {
        const auto drawn = drawPicture(design_, width_, height_);
        std::string out = drawn->substr(0, 2);
        appendSegment(out, mark_);
        std::uint64_t missing = size() - drawn->size() - kSegment - mark_.size();
        std::mt19937 random(static_cast<std::mt19937::result_type>(Poco::hash(mark_)));
        while (missing > 0) {
            std::uint64_t length = std::min<std::uint64_t>(missing, kSegmentMax);
            // What is left over must still have room for a segment's own bytes.
            if (missing - length > 0 && missing - length < kSegment) length -= kSegment;
            appendSegment(out, letters().substr(random() % kSegmentMax, length - kSegment));
            missing -= length;
            if (out.size() > kBlock) {
                if (!sink(out.data(), out.size())) return false;
                out.clear();
            }
        }
        out.append(*drawn, 2, std::string::npos);
        return sink(out.data(), out.size());
    }

private:
    static constexpr std::uint64_t kSegment = 4;         // marker and length
    static constexpr std::uint64_t kSegmentMax = 65537;  // of marker, length and text

    /// What fillings are cut from, at a place that depends on the mark: drawing each anew would cost more
    /// than sending it.
    static const std::string& letters() {
        static const std::string drawn = [] {
            std::mt19937 random;
            std::string text(2 * kSegmentMax, '\0');
            for (char& c : text) c = static_cast<char>('0' + random() % 64);
            return text;
        }();
        return drawn;
    }

    static void appendSegment(std::string& out, const std::string& text) {
        const std::size_t length = text.size() + 2;
        out += "\xFF\xFE";
        out += static_cast<char>(length >> 8);
        out += static_cast<char>(length & 0xFF);
        out += text;
    }

    const unsigned design_;
    const int width_;
    const int height_;
    const std::string mark_;
    const std::uint64_t wanted_;
};

/// Made when first asked for; the most recent ones are kept.
class ReducedSource : public Content::Source {
public:
    ReducedSource(std::string path, int longestSide) : path_(std::move(path)), longestSide_(longestSide) {}
    std::uint64_t size() const override { return make()->size(); }
    bool send(const Content::Sink& sink) const override {
        const auto picture = make();
        return sink(picture->data(), picture->size());
    }

private:
    using Made = std::shared_ptr<const std::string>;

    Made make() const {
        constexpr std::size_t kKept = 256;
        static std::mutex mutex;
        static std::list<std::pair<std::string, Made>> kept;  // most recent first
        std::error_code error;
        const auto changed = std::filesystem::last_write_time(path_, error).time_since_epoch().count();
        const std::string key = path_ + '\n' + std::to_string(longestSide_) + '\n' + std::to_string(changed);
        std::lock_guard<std::mutex> lock(mutex);
        const auto found =
            std::find_if(kept.begin(), kept.end(), [&](const auto& made) { return made.first == key; });
        if (found != kept.end()) {
            kept.splice(kept.begin(), kept, found);
            return found->second;
        }
        std::string picture = reduceJpeg(path_, longestSide_);
        if (picture.empty()) {
            picture =
                *drawPicture(static_cast<unsigned>(Poco::hash(path_)), longestSide_, longestSide_ * 3 / 4);
        }
        kept.emplace_front(key, std::make_shared<const std::string>(std::move(picture)));
        if (kept.size() > kKept) kept.pop_back();
        return kept.front().second;
    }

    const std::string path_;
    const int longestSide_;
};

Content FileSource::reducedPicture(int longestSide) const {
    char magic[3] = {};
    std::ifstream(path_, std::ios::binary).read(magic, sizeof magic);
    if (std::memcmp(magic, "\xFF\xD8\xFF", sizeof magic) != 0) return Content();
    return Content(std::make_shared<ReducedSource>(path_, longestSide));
}

/// Some bytes in the middle of others.
class PartSource : public Content::Source {
public:
    PartSource(Content whole, std::uint64_t first, std::uint64_t count)
        : whole_(std::move(whole)), first_(first), count_(count) {}

    std::uint64_t size() const override {
        const std::uint64_t all = whole_.size();
        return std::min(count_, all - std::min(first_, all));
    }

    bool send(const Content::Sink& sink) const override {
        std::uint64_t left = first_;  // bytes still to be passed over
        const auto behind = [&](const char* data, std::size_t length) {
            const auto skipped = static_cast<std::size_t>(std::min<std::uint64_t>(left, length));
            left -= skipped;
            return skipped == length || sink(data + skipped, length - skipped);
        };
        return whole_.send(behind, first_ + size());
    }

private:
    const Content whole_;
    const std::uint64_t first_;
    const std::uint64_t count_;
};

void appendBigEndian(std::string& out, std::uint64_t value, int bytes) {
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) out += static_cast<char>(value >> shift);
}

}  // namespace

Content Content::bytes(std::string bytes) {
    return Content(std::make_shared<TextSource>(std::move(bytes)));
}

Content Content::file(std::string path) {
    return Content(std::make_shared<FileSource>(std::move(path)));
}

Content Content::pattern(std::uint64_t size, std::uint64_t seed) {
    return Content(std::make_shared<PatternSource>(size, seed, std::string()));
}

Content Content::video(std::uint64_t size, std::uint64_t seed) {
    // The file type, then one box of media data (with a 64-bit length) to the end.
    size = std::max<std::uint64_t>(size, 48);
    std::string head;
    appendBigEndian(head, 32, 4);
    head += "ftypisom";
    appendBigEndian(head, 512, 4);
    head += "isomiso2avc1mp41";
    appendBigEndian(head, 1, 4);
    head += "mdat";
    appendBigEndian(head, size - 32, 8);
    return Content(std::make_shared<PatternSource>(size, seed, std::move(head)));
}

Content Content::picture(unsigned design, int width, int height, std::string mark, std::uint64_t size) {
    mark.resize(std::min<std::size_t>(mark.size(), 60000));
    return Content(std::make_shared<PictureSource>(design, width, height, std::move(mark), size));
}

Content Content::part(std::uint64_t first, std::uint64_t count) const {
    return Content(std::make_shared<PartSource>(*this, first, count));
}

Content Content::reducedPicture(int longestSide) const {
    return source_ ? source_->reducedPicture(longestSide) : Content();
}

bool Content::send(const Sink& sink, std::uint64_t limit) const {
    if (!source_) return true;
    std::uint64_t left = limit;
    bool open = true;  // whether the sink wants more
    const bool whole = source_->send([&](const char* data, std::size_t length) {
        const std::size_t part = static_cast<std::size_t>(std::min<std::uint64_t>(length, left));
        left -= part;
        open = sink(data, part);
        return open && left > 0;
    });
    return open && (whole || left == 0);
}

std::string Content::text() const {
    std::string text;
    send([&](const char* data, std::size_t length) {
        text.append(data, length);
        return true;
    });
    return text;
}

bool Content::equalsFile(const std::string& path) const {
    std::ifstream file(path, std::ios::binary);
    std::vector<char> block;
    const bool same = file && send([&](const char* data, std::size_t length) {
                          block.resize(length);
                          file.read(block.data(), static_cast<std::streamsize>(length));
                          return static_cast<std::size_t>(file.gcount()) == length &&
                                 std::equal(block.begin(), block.end(), data);
                      });
    return same && file.peek() == std::ifstream::traits_type::eof();
}

}  // namespace flickr_sim
