#pragma once

#include <sys/types.h>

#include <string_view>

#include "platform/file_manager.h"
#include "platform/result.h"

namespace orvex::platform {

/// Opens `name` below the directory handle `directory` without leaving it and without following a symbolic link,
/// whatever another process does to the tree meanwhile. `flags` and `mode` as for open(2); O_CLOEXEC is added.
/// With O_PATH a symbolic link at the end may come back as itself: look at its kind.
/// Source: openat2(2) with RESOLVE_BENEATH and RESOLVE_NO_SYMLINKS; a kernel or a sandbox without it is served by
/// `openBeneathStepwise`.
Result<FileDescriptor> openBeneath(int directory, std::string_view name, int flags, mode_t mode = 0);

/// The same with a plain openat(2) for each part of the name.
Result<FileDescriptor> openBeneathStepwise(int directory, std::string_view name, int flags, mode_t mode = 0);

}  // namespace orvex::platform
