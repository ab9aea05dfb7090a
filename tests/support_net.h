// Network namespaces for tests: interfaces and routes of their own, without touching the machine's.
#pragma once

#include <functional>
#include <string>

namespace support
{

/** Runs body on a thread of its own that has a network and a mount namespace of its own, with the
 *  loopback interface up and every mount private. Where that is not allowed the test fails, or,
 *  with TARN_TEST_WITHOUT_NAMESPACES in the environment, says so and goes on without body. */
void in_namespace(const std::function<void()> &body);

/** Output of a shell command, run in the calling thread's namespaces. */
std::string shell(const std::string &command);

/** Lets a test program that is not root have namespaces: starts it again as root of a user
 *  namespace. Call it from a static object: const bool allowed = support::allow_namespaces(). */
bool allow_namespaces();

} // namespace support
