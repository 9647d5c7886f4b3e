#pragma once

#include <string>
#include <vector>

namespace sandbox {

/// What the caller wants the sandbox to look like.
struct Layout
{
    std::string work;                 ///< folder with `run` and `tmp`, which become /run and /tmp
    std::vector<std::string> exposed; ///< folders that stay visible and writable at their own place
    bool userNamespace = false;       ///< true when the caller is not root
};

/// Writes "vantora-sim-sandbox: WHAT: reason" to standard error and ends the process with status 1.
[[noreturn]] void fail(const std::string& what);

/// Gives the calling process, already in a mount namespace of its own, the file systems of the device: the
/// host's root read-only, and private /run, /tmp, /etc (a layer over the host's), /dev, /proc and /sys. Ends
/// the process on failure.
void make_mounts(const Layout& layout);

/// Creates `wlan0` and `eth0`, each one end of a cable whose other end is `air0` or `cable0`, and takes them
/// and `lo` up. Ends the process on failure.
void make_interfaces();

} // namespace sandbox
