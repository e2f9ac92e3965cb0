#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include <sys/types.h>

namespace support {

/// What the system tells about a process; 0 for everything when it is gone.
std::size_t threadCount(pid_t process);

/// Without pipes, of which the server makes none.
std::size_t descriptorCount(pid_t process);

/// Whether a thread waits in the system.
bool isAsleep(pid_t process, pid_t thread);

/// The process's open descriptors, in ascending order.
std::vector<int> descriptors(pid_t process);

/// Memory that the process alone has and has written to, in KiB: heap and stacks, no files.
long anonymousKilobytes(pid_t process);

/// Processor time used so far by all of its threads, in seconds.
double processorSeconds(pid_t process);

/// The lowest TCP port on which the process listens, if any.
std::optional<std::uint16_t> listeningPort(pid_t process);

/// The calling process's own id, for the functions above.
pid_t self();

} // namespace support
