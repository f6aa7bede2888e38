// The bytes of one media file, wherever they come from.

#ifndef SIM_CONTENT_H
#define SIM_CONTENT_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace flickr_sim {

/// An immutable sequence of bytes: a value that is cheap to copy, of any size, made or read block by block
/// while it is sent. The same arguments always give the same bytes.
class Content {
public:
    /// Takes one block; false ends the transfer.
    using Sink = std::function<bool(const char* data, std::size_t length)>;

    /// Where the bytes come from.
    class Source {
    public:
        virtual ~Source() = default;
        virtual std::uint64_t size() const = 0;
        /// Hands over all bytes in order; false when the sink ended it or they could not be read.
        virtual bool send(const Sink& sink) const = 0;
        /// Of a JPEG file, the same picture made smaller; otherwise none.
        virtual Content reducedPicture(int) const { return Content(); }
    };

    /// None: not even an empty file. Tests false.
    Content() = default;
    explicit Content(std::shared_ptr<const Source> source) : source_(std::move(source)) {}

    /// These bytes; an empty string is an empty file.
    static Content bytes(std::string bytes);
    /// A file on disk, read while it is sent; its size is asked each time.
    static Content file(std::string path);
    /// Bytes that look random, in constant memory. Each 64 KiB block starts with its number, so that a lost,
    /// repeated or misplaced block shows.
    static Content pattern(std::uint64_t size, std::uint64_t seed);
    /// As pattern(), behind the first boxes of an MP4 file. Of at least 48 bytes.
    static Content video(std::uint64_t size, std::uint64_t seed);
    /// A JPEG picture of the given pixels that holds mark as a comment, and further comments that bring it to
    /// size bytes if it is smaller. A few designs exist; design is taken modulo their number.
    static Content picture(unsigned design, int width, int height, std::string mark, std::uint64_t size = 0);
    explicit operator bool() const { return source_ != nullptr; }
    std::uint64_t size() const { return source_ ? source_->size() : 0; }
    /// Hands the first limit bytes, or all, to the sink in blocks. False when the sink ended it or the bytes
    /// could not be read.
    bool send(const Sink& sink, std::uint64_t limit = UINT64_MAX) const;
    /// Bytes first to first + count - 1, from 0; as many of them as there are.
    Content part(std::uint64_t first, std::uint64_t count) const;
    /// A JPEG file's picture scaled down until its longer side has at most longestSide pixels, made when it
    /// is first asked for (a drawn one when the file cannot be decoded). None for what is not a JPEG file.
    Content reducedPicture(int longestSide) const;
    /// All bytes at once; for small contents.
    std::string text() const;
    /// Whether the file holds exactly these bytes.
    bool equalsFile(const std::string& path) const;

private:
    std::shared_ptr<const Source> source_;
};

}  // namespace flickr_sim

#endif
