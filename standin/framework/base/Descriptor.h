// Open files of the system.

#ifndef STANDIN_FRAMEWORK_BASE_DESCRIPTOR_H
#define STANDIN_FRAMEWORK_BASE_DESCRIPTOR_H

#include <cstddef>
#include <string>

namespace flickr_standin {

/// An open file descriptor, closed with the object. -1 for none.
class Descriptor {
public:
    explicit Descriptor(int number = -1) : number_(number) {}
    ~Descriptor();
    Descriptor(Descriptor&& other) noexcept : number_(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept;

    int get() const { return number_; }
    bool isOpen() const { return number_ >= 0; }
    int release();

private:
    int number_;
};

/// Writes all of the bytes, in as many calls as it takes. Gives 0 or an error number.
int writeAll(const Descriptor& file, const char* data, std::size_t size);

/// Appends the file's bytes to text, in as many calls as it takes; not more than limit and one of them, which
/// tells that there are more. Gives 0 or an error number.
int readAll(const Descriptor& file, std::string& text, std::size_t limit = std::string::npos - 1);

}  // namespace flickr_standin

#endif
