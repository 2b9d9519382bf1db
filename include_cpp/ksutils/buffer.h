// Byte views and buffers used by every sender and receiver of the library.
// A buffer_view remembers how far it has been consumed, so a partial send resumes
// where it stopped; a buffer is an owning vector that receivers append to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace ks {

class buffer_view {
public:
    constexpr buffer_view() noexcept = default;
    constexpr buffer_view(const void* data, size_t size, size_t pos = 0) noexcept
        : data_(static_cast<const uint8_t*>(data)), size_(size), pos_(pos < size ? pos : size) {}
    buffer_view(std::string_view text) noexcept : buffer_view(text.data(), text.size()) {}

    const uint8_t* data() const noexcept { return data_; }
    size_t size() const noexcept { return size_; }
    size_t pos() const noexcept { return pos_; }

    // The unconsumed part.
    const uint8_t* current() const noexcept { return data_ + pos_; }
    size_t remaining() const noexcept { return size_ - pos_; }
    bool done() const noexcept { return pos_ == size_; }

    void advance(size_t n) noexcept { pos_ = n >= remaining() ? size_ : pos_ + n; }
    void rewind() noexcept { pos_ = 0; }

private:
    const uint8_t* data_ = nullptr;
    size_t size_ = 0;
    size_t pos_ = 0;
};

class buffer : public std::vector<uint8_t> {
public:
    using std::vector<uint8_t>::vector;

    void append(const void* data, size_t n) {
        auto p = static_cast<const uint8_t*>(data);
        insert(end(), p, p + n);
    }
    void append(std::string_view text) { append(text.data(), text.size()); }

    buffer_view view() const noexcept { return buffer_view(data(), size()); }
    std::string_view as_text() const noexcept {
        return std::string_view(reinterpret_cast<const char*>(data()), size());
    }
};

}  // namespace ks
