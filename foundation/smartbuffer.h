// smartbuffer: a growing text buffer for building SQL statements and other
// texts of unknown length. Two forms: `smartbuffer` lives on the heap from
// its first byte, `inline_smartbuffer` keeps short texts in the object.
//
// Both grow to (needed + 2048) / 2048 * 4096 bytes when a write does not fit,
// and both keep a sticky error flag: once a write failed, every later write
// fails too, so a caller may build a whole statement and test once at the end.
#pragma once

#include <cstdarg>
#include <cstddef>

class smartbuffer {
public:
    // The heap form: 2048 bytes are taken at the first write.
    smartbuffer();
    ~smartbuffer();
    smartbuffer(const smartbuffer&) = delete;
    smartbuffer& operator=(const smartbuffer&) = delete;

    // Appends text; 0, or -1 when the buffer could not grow (logged
    // "Could not grow heap-based query buffer to %d bytes" at level 0) or an
    // earlier write had failed. The text stays NUL-terminated.
    int append(const char* text);
    // Appends `length` raw bytes, which may contain NULs; 0/-1 as append.
    int append(const char* bytes, size_t length);
    // printf-style append; 0/-1 as append (also -1 for a format error).
    int appendf(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    int vappendf(const char* fmt, va_list ap);

    // Makes room for a text of `length` bytes plus its NUL; 0/-1.
    int reserve(size_t length);

    // The text, NUL-terminated; "" for an empty buffer. Owned by the buffer
    // and valid until the next write.
    const char* c_str() const;
    char* data();
    size_t length() const { return length_; }
    size_t capacity() const { return capacity_; }
    bool failed() const { return failed_; }
    bool onHeap() const { return heap_ != nullptr; }

    // Empties the text, keeping the memory; the error flag stays set.
    void clear();
    // Empties the text and clears the error flag.
    void reset();
    // Hands the text over as a malloc'ed string the caller frees; the buffer
    // is empty afterwards. nullptr if the buffer had failed or no memory.
    char* release();

protected:
    // The inline form: `area` of `size` bytes holds the text until it grows.
    smartbuffer(char* area, size_t size);

private:
    int grow(size_t needed);

    char* heap_ = nullptr;
    char* inline_ = nullptr;
    size_t inlineSize_ = 0;
    size_t length_ = 0;
    size_t capacity_ = 0;
    bool failed_ = false;
};

// The inline form: the first 2047 bytes stay in the object, larger texts
// move to the heap.
class inline_smartbuffer : public smartbuffer {
public:
    inline_smartbuffer() : smartbuffer(area_, sizeof(area_)) {}

private:
    char area_[2048];
};
