// LogCapture: sends the process's log to a temporary file for the life of the
// object, at a chosen level, so a test can assert on the lines it wrote.
//
//   ferrytest::LogCapture log(5);
//   ... code under test ...
//   EXPECT_EQ(ferrytest::countOf(log.text(), "Not a header because"), 3u);
#pragma once

#include "foundation/logger.h"

#include <cstdio>
#include <string>

namespace ferrytest {

class LogCapture {
public:
    explicit LogCapture(int level) : file_(tmpfile()), savedLevel_(log_level)
    {
        log_level = level;
        saved_ = swap_log_stream(file_);
    }
    ~LogCapture()
    {
        // With no log open before, stderr stands in: the logger must not keep
        // a stream that is closed below.
        swap_log_stream(saved_ != nullptr ? saved_ : stderr);
        log_level = savedLevel_;
        fclose(file_);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Everything logged so far.
    std::string text()
    {
        fflush(file_);
        std::string all;
        rewind(file_);
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, file_)) > 0)
            all.append(buf, n);
        fseek(file_, 0, SEEK_END);
        return all;
    }

private:
    FILE* file_;
    FILE* saved_;
    int savedLevel_;
};

// Occurrences of `word` in `text`.
inline size_t countOf(const std::string& text, const std::string& word)
{
    size_t n = 0;
    for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1))
        ++n;
    return n;
}

} // namespace ferrytest
