#include "bh_input/grabber/String.h"

#include <cstring>

namespace bh {

void String::set(const char* text) {
    // Copy first: text may point into the old array.
    char* copy = nullptr;
    size_t size = 0;
    if (text != nullptr && *text != '\0') {
        size = std::strlen(text) + 1;
        copy = new char[size];
        std::memcpy(copy, text, size);
    }
    clear();
    p_ = copy;
    size_ = size;
}

void String::clear() {
    if (size_ != 0)
        delete[] p_;
    p_ = nullptr;
    size_ = 0;
}

bool String::operator==(const String& other) const {
    if (empty() || other.empty())
        return empty() && other.empty();
    return std::strcmp(p_, other.p_) == 0;
}

}  // namespace bh
