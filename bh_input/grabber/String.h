#pragma once

// The owning C string of device records: a heap character array and its size
// counting the terminator (0 when empty, and then the pointer is null).

#include <cstddef>

namespace bh {

class String {
public:
    String() = default;
    String(const char* text) { set(text); }  // NOLINT: converts like a C string
    String(const String& other) { set(other.c_str()); }
    String& operator=(const String& other) {
        if (this != &other)
            set(other.c_str());
        return *this;
    }
    String& operator=(const char* text) {
        set(text);
        return *this;
    }
    ~String() { clear(); }

    // Frees the old text, then copies the argument unless it is null or empty.
    void set(const char* text);
    void clear();
    bool empty() const { return size_ == 0; }
    const char* get() const { return p_; }
    const char* c_str() const { return p_; }
    size_t size() const { return size_; }

    bool operator==(const String& other) const;
    bool operator!=(const String& other) const { return !(*this == other); }

private:
    char* p_ = nullptr;
    size_t size_ = 0;
};

}  // namespace bh
