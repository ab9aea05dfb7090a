// Helpers for tests of what a process writes: syslog entries, floods of lines, lines without their
// prefix.
#pragma once

#include <string>
#include <vector>

namespace support
{

/** From now on each entry that this process hands to syslog is written to the descriptor as
 *  "<PRIORITY>text"; -1 (at start) drops it. Test programs never reach the system's syslog. */
void capture_syslog(int fd);

/** Logs lines of 40 to 1500 bytes from several threads, which also allocate; returns when all are
 *  out.
 *  @param first  number of the first thread; a thread is a writer */
void flood(int first, int threads, int lines);

/** Expects the output to hold each line of each writer whole, once and in order.
 *  @return all other lines, without prefix */
std::vector<std::string> expect_whole_floods(const std::string &output, int writers, int lines);

/** "14:03:07.042 name.info [file:1:func] text" as "info: text"; other lines as they are. */
std::string without_prefix(const std::string &line);

std::vector<std::string> split_lines(const std::string &text);

} // namespace support
