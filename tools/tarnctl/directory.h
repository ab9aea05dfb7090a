// Names in directories, and who holds the lock on a file.
#pragma once

#include <string>
#include <vector>

namespace tarnctl
{

/** Names in a directory, sorted; none when it cannot be read. */
std::vector<std::string> names_in(const std::string &dir);

/** The process that holds the flock on a file, as /proc/locks tells; 0: none that can be seen. */
int lock_holder(const std::string &path);

/** What a symbolic link says; empty when it is none. */
std::string link_target(const std::string &path);

/** Text behind the last '/'. */
std::string base_name(const std::string &path);

} // namespace tarnctl
