// The shell uses the tree's owning descriptor.
#pragma once

#include "lib/unique_fd.h"

namespace dhcpsh {
using ::unique_fd;
}  // namespace dhcpsh
