// smartbuffer: growth, sticky failure and hand-over of the growing text
// buffer used to build statements.
#include "foundation/smartbuffer.h"

#include "foundation/logger.h"

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

const size_t kFirstHeapSize = 2048;

// The size a buffer grows to when `needed` bytes (NUL included) must fit.
size_t grownSize(size_t needed)
{
    return (needed + 2048) / 2048 * 4096;
}

} // namespace

smartbuffer::smartbuffer() = default;

smartbuffer::smartbuffer(char* area, size_t size) : inline_(area), inlineSize_(size), capacity_(size)
{
    inline_[0] = '\0';
}

smartbuffer::~smartbuffer()
{
    free(heap_);
}

int smartbuffer::grow(size_t needed)
{
    size_t size = (heap_ == nullptr && inline_ == nullptr && needed <= kFirstHeapSize) ? kFirstHeapSize
                                                                                       : grownSize(needed);
    char* bigger = nullptr;
    if (size <= INT_MAX) {
        bigger = static_cast<char*>(heap_ ? realloc(heap_, size) : malloc(size));
    }
    if (bigger == nullptr) {
        log_printf(0, "%s:%d: Could not grow heap-based query buffer to %d bytes\n", __FILE__, __LINE__,
                   size > INT_MAX ? INT_MAX : static_cast<int>(size));
        failed_ = true;
        return -1;
    }
    if (heap_ == nullptr) {
        // Leaving the inline area (or starting out): carry the text over.
        if (inline_ != nullptr)
            memcpy(bigger, inline_, length_ + 1);
        else
            bigger[0] = '\0';
    }
    heap_ = bigger;
    capacity_ = size;
    return 0;
}

int smartbuffer::reserve(size_t length)
{
    if (failed_)
        return -1;
    if (length >= SIZE_MAX - 4096) {
        log_printf(0, "%s:%d: Could not grow heap-based query buffer to %d bytes\n", __FILE__, __LINE__, INT_MAX);
        failed_ = true;
        return -1;
    }
    if (length + 1 <= capacity_)
        return 0;
    return grow(length + 1);
}

int smartbuffer::append(const char* bytes, size_t length)
{
    if (failed_)
        return -1;
    if (length > SIZE_MAX - length_ - 4096 || reserve(length_ + length) != 0) {
        failed_ = true;
        return -1;
    }
    char* text = data();
    if (length > 0)
        memcpy(text + length_, bytes, length);
    length_ += length;
    text[length_] = '\0';
    return 0;
}

int smartbuffer::append(const char* text)
{
    return append(text ? text : "", text ? strlen(text) : 0);
}

int smartbuffer::vappendf(const char* fmt, va_list ap)
{
    if (failed_)
        return -1;
    va_list measure;
    va_copy(measure, ap);
    int wanted = vsnprintf(nullptr, 0, fmt, measure);
    va_end(measure);
    if (wanted < 0) {
        failed_ = true;
        return -1;
    }
    if (reserve(length_ + static_cast<size_t>(wanted)) != 0)
        return -1;
    char* text = data();
    vsnprintf(text + length_, capacity_ - length_, fmt, ap);
    length_ += static_cast<size_t>(wanted);
    return 0;
}

int smartbuffer::appendf(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int rc = vappendf(fmt, ap);
    va_end(ap);
    return rc;
}

const char* smartbuffer::c_str() const
{
    if (heap_)
        return heap_;
    if (inline_)
        return inline_;
    return "";
}

char* smartbuffer::data()
{
    if (heap_)
        return heap_;
    if (inline_)
        return inline_;
    // An untouched heap buffer has no memory yet; take the first block.
    if (grow(1) != 0)
        return nullptr;
    return heap_;
}

void smartbuffer::clear()
{
    length_ = 0;
    if (heap_)
        heap_[0] = '\0';
    else if (inline_)
        inline_[0] = '\0';
}

void smartbuffer::reset()
{
    clear();
    failed_ = false;
}

char* smartbuffer::release()
{
    if (failed_)
        return nullptr;
    char* out;
    if (heap_) {
        out = heap_;
        heap_ = nullptr;
        capacity_ = inline_ ? inlineSize_ : 0;
    } else {
        out = static_cast<char*>(malloc(length_ + 1));
        if (out == nullptr)
            return nullptr;
        memcpy(out, c_str(), length_ + 1);
    }
    length_ = 0;
    if (inline_)
        inline_[0] = '\0';
    return out;
}
