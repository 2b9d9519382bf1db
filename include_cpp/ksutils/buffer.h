/// @file
/// Byte views and buffers used by every sender and receiver of the library.
/// A buffer_view remembers how far it has been consumed, so a partial send resumes
/// where it stopped; a buffer is an owning vector that receivers append to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace ks {

/// A view of bytes with a read position: what has been consumed and what remains.
class buffer_view {
public:
    constexpr buffer_view() noexcept = default;
    /// Views `size` bytes at `data`, already consumed up to `pos` (clamped to `size`).
    constexpr buffer_view(const void* data, size_t size, size_t pos = 0) noexcept
        : data_(static_cast<const uint8_t*>(data)), size_(size), pos_(pos < size ? pos : size) {}
    /// Views the characters of `text`, nothing consumed.
    buffer_view(std::string_view text) noexcept : buffer_view(text.data(), text.size()) {}

    /// The first byte viewed.
    const uint8_t* data() const noexcept { return data_; }
    /// The number of bytes viewed.
    size_t size() const noexcept { return size_; }
    /// How many bytes are consumed.
    size_t pos() const noexcept { return pos_; }

    /// The unconsumed part.
    const uint8_t* current() const noexcept { return data_ + pos_; }
    /// The number of unconsumed bytes.
    size_t remaining() const noexcept { return size_ - pos_; }
    /// True when every byte is consumed.
    bool done() const noexcept { return pos_ == size_; }

    /// Consumes `n` more bytes (at most what remains).
    void advance(size_t n) noexcept { pos_ = n >= remaining() ? size_ : pos_ + n; }
    /// Makes every byte unconsumed again.
    void rewind() noexcept { pos_ = 0; }

private:
    const uint8_t* data_ = nullptr;
    size_t size_ = 0;
    size_t pos_ = 0;
};

/// An owning byte vector that receivers append to.
class buffer : public std::vector<uint8_t> {
public:
    using std::vector<uint8_t>::vector;

    /// Appends `n` bytes copied from `data`.
    void append(const void* data, size_t n) {
        auto p = static_cast<const uint8_t*>(data);
        insert(end(), p, p + n);
    }
    /// Appends the characters of `text`.
    void append(std::string_view text) { append(text.data(), text.size()); }

    /// A view of the whole contents, nothing consumed.
    buffer_view view() const noexcept { return buffer_view(data(), size()); }
    /// The contents as characters.
    std::string_view as_text() const noexcept {
        return std::string_view(reinterpret_cast<const char*>(data()), size());
    }
};

}  // namespace ks
