// A network namespace of its own for a test.
#ifndef TOLV_TESTS_SUPPORT_OWNNETWORK_HPP
#define TOLV_TESTS_SUPPORT_OWNNETWORK_HPP

#include <sched.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <string>
#include <vector>

/// Moves the calling thread, and what it starts, to a network of its own in
/// which only the loopback is up, with further addresses on it. It ends with
/// the process.
///
/// i_addresses: with their prefix lengths.
///
/// Returns: empty, or why it is not there.
inline std::string enterOwnNetwork(const std::vector<std::string>& i_addresses)
{
    if (unshare(CLONE_NEWNET) != 0)
    {
        return std::string("no network namespace: ") + std::strerror(errno);
    }
    std::string l_commands = "ip link set lo up";
    for (const std::string& l_address : i_addresses)
    {
        l_commands += " && ip addr add " + l_address + " dev lo";
        l_commands += l_address.find(':') == std::string::npos ? "" : " nodad";
    }
    // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe): no foreign text.
    if (std::system((l_commands + " 2> /dev/null").c_str()) != 0)
    {
        return "cannot set up the loopback: " + l_commands;
    }
    return "";
}

#endif
