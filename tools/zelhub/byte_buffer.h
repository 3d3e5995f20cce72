// A growable byte queue: bytes are appended at the back and consumed from the
// front. Each client has one for what it sent and one for what it is owed.
//
// The whole hub runs on one thread, so nothing in it locks.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>

namespace zelhub {

class ByteBuffer {
public:
    char *data() { return bytes_.get() + begin_; }
    size_t size() const { return end_ - begin_; }
    bool empty() const { return begin_ == end_; }
    size_t capacity() const { return capacity_; }
    // Free bytes at the back, ready for `commit`.
    size_t room() const { return capacity_ - end_; }
    char *back() { return bytes_.get() + end_; }

    // Makes at least `n` bytes of room at the back: slides the bytes to the
    // front when that is enough, else grows (at least doubling, so appends
    // stay cheap in the long run).
    void reserve_room(size_t n)
    {
        if (room() >= n)
            return;
        if (capacity_ - size() >= n) {
            slide_to_front();
            return;
        }
        resize(std::max({capacity_ * 2, size() + n, minimum_capacity}));
    }
    void commit(size_t n) { end_ += n; }

    void append(const char *bytes, size_t n)
    {
        reserve_room(n);
        std::memcpy(back(), bytes, n);
        end_ += n;
    }

    void consume(size_t n)
    {
        begin_ += n;
        if (begin_ == end_)
            begin_ = end_ = 0; // the next bytes start at the front again, no copy needed
    }

    // Gives the memory back once empty if a burst made it bigger than `limit`,
    // so one large message does not pin that much memory for good.
    void shrink_if_empty_and_above(size_t limit)
    {
        if (empty() && capacity_ > limit) {
            bytes_.reset();
            capacity_ = 0;
        }
    }

private:
    static constexpr size_t minimum_capacity = 4096;

    void slide_to_front()
    {
        std::memmove(bytes_.get(), data(), size());
        end_ -= begin_;
        begin_ = 0;
    }

    void resize(size_t capacity)
    {
        // Not value-initialised: the bytes are written before they are read.
        std::unique_ptr<char[]> bigger(new char[capacity]);
        if (size())
            std::memcpy(bigger.get(), data(), size());
        end_ = size();
        begin_ = 0;
        bytes_ = std::move(bigger);
        capacity_ = capacity;
    }

    std::unique_ptr<char[]> bytes_;
    size_t capacity_ = 0;
    size_t begin_ = 0;
    size_t end_ = 0;
};

} // namespace zelhub
