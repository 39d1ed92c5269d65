// A small bounded buffer that keeps the most recent elements of any kind, oldest
// first; used for recent log lines and recent answers.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace quillfort {

template <class E>
struct QuillfortRingBuffer {
    std::int64_t capacity = 1;  // the most elements kept; never below 1
    std::vector<E> storage;     // the kept elements, oldest first

    QuillfortRingBuffer() = default;

    // Keeps the last `capacity` of `elements` in their order; a capacity below 1
    // counts as 1.
    explicit QuillfortRingBuffer(std::int64_t requestedCapacity, std::vector<E> elements = {})
        : capacity(std::max<std::int64_t>(requestedCapacity, 1)), storage(std::move(elements)) {
        trimToCapacity();
    }

    [[nodiscard]] std::int64_t count() const noexcept {
        return static_cast<std::int64_t>(storage.size());
    }

    [[nodiscard]] const std::vector<E>& elements() const noexcept { return storage; }

    void append(E element) {
        storage.push_back(std::move(element));
        trimToCapacity();
    }

    bool operator==(const QuillfortRingBuffer&) const = default;

private:
    void trimToCapacity() {
        const auto limit = static_cast<std::size_t>(capacity);
        if (storage.size() > limit) {
            storage.erase(storage.begin(),
                          storage.begin() + static_cast<std::ptrdiff_t>(storage.size() - limit));
        }
    }
};

}  // namespace quillfort
