#include "support_log.h"

#include "tarn.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include <unistd.h>

namespace
{

std::atomic<int> syslog_fd{-1};

std::string flood_text(int writer, int seq)
{
    return "flood " + std::to_string(writer) + " " + std::to_string(seq) + " " +
           std::string(static_cast<size_t>((writer * 7 + seq * 37) % 1400), 'x') + "|";
}

void hand_to_capture(int priority, const char *format, va_list args)
{
    char text[8192];
    int n = std::snprintf(text, sizeof text, "<%d>", priority);
    n += std::vsnprintf(text + n, sizeof text - static_cast<size_t>(n), format, args);
    if (syslog_fd.load() >= 0)
    {
        EXPECT_EQ(::write(syslog_fd.load(), text, static_cast<size_t>(n)), n);
    }
}

} // namespace

// The C library's own, replaced. Its header is not included, because a fortified one has the
// function inline, under the second name.
#define REPLACE_SYSLOG(name, ...)                                                                  \
    extern "C" void name(__VA_ARGS__, const char *format, ...)                                     \
    {                                                                                              \
        va_list args;                                                                              \
        va_start(args, format);                                                                    \
        hand_to_capture(priority, format, args);                                                   \
        va_end(args);                                                                              \
    }
REPLACE_SYSLOG(syslog, int priority)
REPLACE_SYSLOG(__syslog_chk, int priority, int)

namespace support
{

void capture_syslog(int fd)
{
    syslog_fd.store(fd);
}

void flood(int first, int threads, int lines)
{
    std::vector<std::jthread> writers;
    for (int t = 0; t < threads; ++t)
    {
        writers.emplace_back([writer = first + t, lines] {
            for (int i = 0; i < lines; ++i)
            {
                TARN_LOG_INFO("%s", flood_text(writer, i).c_str());
                std::free(std::malloc(1 + static_cast<size_t>(i) * 97 % 5000));
            }
        });
    }
}

std::vector<std::string> expect_whole_floods(const std::string &output, int writers, int lines)
{
    std::vector<int> next(static_cast<size_t>(writers), 0);
    std::vector<std::string> others;
    for (const std::string &whole : split_lines(output))
    {
        const std::string line = without_prefix(whole);
        int writer = -1;
        int seq = -1;
        if (whole.find("flood ") == std::string::npos)
        {
            others.push_back(line);
        }
        else if (std::sscanf(line.c_str(), "info: flood %d %d", &writer, &seq) != 2 || writer < 0 ||
                 writer >= writers || line != "info: " + flood_text(writer, seq))
        {
            ADD_FAILURE() << "not whole: " << whole;
        }
        else
        {
            EXPECT_EQ(seq, next[static_cast<size_t>(writer)]++) << "of writer " << writer;
        }
    }
    EXPECT_EQ(next, std::vector<int>(static_cast<size_t>(writers), lines));
    return others;
}

std::string without_prefix(const std::string &line)
{
    const std::string stamp = line.substr(0, 13);
    const bool is_stamp =
        std::equal(stamp.begin(), stamp.end(), "00:00:00.000 ", [](char c, char form) {
            return form == '0' ? c >= '0' && c <= '9' : c == form;
        });
    const size_t open = line.find(" [", 13);
    const size_t close = line.find("] ", open);
    const size_t dot = line.rfind('.', open);
    return !is_stamp || close == std::string::npos || line.find(' ', 13) != open || dot < 13
               ? line
               : line.substr(dot + 1, open - dot - 1) + ": " + line.substr(close + 2);
}

std::vector<std::string> split_lines(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
    {
        lines.push_back(line);
    }
    return lines;
}

} // namespace support
