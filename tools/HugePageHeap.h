// Puts a program's malloc heap on transparent huge pages.
//
// Nearly all the tunnel library's memory comes from malloc: at a million
// tunnels the tables, FIB via sets and dependency records fill hundreds of
// megabytes. On 4 KiB pages every first touch of a page is a fault of its
// own, and most lookups into those tables also miss the TLB. glibc (2.35 and
// later) advises its heap for huge pages when the tunable
// glibc.malloc.hugetlb=1 is set, and where the kernel leaves huge pages to
// advice (transparent_hugepage "madvise") nothing else gets them there.
// Tunables are read when the program starts, so a program that wants them
// runs itself again with the tunable added to its environment: same process,
// arguments and environment otherwise.
//
// Whoever has already set glibc.malloc.hugetlb (to 0 to keep the plain heap)
// decides; the program is then left alone. Other C libraries ignore the
// tunable, and a failed exec just goes on with the heap as it is.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

namespace Tunnel::Tool {

inline constexpr std::string_view kHugePageTunable = "glibc.malloc.hugetlb";

// The GLIBC_TUNABLES value that adds huge pages to `current` (the variable's
// value, or null when unset); nothing when `current` already sets the tunable.
inline std::optional<std::string> hugePageTunables(char const* current) {
  std::string value = current ? current : "";
  // Tunables are name=value pairs separated by colons.
  for (std::size_t at = 0; at <= value.size();) {
    std::size_t const end = std::min(value.find(':', at), value.size());
    std::string_view const pair(value.data() + at, end - at);
    if (pair.substr(0, pair.find('=')) == kHugePageTunable) return std::nullopt;
    at = end + 1;
  }
  if (!value.empty()) value += ':';
  value += kHugePageTunable;
  value += "=1";
  return value;
}

// Runs the program again with its heap on huge pages, unless the environment
// already says how the heap uses them. Returns only when it did not.
inline void runWithHugePageHeap(char** argv) {
  char const* const current = std::getenv("GLIBC_TUNABLES");
  std::optional<std::string> const before = current ? std::optional<std::string>(current) : std::nullopt;
  std::optional<std::string> const tunables = hugePageTunables(current);
  if (!tunables || setenv("GLIBC_TUNABLES", tunables->c_str(), 1) != 0) return;
  execv("/proc/self/exe", argv);
  // Could not: go on as started, with the environment as it was.
  if (before) {
    setenv("GLIBC_TUNABLES", before->c_str(), 1);
  } else {
    unsetenv("GLIBC_TUNABLES");
  }
}

}  // namespace Tunnel::Tool
